#include "support/log_sink.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "vex_debug.h"

namespace velmora {
namespace fuzzing {
namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;
thread_local int t_level = 0;

int record(const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int length = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  std::string text(length > 0 ? static_cast<std::size_t>(length) + 1 : 1, '\0');
  if (length > 0) {
    vsnprintf(&text[0], text.size(), format, args);
  }
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.push_back({t_level, std::move(text)});
  return length;
}

}  // namespace

void clearLog() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.clear();
}

const std::vector<LogLine>& loggedLines() {
  return g_lines;
}

std::size_t countEndingWith(int level, const std::string& text) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::size_t count = 0;
  for (const LogLine& line : g_lines) {
    if (line.level == level && line.text.size() >= text.size() &&
        line.text.compare(line.text.size() - text.size(), text.size(), text) == 0) {
      ++count;
    }
  }
  return count;
}

}  // namespace fuzzing
}  // namespace velmora

// Exported from the executable (the targets hide everything else), so that the library binds to
// these definitions instead of the stand-in's.
#define VELMORA_FUZZ_VISIBLE __attribute__((visibility("default")))

extern "C" {

VELMORA_FUZZ_VISIBLE int vexDebugCheckLevelGetFrameAndChunk(LogFrame* frame) {
  velmora::fuzzing::t_level = frame->level;
  return 1;
}

VELMORA_FUZZ_VISIBLE int vexDebugOutput0(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = velmora::fuzzing::record(format, args);
  va_end(args);
  return length;
}

VELMORA_FUZZ_VISIBLE int vexDebugOutputV(const char* format, va_list args) {
  return velmora::fuzzing::record(format, args);
}

}  // extern "C"
