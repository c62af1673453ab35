// The log entry points, the boot identifier and the function tracer.
#include "base/logging.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace velmora {
namespace base {

const uint16_t kLogLevelTable[5] = {kLogCritical, kLogError, kLogWarning, kLogInfo, kLogVerbose};

namespace {

constexpr unsigned int kBootIdOnClockFailure = 4660;
constexpr int kDumpBytesPerLine = 16;
constexpr size_t kDumpLineBufferSize = 52;

// Levels above this are never emitted; an index outside the table counts as one of them.
constexpr unsigned int kHighestEmittedLevel = kLogVerbose;

unsigned int levelForIndex(unsigned int level_index) {
  constexpr unsigned int kTableSize = sizeof(kLogLevelTable) / sizeof(kLogLevelTable[0]);
  return level_index < kTableSize ? kLogLevelTable[level_index] : kHighestEmittedLevel + 1;
}

// A line whose level the platform refuses costs the three checks and nothing else: the
// prefix's pieces (the base name above all, a scan of the whole path) are worked out only when
// the prefix is written. Each check gets a frame of its own, built in place, as the inline
// statements do (copying one frame would read back what was just stored field by field). The
// body is inlined into each entry point: no further call.
inline __attribute__((always_inline)) void printLogLine(unsigned int level_index, const char* tag,
                                                        const char* file, int line,
                                                        const char* function, const char* format,
                                                        va_list args) {
  if (format == nullptr) {
    return;
  }
  const unsigned int level = levelForIndex(level_index);
  if (level > kHighestEmittedLevel) {
    return;
  }
  const uint16_t frame_level = static_cast<uint16_t>(level);
  if (internal::logWanted(frame_level)) {
    vexDebugOutput0("[%s]%s:%d:%s:", tag ? tag : "", blog_base_name(file ? file : ""), line,
                    function ? function : "");
  }
  if (internal::logWanted(frame_level)) {
    vexDebugOutputV(format, args);
  }
  if (internal::logWanted(frame_level)) {
    vexDebugOutput0("\n");
  }
}

}  // namespace

unsigned int bootID() {
  static std::atomic<unsigned int> boot_id{0};
  unsigned int value = boot_id.load(std::memory_order_relaxed);
  if (value != 0) {
    return value;
  }
  struct timespec now;
  if (clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
    value = static_cast<unsigned int>(now.tv_nsec);
  } else {
    value = kBootIdOnClockFailure;
  }
  // Threads racing on the first call all return the value of the one that stored first.
  unsigned int stored = 0;
  if (!boot_id.compare_exchange_strong(stored, value, std::memory_order_relaxed)) {
    return stored;
  }
  return value;
}

FunctionTracer::FunctionTracer(const char* function, const char* file, int line)
    : function_(function), file_(file), line_(line) {
  if (internal::logWanted(kLogVerbose)) {
    vexDebugOutput0("TRACE -> [%s(IN)] :%s:%d \n", function_, file_, line_);
  }
}

FunctionTracer::~FunctionTracer() {
  if (internal::logWanted(kLogVerbose)) {
    vexDebugOutput0("TRACE <- [%s(OUT)] :%s:%d \n", function_, file_, line_);
  }
}

}  // namespace base
}  // namespace velmora

using velmora::base::printLogLine;

const char* blog_base_name(const char* path) {
  const char* last_slash = strrchr(path, '/');
  return last_slash ? last_slash + 1 : path;
}

void print_browser_log(unsigned int level_index, const char* tag, const char* file, int line,
                       const char* function, const char* format, ...) {
  va_list args;
  va_start(args, format);
  printLogLine(level_index, tag, file, line, function, format, args);
  va_end(args);
}

void print_hbbtv_controller_log(unsigned int level_index, const char* tag, const char* file,
                                int line, const char* function, const char* format, ...) {
  va_list args;
  va_start(args, format);
  printLogLine(level_index, tag, file, line, function, format, args);
  va_end(args);
}

void dump_memory(const char* title, const unsigned char* data, int length) {
  constexpr unsigned int kDumpLevelIndex = 4;
  if (data == nullptr && length > 0) {
    return;
  }
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const unsigned int id = static_cast<unsigned int>(now.tv_nsec);
  print_browser_log(kDumpLevelIndex, nullptr, nullptr, 0, nullptr, "DUMPMEM(%08Xd):, %s", id,
                    title);
  for (int offset = 0; offset < length; offset += velmora::base::kDumpBytesPerLine) {
    char buffer[velmora::base::kDumpLineBufferSize] = {};
    const int chunk = std::min(velmora::base::kDumpBytesPerLine, length - offset);
    for (int i = 0; i < chunk; ++i) {
      snprintf(buffer + 3 * i, sizeof(buffer) - 3 * i, "%02X ", data[offset + i]);
    }
    print_browser_log(kDumpLevelIndex, nullptr, nullptr, 0, nullptr, "DUMPMEM(%08Xd):, %s", id,
                      buffer);
  }
}

// One definition under two exported names: the plain "dbg_location" that callers declaring it
// with C linkage link to, and the header's C++ name, an alias of it.
VELMORA_BASE_EXPORT std::string dbgLocation(const char* file, int line,
                                            const char* function) __asm__("dbg_location");

std::string dbgLocation(const char* file, int line, const char* function) {
  std::ostringstream stream;
  // A stream swallows a failure of its own allocations and skips the rest of the text; with
  // badbit among its exceptions, std::bad_alloc reaches the caller instead of a text cut short.
  // A null argument ends the text where a stream put into its bad state by it would.
  stream.exceptions(std::ios::badbit);
  if (file == nullptr) {
    return std::string();
  }
  stream << file << ":" << line << ":";
  if (function != nullptr) {
    stream << function << "():";
  }
  return stream.str();
}

std::string dbg_location(const char* file, int line, const char* function)
    __attribute__((alias("dbg_location")));
