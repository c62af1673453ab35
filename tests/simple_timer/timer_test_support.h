// Helpers for the simple-timer tests: the exact log lines of timer.cpp (their line numbers are
// looked up in the source, so the tests follow the code when it moves), one-shot signals and
// counters to wait on, and the engine's log lines parsed back into values.
#ifndef VELMORA_TESTS_SIMPLE_TIMER_TIMER_TEST_SUPPORT_H
#define VELMORA_TESTS_SIMPLE_TIMER_TIMER_TEST_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace velmora {
namespace testing {

// The line of the statement in timer.cpp that holds fragment, searching from the first line that
// holds anchor (a function's signature). A statement spanning lines counts from the line of its
// macro name.
int timerSourceLine(const std::string& anchor, const std::string& fragment);

// "[B-LOG] timer.cpp:<line>:<function>(): <message>" for the statement found as above.
std::string timerLogLine(const std::string& anchor, const std::string& function,
                         const std::string& fragment, const std::string& message);

// The scope-trace entry and exit lines of the trace at the top of the function found by anchor.
std::string traceInLine(const std::string& anchor, const std::string& function);
std::string traceOutLine(const std::string& anchor, const std::string& function);

// Texts of all captured entries in order, and the positions of those equal to text.
std::vector<std::string> capturedTexts();
std::vector<size_t> positionsOf(const std::string& text);

// The expiry printed by the engine's "Waiting for timer(...)" lines for this timer, in order.
struct PrintedExpiry {
  int64_t sec;
  int64_t nsec;
};
std::vector<PrintedExpiry> printedExpiries(const std::string& timerName);

// A flag that one thread sets and others wait for.
class Signal {
 public:
  void set();
  bool isSet();
  bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool set_ = false;
};

// A counter that threads wait on until it reaches a value.
class Counter {
 public:
  void increment() { add(1); }
  void add(int amount);
  int value();
  bool waitAtLeast(int target, std::chrono::milliseconds timeout = std::chrono::seconds(10));

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int value_ = 0;
};

// Monotonic now in nanoseconds.
int64_t monotonicNanoseconds();

// User plus system CPU time of one thread of this process, in clock ticks.
long threadCpuTicks(int tid);

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_SIMPLE_TIMER_TIMER_TEST_SUPPORT_H
