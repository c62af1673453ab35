/// @file
/// Process properties: a process-wide table of named text properties through which the modules
/// of one process share small settings. One module sets a property, another reads it:
///
///     base::set_process_property("ui.theme", "dark");  // returns the previous value, or ""
///     std::string theme = base::get_process_property("ui.theme");
///
/// The table lives in memory for the life of the process and is created by its first use. Names
/// and values are arbitrary byte strings, case-sensitive. There is no deletion and no listing:
/// setting "" is the only way to clear a property, and an empty value reads like an absent one.
/// Both functions may be called from any thread; a null argument throws std::logic_error before
/// the table is touched. Calls after the table's destruction at process exit are not supported.
#ifndef VELMORA_BASE_PROCESS_PROPERTY_H
#define VELMORA_BASE_PROCESS_PROPERTY_H

#include <string>

#include "base/export.h"

/// The process-property table (top-level namespace, not under velmora::base).
namespace base {

/// Sets name to value; returns the value it had before, or "" when the name was new. Both
/// pointers must be non-null (std::logic_error otherwise). The first use of the table throws
/// std::runtime_error ("Mutex init error: " and the reason) if its lock cannot be created; a
/// later call tries again. Lock failures are logged, not passed on.
VELMORA_BASE_EXPORT std::string set_process_property(const char* name, const char* value);

/// The current value of name, or "" when it was never set (or set to ""). name must be
/// non-null (std::logic_error otherwise); the first use of the table may throw as for
/// set_process_property.
VELMORA_BASE_EXPORT std::string get_process_property(const char* name);

}  // namespace base

#endif  // VELMORA_BASE_PROCESS_PROPERTY_H
