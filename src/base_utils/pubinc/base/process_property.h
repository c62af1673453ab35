// Process properties: a process-wide table of named text properties through which the modules
// of one process share small settings. One module sets a property, another reads it:
//
//   base::set_process_property("ui.theme", "dark");    // returns the previous value, or ""
//   std::string theme = base::get_process_property("ui.theme");
//
// The table lives in memory for the life of the process and is created by its first use. Names
// and values are arbitrary byte strings, case-sensitive. There is no deletion and no listing:
// setting "" is the only way to clear a property, and an empty value reads like an absent one.
// Both functions may be called from any thread; a null argument throws std::logic_error before
// the table is touched. Calls after the table's destruction at process exit are not supported.
#ifndef VELMORA_BASE_PROCESS_PROPERTY_H
#define VELMORA_BASE_PROCESS_PROPERTY_H

#include <string>

#include "base/export.h"

namespace base {

// Sets name to value; returns the value it had before, or "" when the name was new.
VELMORA_BASE_EXPORT std::string set_process_property(const char* name, const char* value);

// The current value of name, or "" when it was never set.
VELMORA_BASE_EXPORT std::string get_process_property(const char* name);

}  // namespace base

#endif  // VELMORA_BASE_PROCESS_PROPERTY_H
