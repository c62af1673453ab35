// Thread identity and the string, number and path helpers.
#include "base/utils.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace velmora {
namespace base {

int currentThread() { return static_cast<int>(syscall(SYS_gettid)); }

}  // namespace base
}  // namespace velmora
