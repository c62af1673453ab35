// browser_shell: the first look at the library. Writes log lines through the platform's
// debug-output library and reaches a process-wide service through a singleton.
//
// Run with VEX_DEBUG_LEVEL=5000 to see the library's verbose lines as well.
#include <cstdio>

#include "base/logging.h"
#include "base/singleton.h"

namespace {

// A process-wide settings store, created on first use and never destroyed.
class ShellSettings {
 public:
  ShellSettings() { VELMORA_LOG(velmora::base::kLogCritical, "Create ShellSettings.\n"); }
  const char* startUrl() const { return "file:///usr/share/browser/start.html"; }
};

using SettingsSingleton = velmora::base::Singleton<ShellSettings>;

}  // namespace

int main() {
  velmora::base::FunctionTracer tracer("main", __FILE__, __LINE__);
  const unsigned int boot_id = velmora::base::bootID();
  print_browser_log(0, "Shell", __FILE__, __LINE__, __func__, "browser shell starting, boot id %u",
                    boot_id);

  ShellSettings* settings = SettingsSingleton::get();
  const bool same_instance = settings == SettingsSingleton::get();
  print_browser_log(1, "Shell", __FILE__, __LINE__, __func__, "start page %s",
                    settings->startUrl());

  const unsigned char greeting[] = "velmora base utilities";
  dump_memory("greeting", greeting, sizeof(greeting) - 1);

  printf("browser_shell: boot id %u, start page %s, one settings instance: %s\n", boot_id,
         settings->startUrl(), same_instance ? "yes" : "no");
  return same_instance ? 0 : 1;
}
