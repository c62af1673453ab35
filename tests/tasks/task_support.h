// Helpers shared by the task-scheduling tests: a latch, tasks with a function body, the
// monotonic clock as the library reads it, and thread-safe run recorders.
#ifndef VELMORA_TESTS_TASKS_TASK_SUPPORT_H
#define VELMORA_TESTS_TASKS_TASK_SUPPORT_H

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/timer/timer_task.h"

namespace velmora {
namespace testing {

// Counts down to zero once; waiters give up after a timeout.
class Latch {
 public:
  explicit Latch(int count = 1) : count_(count) {}
  void countDown() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_ > 0 && --count_ == 0) {
      cond_.notify_all();
    }
  }
  bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [this] { return count_ == 0; });
  }
  bool done() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_ == 0;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int count_;
};

// Monotonic seconds, as the scheduler computes them.
inline double monotonicNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

inline int gettid() {
  return static_cast<int>(syscall(SYS_gettid));
}

// Whether a kernel thread of this process still exists.
inline bool threadExists(int tid) {
  return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0;
}

// Whether a kernel thread of this process is gone within `timeout`. A join returns once the
// kernel has cleared the thread's id, a moment before its entry leaves /proc (under qemu-user a
// noticeable moment), and nothing announces that, so this polls until the deadline.
inline bool threadEndsWithin(int tid,
                             std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (threadExists(tid)) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// A task whose body is a function; ids may be set as a derived task would.
class FunctionTask : public base::timer::TimerTaskBase {
 public:
  explicit FunctionTask(std::function<void()> body = [] {}) : body_(std::move(body)) {}
  void execute() override { body_(); }
  void setTaskId(int taskId) { taskId_ = taskId; }
  void setSessionId(int sessionId) { sessionId_ = sessionId; }

 private:
  std::function<void()> body_;
};

// Appends values from any thread; waits for a given number of them.
class Recorder {
 public:
  void add(int value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(value);
    cond_.notify_all();
  }
  bool waitForSize(size_t size, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return values_.size() >= size; });
  }
  std::vector<int> values() {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<int> values_;
};

// The "%p" text of a pointer, as the library prints it.
inline std::string pointerText(const void* pointer) {
  char text[32];
  snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_TASKS_TASK_SUPPORT_H
