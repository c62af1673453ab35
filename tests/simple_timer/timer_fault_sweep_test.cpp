// Allocation and thread-creation faults at every point of the simple timers' operations. Each
// failure either reaches the caller with the timer and the engine as they were (the same call
// then works), or has the outcome the timers define for it: "Fail to create TimerImpl." and a
// timer that refuses every later call, or the end of the process when the engine cannot start an
// expiry's handler thread.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "base/simple_timer/timer.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "timer_test_support.h"

namespace {

using velmora::base::simple_timer::CONTINUE;
using velmora::base::simple_timer::ONCE;
using velmora::base::simple_timer::TimeoutTime;
using velmora::base::simple_timer::Timer;
using velmora::base::simple_timer::TimerHandler;
using velmora::base::simple_timer::TimerType_e;
using velmora::testing::Counter;
using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::LogCapture;
using velmora::testing::Logged;
using velmora::testing::LoggedOnce;
using velmora::testing::NotLogged;
using velmora::testing::openDescriptorCount;
using velmora::testing::sweepFaults;
using velmora::testing::timerLogLine;

constexpr TimeoutTime kSoon = {0, 20, 0};
constexpr TimeoutTime kLater = {60, 0, 0};
// A CONTINUE period long enough for the handler thread of one expiry to run (and close the armed
// window) before the next expiry, also under ThreadSanitizer or an emulator on a busy machine.
constexpr TimeoutTime kPeriod = {0, 500, 0};
// The engine's pipe, made by the first Timer of the process and kept for good.
constexpr int kEngineDescriptors = 2;

void countCall(Timer*, void* calls) {
  static_cast<Counter*>(calls)->increment();
}

// The handler call is where an expiry's work ends: the armed window of an expiry sweep closes
// there, before anything else in the process allocates.
void disarmAndCount(Timer*, void* calls) {
  velmora::testing::disarmFaults();
  static_cast<Counter*>(calls)->increment();
}

// Too large for std::function's inline storage, so copying a handler that holds it allocates.
struct LargeHandler {
  Counter* own;
  char padding[64];
  void operator()(Timer*, void* calls) const {
    own->increment();
    static_cast<Counter*>(calls)->increment();
  }
};

// Holds every thread but the test's own at its next log statement while closed. Closed while
// the engine waits on its pipe, the engine stops before its next step and outside the list lock:
// an armed window then sees none of its work until the gate opens.
struct EngineGate {
  std::mutex mutex;
  std::condition_variable opened;
  bool closed = false;
  std::thread::id owner;
};

EngineGate& engineGate() {
  static EngineGate* gate = new EngineGate();
  return *gate;
}

int passEngineGate(const LogFrame&) {
  EngineGate& gate = engineGate();
  std::unique_lock<std::mutex> lock(gate.mutex);
  if (std::this_thread::get_id() != gate.owner) {
    gate.opened.wait(lock, [&] { return !gate.closed; });
  }
  return 1;
}

void closeEngineGate() {
  EngineGate& gate = engineGate();
  {
    std::lock_guard<std::mutex> lock(gate.mutex);
    gate.closed = true;
    gate.owner = std::this_thread::get_id();
  }
  LogCapture::setAnswer(passEngineGate);
}

void openEngineGate() {
  EngineGate& gate = engineGate();
  {
    std::lock_guard<std::mutex> lock(gate.mutex);
    gate.closed = false;
  }
  gate.opened.notify_all();
}

std::string createFailureLine() {
  return timerLogLine("Timer::Timer(", "Timer", "Fail to create", "Fail to create TimerImpl.\n");
}
std::string noImplementationLine(const std::string& function) {
  return timerLogLine(" Timer::" + function + "()", function, "m_impl is NULL",
                      "m_impl is NULL.\n");
}
std::string stopLine(const std::string& name) {
  return timerLogLine("int Timer::stop()", "stop", "Stop timer", "Stop timer:'" + name + "'.\n");
}
std::string removedFromHeadLine(const std::string& name) {
  return timerLogLine("void RemoveTimer(", "RemoveTimer", "from head",
                      "Remove timer('" + name + "') from head, send CMD_RESCHEDULE(2).\n");
}
std::string onceExpiryLine(const std::string& name) {
  return timerLogLine("bool HandleTimeout()", "HandleTimeout", "is ONCE",
                      "Timer:'" + name + "' type is ONCE, stop now.\n");
}
std::string continueExpiryLine(const std::string& name) {
  return timerLogLine("bool HandleTimeout()", "HandleTimeout", "is CONTINUE",
                      "Timer:'" + name + "' type is CONTINUE, reschedule it.\n");
}
std::string expiryRetryLine(const std::string& name) {
  return timerLogLine("bool HandleTimeout()", "HandleTimeout", "retry later",
                      "Fail to start handler of timer:'" + name + "', no memory, retry later.\n");
}

// A timer made of prepared arguments, so that building them is no part of the armed call.
void emplaceTimer(std::optional<Timer>& timer, std::string name, Counter* calls,
                  TimerType_e type = ONCE, TimerHandler handler = countCall) {
  timer.emplace(std::move(name), kSoon, std::move(handler), calls, type);
}

// A timer that works: it starts, fires once with its data and is stopped again.
void expectWorkingOnceTimer(Timer& timer, Counter& calls) {
  const int before = calls.value();
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(calls.waitAtLeast(before + 1));
  EXPECT_FALSE(timer.isStarted());
}

// Starts the engine of this process, which keeps its pipe open for good.
void startEngine() {
  Counter calls;
  Timer starter("starter", kLater, countCall, &calls, ONCE);
}

// The sweep compares the descriptors open at the start of a run with those open at its end, but
// a run must start the engine, whose pipe stays open. Made once the engine runs, this compares
// from then on instead, so that a descriptor leaked by the operation still fails the run.
class DescriptorsFromHere {
 public:
  explicit DescriptorsFromHere(FaultRun& run) : before_(openDescriptorCount()) {
    run.descriptorsMayStayOpen();
  }
  ~DescriptorsFromHere() {
    EXPECT_EQ(openDescriptorCount(), before_) << "descriptors open before and after the operation";
  }
  DescriptorsFromHere(const DescriptorsFromHere&) = delete;
  DescriptorsFromHere& operator=(const DescriptorsFromHere&) = delete;

 private:
  const int before_;
};

// The engine runs and its pipe is open: a fresh timer fires.
void expectWorkingEngine() {
  Counter calls;
  std::optional<Timer> probe;
  emplaceTimer(probe, "probe", &calls);
  expectWorkingOnceTimer(*probe, calls);
}

// The first Timer of a process creates the engine. A failure to start the engine thread (its
// allocation or its creation) leaves the constructor, closes the pipe again and lets the next
// Timer try anew; a failure to create the implementation leaves a Timer that refuses every call.
void sweepFirstConstruction(FaultRun& run) {
  LogCapture::reset();
  run.descriptorsMayStayOpen();
  // The harness forwards pthread_create to a definition it looks up, allocating, on first use:
  // no part of the constructor.
  std::thread([] {}).join();
  const int descriptorsBefore = openDescriptorCount();
  Counter calls;
  std::optional<Timer> timer;
  std::string name = "first";
  const bool threw =
      run.kind() == FaultKind::kAllocation
          ? run.throws<std::bad_alloc>([&] { emplaceTimer(timer, name, &calls); })
          : run.throws<std::system_error>([&] { emplaceTimer(timer, name, &calls); });
  if (threw) {
    EXPECT_FALSE(timer.has_value());
    EXPECT_EQ(openDescriptorCount(), descriptorsBefore) << "the pipe of the engine that failed";
    EXPECT_TRUE(NotLogged(createFailureLine()));
    emplaceTimer(timer, "first", &calls);
  }
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore + kEngineDescriptors);
  if (run.injected() && !threw) {
    ASSERT_EQ(run.kind(), FaultKind::kAllocation);
    EXPECT_TRUE(LoggedOnce(1000, createFailureLine()));
    EXPECT_EQ(timer->start(), -1);
    EXPECT_TRUE(LoggedOnce(1000, noImplementationLine("start")));
    EXPECT_FALSE(timer->isStarted());
    expectWorkingEngine();
  } else {
    EXPECT_TRUE(NotLogged(createFailureLine()));
    expectWorkingOnceTimer(*timer, calls);
  }
  EXPECT_EQ(openDescriptorCount(), descriptorsBefore + kEngineDescriptors);
}

TEST(SimpleTimerAllocationFaultSweep, FirstConstructorThrowsOrReportsTheMissingImplementation) {
  const auto report = sweepFaults(FaultKind::kAllocation, sweepFirstConstruction);
  EXPECT_EQ(report.points, 3);
}

TEST(SimpleTimerThreadFaultSweep, FirstConstructorPassesOnAnEngineThreadThatCannotStart) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, sweepFirstConstruction);
  EXPECT_EQ(report.points, 1);
}

// With the engine running, only the implementation is created: a failure there is reported and
// leaves a Timer that refuses every call, never an exception.
TEST(SimpleTimerAllocationFaultSweep, LaterConstructorReportsTheMissingImplementation) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    startEngine();
    const DescriptorsFromHere descriptors(run);
    Counter calls;
    std::optional<Timer> timer;
    std::string name = "later";
    run.armed([&] { emplaceTimer(timer, std::move(name), &calls); });
    if (run.injected()) {
      EXPECT_TRUE(LoggedOnce(1000, createFailureLine()));
      EXPECT_EQ(timer->start(), -1);
      EXPECT_TRUE(LoggedOnce(1000, noImplementationLine("start")));
      EXPECT_EQ(timer->stop(), -1);
      EXPECT_TRUE(LoggedOnce(1000, noImplementationLine("stop")));
      EXPECT_FALSE(timer->isStarted());
      EXPECT_TRUE(timer->needStop());
      timer.reset();
      emplaceTimer(timer, "later", &calls);
    }
    EXPECT_EQ(timer->name(), "later");
    expectWorkingOnceTimer(*timer, calls);
  });
  EXPECT_EQ(report.points, 2);
}

TEST(SimpleTimerThreadFaultSweep, LaterOperationsStartNoThread) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) {
    startEngine();
    const DescriptorsFromHere descriptors(run);
    Counter calls;
    std::optional<Timer> timer;
    run.armed([&] {
      emplaceTimer(timer, "later", &calls);
      EXPECT_EQ(timer->changeTimeout(kLater), 0);
      EXPECT_EQ(timer->start(), 0);
      EXPECT_EQ(timer->restart(), 0);
      EXPECT_EQ(timer->stopNoBlock(), 0);
      EXPECT_EQ(timer->setProperty(kLater, countCall, &calls, CONTINUE), 0);
      EXPECT_EQ(timer->start(), 0);
      EXPECT_EQ(timer->stop(), 0);
    });
    EXPECT_FALSE(timer->isStarted());
  });
  EXPECT_EQ(report.points, 0);
}

// A start that runs out of memory leaves the timer stopped, with its stop request standing; the
// next start arms it. The engine is held while armed, so the expiry is no part of the window.
TEST(SimpleTimerAllocationFaultSweep, StartArmsTheTimerOrLeavesItStopped) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    startEngine();
    const DescriptorsFromHere descriptors(run);
    Counter calls;
    std::optional<Timer> timer;
    emplaceTimer(timer, "start", &calls);
    ASSERT_EQ(timer->stopNoBlock(), 0);
    closeEngineGate();
    int result = -1;
    const bool threw = run.throws<std::bad_alloc>([&] { result = timer->start(); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_FALSE(timer->isStarted());
      EXPECT_TRUE(timer->needStop());
      EXPECT_EQ(timer->start(), 0);
    } else {
      EXPECT_EQ(result, 0);
    }
    EXPECT_TRUE(timer->isStarted());
    EXPECT_FALSE(timer->needStop());
    openEngineGate();
    ASSERT_TRUE(calls.waitAtLeast(1));
    EXPECT_FALSE(timer->isStarted());
    EXPECT_TRUE(LoggedOnce(5000, onceExpiryLine("start")));
    EXPECT_EQ(calls.value(), 1);
  });
  EXPECT_EQ(report.points, 1);
}

// A restart that runs out of memory leaves the timer running with its old expiry: still at the
// head of the engine's list, not even stopped for a moment.
TEST(SimpleTimerAllocationFaultSweep, RestartRearmsOrLeavesTheTimerRunning) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    startEngine();
    const DescriptorsFromHere descriptors(run);
    Counter calls;
    std::optional<Timer> timer;
    emplaceTimer(timer, "again", &calls);
    ASSERT_EQ(timer->changeTimeout(kLater), 0);
    ASSERT_EQ(timer->start(), 0);
    int result = -1;
    const bool threw = run.throws<std::bad_alloc>([&] { result = timer->restart(); });
    EXPECT_EQ(threw, run.injected());
    EXPECT_TRUE(timer->isStarted());
    if (threw) {
      EXPECT_TRUE(NotLogged(stopLine("again")));
      EXPECT_FALSE(timer->needStop());
      EXPECT_EQ(timer->restart(), 0);
    } else {
      EXPECT_EQ(result, 0);
    }
    EXPECT_TRUE(LoggedOnce(5000, stopLine("again")));
    EXPECT_TRUE(timer->isStarted());
    const size_t removals = LogCapture::count(5000, removedFromHeadLine("again"));
    EXPECT_EQ(timer->stop(), 0);
    EXPECT_EQ(LogCapture::count(5000, removedFromHeadLine("again")), removals + 1)
        << "the restarted timer was at the head of the engine's list";
    ASSERT_EQ(timer->changeTimeout(kSoon), 0);
    ASSERT_EQ(timer->restart(), 0);
    ASSERT_TRUE(calls.waitAtLeast(1));
    EXPECT_FALSE(timer->isStarted());
  });
  EXPECT_EQ(report.points, 1);
}

// setProperty and changeHandler copy the handler they are given; a failed copy changes nothing.
void sweepHandlerReplacement(FaultRun& run, bool wholeProperty) {
  LogCapture::reset();
  startEngine();
  const DescriptorsFromHere descriptors(run);
  Counter oldCalls;
  Counter newCalls;
  Counter viaLarge;
  std::optional<Timer> timer;
  emplaceTimer(timer, "prop", &oldCalls);
  const TimerHandler large = LargeHandler{&viaLarge, {}};
  int result = -1;
  const bool threw = run.throws<std::bad_alloc>([&] {
    result = wholeProperty ? timer->setProperty(kSoon, large, &newCalls, ONCE)
                           : timer->changeHandler(large, &newCalls);
  });
  EXPECT_EQ(threw, run.injected());
  if (threw) {
    expectWorkingOnceTimer(*timer, oldCalls);
    EXPECT_EQ(newCalls.value(), 0);
    result = wholeProperty ? timer->setProperty(kSoon, large, &newCalls, ONCE)
                           : timer->changeHandler(large, &newCalls);
  }
  EXPECT_EQ(result, 0);
  expectWorkingOnceTimer(*timer, newCalls);
  EXPECT_EQ(viaLarge.value(), 1);
  EXPECT_EQ(oldCalls.value(), threw ? 1 : 0);
}

TEST(SimpleTimerAllocationFaultSweep, SetPropertyReplacesEverythingOrNothing) {
  const auto report = sweepFaults(FaultKind::kAllocation,
                                  [](FaultRun& run) { sweepHandlerReplacement(run, true); });
  EXPECT_EQ(report.points, 1);
}

TEST(SimpleTimerAllocationFaultSweep, ChangeHandlerReplacesBothOrNothing) {
  const auto report = sweepFaults(FaultKind::kAllocation,
                                  [](FaultRun& run) { sweepHandlerReplacement(run, false); });
  EXPECT_EQ(report.points, 1);
}

TEST(SimpleTimerAllocationFaultSweep, ChangeTimeoutAndChangeTypeDoNotAllocate) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    startEngine();
    const DescriptorsFromHere descriptors(run);
    Counter calls;
    std::optional<Timer> timer;
    emplaceTimer(timer, "change", &calls);
    run.armed([&] {
      EXPECT_EQ(timer->changeTimeout(TimeoutTime{0, 2500, 0}), 0);
      EXPECT_EQ(timer->changeType(CONTINUE), 0);
    });
    EXPECT_EQ(timer->changeType(ONCE), 0);
    EXPECT_EQ(timer->changeTimeout(kSoon), 0);
    expectWorkingOnceTimer(*timer, calls);
  });
  EXPECT_EQ(report.points, 0);
}

TEST(SimpleTimerAllocationFaultSweep, StopAndStopNoBlockDoNotAllocate) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    startEngine();
    const DescriptorsFromHere descriptors(run);
    Counter calls;
    std::optional<Timer> timer;
    emplaceTimer(timer, "halt", &calls);
    ASSERT_EQ(timer->changeTimeout(kLater), 0);
    ASSERT_EQ(timer->start(), 0);
    run.armed([&] { EXPECT_EQ(timer->stop(), 0); });
    EXPECT_FALSE(timer->isStarted());
    EXPECT_TRUE(timer->needStop());
    ASSERT_EQ(timer->start(), 0);
    run.armed([&] { EXPECT_EQ(timer->stopNoBlock(), 0); });
    EXPECT_FALSE(timer->isStarted());
    EXPECT_TRUE(timer->needStop());
    EXPECT_EQ(LogCapture::count(5000, removedFromHeadLine("halt")), 2u);
    ASSERT_EQ(timer->changeTimeout(kSoon), 0);
    expectWorkingOnceTimer(*timer, calls);
  });
  EXPECT_EQ(report.points, 0);
}

TEST(SimpleTimerAllocationFaultSweep, NameReturnsACopyOrThrows) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    startEngine();
    const DescriptorsFromHere descriptors(run);
    Counter calls;
    const std::string longName = "a name longer than the inline buffer";
    std::optional<Timer> timer;
    emplaceTimer(timer, longName, &calls);
    std::string name;
    const bool threw = run.throws<std::bad_alloc>([&] { name = timer->name(); });
    EXPECT_EQ(threw, run.injected());
    EXPECT_EQ(timer->name(), longName);
  });
  EXPECT_EQ(report.points, 1);
}

// An expiry: the engine takes the due timer off its list (re-arming a CONTINUE one) and starts
// its handler thread. Short of memory for that, it leaves the timer due at the head of its list,
// logs it and tries again shortly: the handler runs once, late.
void sweepExpiry(FaultRun& run, TimerType_e type) {
  LogCapture::reset();
  startEngine();
  const DescriptorsFromHere descriptors(run);
  Counter calls;
  std::optional<Timer> timer;
  const std::string name = type == ONCE ? "once" : "repeat";
  emplaceTimer(timer, name, &calls, type, disarmAndCount);
  if (type == CONTINUE) {
    ASSERT_EQ(timer->changeTimeout(kPeriod), 0);
  }
  closeEngineGate();
  ASSERT_EQ(timer->start(), 0);
  run.armed([&] {
    openEngineGate();
    ASSERT_TRUE(calls.waitAtLeast(1));
  });
  if (type == ONCE) {
    EXPECT_FALSE(timer->isStarted());
    EXPECT_TRUE(LoggedOnce(5000, onceExpiryLine(name)));
    EXPECT_EQ(calls.value(), 1);
  } else {
    EXPECT_TRUE(Logged(5000, continueExpiryLine(name)));
    EXPECT_TRUE(timer->isStarted());
    EXPECT_EQ(timer->stop(), 0);
  }
  if (run.injected()) {
    EXPECT_TRUE(LoggedOnce(1000, expiryRetryLine(name)));
  } else {
    EXPECT_TRUE(NotLogged(expiryRetryLine(name)));
  }
  const int callsBefore = calls.value();
  if (type == ONCE) {
    expectWorkingOnceTimer(*timer, calls);
  } else {
    ASSERT_EQ(timer->start(), 0);
    ASSERT_TRUE(calls.waitAtLeast(callsBefore + 1));
    EXPECT_EQ(timer->stop(), 0);
  }
}

TEST(SimpleTimerAllocationFaultSweep, OnceExpiryFiresOnceEvenWhenItMustWaitForMemory) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepExpiry(run, ONCE); });
  EXPECT_EQ(report.points, 1);
}

TEST(SimpleTimerAllocationFaultSweep, ContinueExpiryStaysArmedEvenWhenItMustWaitForMemory) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepExpiry(run, CONTINUE); });
  EXPECT_EQ(report.points, 1);
}

// The engine does not catch a failure to create an expiry's handler thread: the process ends.
TEST(SimpleTimerThreadFaultSweep, ExpiryWhoseHandlerThreadCannotStartEndsTheProcess) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) {
    run.terminationAllowedAfterFault();
    sweepExpiry(run, ONCE);
  });
  EXPECT_EQ(report.points, 1);
}

}  // namespace
