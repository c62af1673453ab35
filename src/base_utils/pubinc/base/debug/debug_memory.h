/// @file
/// Memory debugging switched on by the environment variable SHOW_MEMORY_DEBUG_INFO, and a helper
/// that shows text files such as /proc/meminfo on standard output and in the log.
///
///     velmora::base::debug::debug_init();  // once, early at start-up
///     if (velmora::base::debug::debug_memory_debug_enabled()) {
///       velmora::base::debug::debug_dump_system_memory_status();
///     }
///
/// Memory debugging is on when SHOW_MEMORY_DEBUG_INFO is exactly "TRUE", "1" or "true".
///
/// Deliberate behaviour, kept as it is:
/// - showFileContents shows at most 4095 bytes and drops the last byte it read (normally the
///   file's final line feed; a longer file is cut and also loses its 4095th byte).
/// - showFileContents does not consult the enabled flag (callers check it), but does nothing
///   before the first debug_init(), which allocates the shared text buffer whatever the variable
///   says.
/// - The two allocator hooks are placeholders for an allocator with statistics: they do nothing.
///
/// Inside the library, the buffer and the flag are only used under one lock, so concurrent calls
/// are safe; the text buffer is shared, so the globals are for reading between calls.
#ifndef VELMORA_BASE_DEBUG_DEBUG_MEMORY_H
#define VELMORA_BASE_DEBUG_DEBUG_MEMORY_H

#include "base/export.h"

namespace velmora {
namespace base {
namespace debug {

/// 1 once debug_init() has seen one of the accepted values; never cleared.
VELMORA_BASE_EXPORT extern int g_brovana_memory_debug_enabled;
/// The 4096-byte text buffer, allocated by the first debug_init() and never freed; null before.
VELMORA_BASE_EXPORT extern char* g_brovana_memory_debug_info;

/// Allocates the text buffer if needed, then reads SHOW_MEMORY_DEBUG_INFO: true (and the flag
/// set) for "TRUE", "1" or "true"; false when unset or any other value (the flag left as it was).
VELMORA_BASE_EXPORT bool debug_init();
/// The enabled flag.
VELMORA_BASE_EXPORT bool debug_memory_debug_enabled();
/// Placeholder for an allocator extension: does nothing and reports success.
VELMORA_BASE_EXPORT bool debug_init_tcmalloc_extension();
/// Placeholder for an allocator's statistics: does nothing.
VELMORA_BASE_EXPORT void debug_dump_tcmalloc_status();
/// Shows at most 4095 bytes of the file at path, minus the last byte read (see the file's
/// description). Prints `"{%d-%f}[%s] %s:%d:%s(): ==%s==\n %s\n"` with printf (boot id,
/// monotonic seconds, "B-LOG", "debug_memory.cpp", the line, "showFileContents", title and
/// text), and the same line to the log at level 1. A file that cannot be opened logs
/// `"Error opening %s\n"`, one that yields no byte `"Error reading %s\n"` (level 1000, with the
/// path). Does nothing before debug_init() or when title or path is null.
VELMORA_BASE_EXPORT void showFileContents(const char* title, const char* path);
/// showFileContents("System MemInfo:", "/proc/meminfo").
VELMORA_BASE_EXPORT void debug_dump_system_memory_status();

}  // namespace debug
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_DEBUG_DEBUG_MEMORY_H
