/// @file
/// Symbol visibility of the library's interface. The library is built with hidden visibility;
/// everything callers may use is marked VELMORA_BASE_EXPORT.
#ifndef VELMORA_BASE_EXPORT_H
#define VELMORA_BASE_EXPORT_H

/// Marks a class, function or variable as part of the library's exported interface.
#define VELMORA_BASE_EXPORT __attribute__((visibility("default")))

#endif  // VELMORA_BASE_EXPORT_H
