#include "log_capture.h"

#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace velmora {
namespace testing {
namespace {

struct CaptureState {
  std::mutex mutex;
  std::condition_variable written;
  std::vector<LogEntry> entries;
  std::vector<LogFrame> frames;
  int threshold = 5000;
  std::function<int(const LogFrame&)> answer;
};

CaptureState& state() {
  static CaptureState* capture = new CaptureState();
  return *capture;
}

thread_local LogFrame t_last_frame = {0, 0, 0, 0};
thread_local int t_platform_call_depth = 0;

// Marks the platform call this thread is in, for the fault injection to leave alone.
class PlatformCall {
 public:
  PlatformCall() { ++t_platform_call_depth; }
  ~PlatformCall() { --t_platform_call_depth; }
  PlatformCall(const PlatformCall&) = delete;
  PlatformCall& operator=(const PlatformCall&) = delete;
};

std::string formatText(const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  const int length = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length <= 0) {
    return std::string();
  }
  std::string text(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(&text[0], text.size(), format, args);
  text.resize(static_cast<size_t>(length));
  return text;
}

int record(const char* format, va_list args) {
  std::string text = formatText(format, args);
  const int length = static_cast<int>(text.size());
  CaptureState& capture = state();
  {
    std::lock_guard<std::mutex> lock(capture.mutex);
    capture.entries.push_back({t_last_frame.level, t_last_frame.module, std::move(text)});
  }
  capture.written.notify_all();
  return length;
}

}  // namespace

bool insidePlatformCall() {
  return t_platform_call_depth > 0;
}

void LogCapture::reset() {
  CaptureState& capture = state();
  std::lock_guard<std::mutex> lock(capture.mutex);
  capture.entries.clear();
  capture.frames.clear();
  capture.threshold = 5000;
  capture.answer = nullptr;
}

void LogCapture::setThreshold(int level) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().threshold = level;
}

void LogCapture::setAnswer(std::function<int(const LogFrame&)> answer) {
  std::lock_guard<std::mutex> lock(state().mutex);
  state().answer = std::move(answer);
}

std::vector<LogEntry> LogCapture::entries() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().entries;
}

std::vector<LogFrame> LogCapture::frames() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().frames;
}

size_t LogCapture::checkCount() {
  std::lock_guard<std::mutex> lock(state().mutex);
  return state().frames.size();
}

size_t LogCapture::count(const std::string& text) {
  size_t matches = 0;
  for (const LogEntry& entry : entries()) {
    matches += entry.text == text ? 1 : 0;
  }
  return matches;
}

size_t LogCapture::count(uint16_t level, const std::string& text) {
  size_t matches = 0;
  for (const LogEntry& entry : entries()) {
    matches += (entry.text == text && entry.level == level) ? 1 : 0;
  }
  return matches;
}

size_t LogCapture::countContaining(const std::string& fragment) {
  size_t matches = 0;
  for (const LogEntry& entry : entries()) {
    matches += entry.text.find(fragment) != std::string::npos ? 1 : 0;
  }
  return matches;
}

bool LogCapture::waitFor(const std::string& text, size_t times, std::chrono::milliseconds timeout) {
  CaptureState& capture = state();
  std::unique_lock<std::mutex> lock(capture.mutex);
  return capture.written.wait_for(lock, timeout, [&] {
    size_t matches = 0;
    for (const LogEntry& entry : capture.entries) {
      matches += entry.text == text ? 1 : 0;
    }
    return matches >= times;
  });
}

std::string LogCapture::allText() {
  std::string text;
  for (const LogEntry& entry : entries()) {
    text += entry.text;
  }
  return text;
}

::testing::AssertionResult LoggedOnce(uint16_t level, const std::string& text) {
  size_t matches = 0;
  bool right_frame = true;
  for (const LogEntry& entry : LogCapture::entries()) {
    if (entry.text == text) {
      ++matches;
      right_frame = right_frame && entry.level == level && entry.module == 95;
    }
  }
  if (matches == 1 && right_frame) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "expected once at level " << level << ": \"" << text << "\", found " << matches
         << (right_frame ? "" : " (wrong level or module)") << "; all output:\n"
         << LogCapture::allText();
}

::testing::AssertionResult Logged(uint16_t level, const std::string& text) {
  if (LogCapture::count(level, text) > 0) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "not written at level " << level << ": \"" << text << "\"; all output:\n"
         << LogCapture::allText();
}

::testing::AssertionResult NotLogged(const std::string& text) {
  const size_t matches = LogCapture::count(text);
  if (matches == 0) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "written " << matches << " times: \"" << text << "\"";
}

}  // namespace testing
}  // namespace velmora

using velmora::testing::state;

extern "C" {

__attribute__((visibility("default"))) int vexDebugCheckLevelGetFrameAndChunk(LogFrame* frame) {
  const velmora::testing::PlatformCall inside;
  velmora::testing::t_last_frame = *frame;
  auto& capture = state();
  std::function<int(const LogFrame&)> answer;
  int threshold = 0;
  {
    std::lock_guard<std::mutex> lock(capture.mutex);
    capture.frames.push_back(*frame);
    answer = capture.answer;
    threshold = capture.threshold;
  }
  return answer ? answer(*frame) : (frame->level <= threshold ? 1 : 0);
}

__attribute__((visibility("default"))) int vexDebugOutputV(const char* format, va_list args) {
  const velmora::testing::PlatformCall inside;
  return velmora::testing::record(format, args);
}

__attribute__((visibility("default"))) int vexDebugOutput0(const char* format, ...) {
  const velmora::testing::PlatformCall inside;
  va_list args;
  va_start(args, format);
  const int length = velmora::testing::record(format, args);
  va_end(args);
  return length;
}
}
