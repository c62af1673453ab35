#include "timer_test_support.h"

#include <time.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "log_capture.h"

namespace velmora {
namespace testing {
namespace {

std::vector<std::string> timerSource() {
  std::ifstream file(VELMORA_TIMER_SOURCE);
  if (!file) {
    throw std::runtime_error("cannot read " + std::string(VELMORA_TIMER_SOURCE));
  }
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(file, line)) {
    lines.push_back(line);
  }
  return lines;
}

bool startsStatement(const std::string& line) {
  return line.find("LOG(") != std::string::npos ||
         line.find("VELMORA_TRACE_SCOPE") != std::string::npos ||
         line.find("_GUARD()") != std::string::npos;
}

// __LINE__ in a statement that spans lines is the line of the macro's name with GCC and the line
// of the invocation's closing parenthesis with clang.
#if defined(__clang__)
constexpr bool kLineOfClosingParenthesis = true;
#else
constexpr bool kLineOfClosingParenthesis = false;
#endif

size_t printedLineOfStatement(const std::vector<std::string>& lines, size_t start) {
  size_t index = start;
  while (kLineOfClosingParenthesis && index + 1 < lines.size() &&
         lines[index].find(");") == std::string::npos) {
    ++index;
  }
  return index;
}

}  // namespace

int timerSourceLine(const std::string& anchor, const std::string& fragment) {
  const std::vector<std::string> lines = timerSource();
  size_t index = 0;
  while (index < lines.size() && lines[index].find(anchor) == std::string::npos) {
    ++index;
  }
  while (index < lines.size() && lines[index].find(fragment) == std::string::npos) {
    ++index;
  }
  if (index == lines.size()) {
    throw std::runtime_error("no '" + fragment + "' after '" + anchor + "' in timer.cpp");
  }
  while (index > 0 && !startsStatement(lines[index])) {
    --index;
  }
  return static_cast<int>(printedLineOfStatement(lines, index)) + 1;
}

std::string timerLogLine(const std::string& anchor, const std::string& function,
                         const std::string& fragment, const std::string& message) {
  return "[B-LOG] timer.cpp:" + std::to_string(timerSourceLine(anchor, fragment)) + ":" + function +
         "(): " + message;
}

std::string traceInLine(const std::string& anchor, const std::string& function) {
  return "[TRACE -> " + function +
         "(IN)] timer.cpp:" + std::to_string(timerSourceLine(anchor, "VELMORA_TRACE_SCOPE")) + ":" +
         function + "() \n";
}

std::string traceOutLine(const std::string& anchor, const std::string& function) {
  return "[TRACE <- " + function +
         "(OUT)] timer.cpp:" + std::to_string(timerSourceLine(anchor, "VELMORA_TRACE_SCOPE")) +
         ":" + function + "() \n";
}

std::vector<std::string> capturedTexts() {
  std::vector<std::string> texts;
  for (const LogEntry& entry : LogCapture::entries()) {
    texts.push_back(entry.text);
  }
  return texts;
}

std::vector<size_t> positionsOf(const std::string& text) {
  std::vector<size_t> positions;
  const std::vector<std::string> texts = capturedTexts();
  for (size_t i = 0; i < texts.size(); ++i) {
    if (texts[i] == text) {
      positions.push_back(i);
    }
  }
  return positions;
}

std::vector<PrintedExpiry> printedExpiries(const std::string& timerName) {
  const std::string head =
      "HandleTimerThread(): Waiting for timer('" + timerName + "') expired, expiredTime(sec:";
  std::vector<PrintedExpiry> expiries;
  for (const std::string& text : capturedTexts()) {
    const size_t at = text.find(head);
    if (at == std::string::npos) {
      continue;
    }
    long long sec = 0;
    long long nsec = 0;
    if (sscanf(text.c_str() + at + head.size(), "%lld, nsec:%lld).", &sec, &nsec) == 2) {
      expiries.push_back({sec, nsec});
    }
  }
  return expiries;
}

void Signal::set() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = true;
  }
  changed_.notify_all();
}

bool Signal::isSet() {
  std::lock_guard<std::mutex> lock(mutex_);
  return set_;
}

bool Signal::wait(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [this] { return set_; });
}

void Counter::add(int amount) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    value_ += amount;
  }
  changed_.notify_all();
}

int Counter::value() {
  std::lock_guard<std::mutex> lock(mutex_);
  return value_;
}

bool Counter::waitAtLeast(int target, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return value_ >= target; });
}

int64_t monotonicNanoseconds() {
  timespec now = {0, 0};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

long threadCpuTicks(int tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string content((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // Fields after the parenthesised command name: state is field 3, utime 14, stime 15.
  std::istringstream fields(content.substr(content.rfind(')') + 2));
  std::string field;
  long utime = 0;
  long stime = 0;
  for (int number = 3; number <= 15 && fields >> field; ++number) {
    if (number == 14) {
      utime = std::stol(field);
    } else if (number == 15) {
      stime = std::stol(field);
    }
  }
  return utime + stime;
}

}  // namespace testing
}  // namespace velmora
