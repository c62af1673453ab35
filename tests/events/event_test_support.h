// Helpers shared by the event-dispatch tests: a waitable counter, a payload that counts its
// destructions, and the expected full text of the subsystem's log lines.
#ifndef VELMORA_TESTS_EVENTS_EVENT_TEST_SUPPORT_H
#define VELMORA_TESTS_EVENTS_EVENT_TEST_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "base/event_dispatcher/browser_event.h"

namespace velmora {
namespace testing {

// A counter that threads can wait on, with a generous timeout instead of sleeps.
class WaitableCount {
 public:
  void add(int n = 1) {
    std::lock_guard<std::mutex> lock(mutex_);
    value_ += n;
    changed_.notify_all();
  }
  int value() {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }
  // True once the count has reached at least target; false after the timeout.
  bool waitFor(int target, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return value_ >= target; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int value_ = 0;
};

// A one-shot gate: threads wait until it is opened.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool waitOpen(std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

// A module's payload: carries a value and counts its destructions.
class CountedParam : public base::event_dispatcher::EventParam {
 public:
  CountedParam(int value, WaitableCount* destroyed) : value_(value), destroyed_(destroyed) {}
  ~CountedParam() override {
    if (destroyed_ != nullptr) {
      destroyed_->add();
    }
  }
  int paramType() const override { return 42; }
  int value() const { return value_; }

 private:
  int value_;
  WaitableCount* destroyed_;
};

// The full text of a line of the event files: "[EventDispatcher] file:line:function(): text".
inline std::string eventLine(const char* file, int line, const char* function,
                             const std::string& text) {
  char prefix[256];
  snprintf(prefix, sizeof(prefix), "[EventDispatcher] %s:%d:%s(): ", file, line, function);
  return prefix + text;
}

// The "%p" text of a pointer, as the library prints it.
inline std::string pointerText(const void* pointer) {
  char text[64];
  snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_EVENTS_EVENT_TEST_SUPPORT_H
