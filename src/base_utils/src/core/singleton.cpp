// The waiting loop of Singleton's concurrent first callers.
#include "base/singleton.h"

#include <sched.h>

namespace velmora {
namespace base {
namespace internal {

intptr_t WaitForInstance(intptr_t* instance) {
  for (;;) {
    const intptr_t value = __atomic_load_n(instance, __ATOMIC_ACQUIRE);
    if (value != kSingletonBeingCreated) {
      return value;
    }
    sched_yield();
  }
}

}  // namespace internal
}  // namespace base
}  // namespace velmora
