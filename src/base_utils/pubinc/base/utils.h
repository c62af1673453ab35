// Free utility functions of the library: thread identity and the string, number and path helpers.
#ifndef VELMORA_BASE_UTILS_H
#define VELMORA_BASE_UTILS_H

#include "base/export.h"

namespace velmora {
namespace base {

// The calling thread's kernel thread id (gettid), not a pthread_t.
VELMORA_BASE_EXPORT int currentThread();

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_UTILS_H
