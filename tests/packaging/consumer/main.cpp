// A program built against the installed library: logs a line, reaches a singleton and reads the
// boot identifier twice.
#include <cstdio>

#include "base/logging.h"
#include "base/singleton.h"

struct Counter {
  int value = 41;
};

int main() {
  print_browser_log(1, "consumer", __FILE__, __LINE__, __func__, "installed library in use");
  Counter* counter = velmora::base::Singleton<Counter>::get();
  ++counter->value;
  const bool same = counter == velmora::base::Singleton<Counter>::get();
  const bool stable_boot_id = velmora::base::bootID() == velmora::base::bootID();
  std::printf("consumer: value %d, one instance %d, stable boot id %d\n", counter->value, same,
              stable_boot_id);
  return (counter->value == 42 && same && stable_boot_id) ? 0 : 1;
}
