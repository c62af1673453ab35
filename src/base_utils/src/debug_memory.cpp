// Memory debugging: the switch read from the environment and the file display.
#include "base/debug/debug_memory.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/logging.h"

// The shown line: "{bootID-time}[B-LOG] file:line:function(): ==title==\n text\n". A literal, so
// that the compiler checks the arguments of both outputs against it.
#define VELMORA_SHOWN_LINE_FORMAT "{%d-%f}[%s] %s:%d:%s(): ==%s==\n %s\n"

namespace velmora {
namespace base {
namespace debug {

int g_brovana_memory_debug_enabled = 0;
char* g_brovana_memory_debug_info = nullptr;

namespace {

constexpr const char* kSwitchVariable = "SHOW_MEMORY_DEBUG_INFO";
constexpr size_t kInfoBufferSize = 4096;

// Guards the flag and the shared text buffer within the library.
std::mutex& debugMutex() {
  static std::mutex mutex;
  return mutex;
}

bool switchesDebuggingOn(const char* value) {
  return strcmp(value, "TRUE") == 0 || strcmp(value, "1") == 0 || strcmp(value, "true") == 0;
}

// CLOCK_MONOTONIC in seconds, -1.0 when the clock cannot be read.
double monotonicSeconds() {
  struct timespec now;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    return -1.0;
  }
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Reads at most one byte less than the buffer holds and terminates the text in place of the last
// byte read. Returns false (after logging) when the file cannot be opened or holds nothing.
bool readText(const char* path, char* text) {
  FILE* file = fopen(path, "rb");
  if (file == nullptr) {
    VELMORA_LOG_FULL("B-LOG", kLogError, __LINE__, "showFileContents", "Error opening %s\n", path);
    return false;
  }
  const size_t read = fread(text, 1, kInfoBufferSize - 1, file);
  if (read == 0) {
    VELMORA_LOG_FULL("B-LOG", kLogError, __LINE__, "showFileContents", "Error reading %s\n", path);
    fclose(file);
    return false;
  }
  text[read - 1] = '\0';
  fclose(file);
  return true;
}

}  // namespace

bool debug_init() {
  std::lock_guard<std::mutex> lock(debugMutex());
  if (g_brovana_memory_debug_info == nullptr) {
    g_brovana_memory_debug_info = static_cast<char*>(malloc(kInfoBufferSize));
  }
  const char* value = getenv(kSwitchVariable);
  if (value == nullptr || !switchesDebuggingOn(value)) {
    return false;
  }
  g_brovana_memory_debug_enabled = 1;
  return true;
}

bool debug_memory_debug_enabled() {
  std::lock_guard<std::mutex> lock(debugMutex());
  return g_brovana_memory_debug_enabled != 0;
}

bool debug_init_tcmalloc_extension() {
  return true;
}

void debug_dump_tcmalloc_status() {}

void showFileContents(const char* title, const char* path) {
  std::lock_guard<std::mutex> lock(debugMutex());
  char* text = g_brovana_memory_debug_info;
  if (text == nullptr || title == nullptr || path == nullptr) {
    return;
  }
  if (!readText(path, text)) {
    return;
  }
  // Both outputs are formatted straight from the values, without the heap: a memory report is
  // wanted most when memory is short.
  const int line = __LINE__;
  const double now = monotonicSeconds();
  const int boot_id = static_cast<int>(bootID());
  const char* base_name = blog_base_name(__FILE__);
  printf(VELMORA_SHOWN_LINE_FORMAT, boot_id, now, "B-LOG", base_name, line, __func__, title, text);
  if (internal::logWanted(kLogCritical)) {
    vexDebugOutput0(VELMORA_SHOWN_LINE_FORMAT, boot_id, now, "B-LOG", base_name, line, __func__,
                    title, text);
  }
}

void debug_dump_system_memory_status() {
  showFileContents("System MemInfo:", "/proc/meminfo");
}

}  // namespace debug
}  // namespace base
}  // namespace velmora
