// Runnable: the log lines, the sleep-then-check loop, and pause, resume and stop from other
// threads. The run thread's nanosleep and pthread_cond_wait calls are interposed and recorded,
// so the order of sleeps, waits and cycles is checked exactly instead of by timing.
#include "base/threading/runnable.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "interpose.h"
#include "log_capture.h"
#include "task_support.h"

namespace {

enum class Kind { kSleep, kWait, kBegin, kEnd };

struct Event {
  Kind kind;
  long long seconds;  // sleep request
  long nanoseconds;
  int result;  // sleep result and errno
  int error;
};

// The events of the watched run thread, in order.
class Events {
 public:
  void watch(int tid) { watched_.store(tid); }
  bool watched() const { return watched_.load() == velmora::testing::gettid(); }
  void add(Event event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
    cond_.notify_all();
  }
  // Waits until count events of this kind have been recorded.
  bool waitFor(Kind kind, size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, std::chrono::seconds(10), [&] {
      size_t found = 0;
      for (const Event& event : events_) {
        found += event.kind == kind ? 1 : 0;
      }
      return found >= count;
    });
  }
  std::vector<Event> all() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::vector<Kind> kinds() {
    std::vector<Kind> kinds;
    for (const Event& event : all()) {
      kinds.push_back(event.kind);
    }
    return kinds;
  }

 private:
  std::atomic<int> watched_{0};
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<Event> events_;
};

Events g_events;

velmora::testing::Fault g_mutexInitFault;
velmora::testing::Fault g_condInitFault;
velmora::testing::Fault g_condSignalFault;
velmora::testing::Fault g_condWaitFault;
std::atomic<int> g_mutexDestroys{0};

// pthread functions report their error as the result; errno is set too, since the library's
// error texts are built from it.
int failWith(int error) {
  errno = error;
  return error;
}

}  // namespace

extern "C" {

VELMORA_TEST_INTERPOSER int nanosleep(const timespec* request, timespec* remaining) {
  const int result = VELMORA_REAL(nanosleep)(request, remaining);
  const int error = errno;
  if (g_events.watched()) {
    g_events.add(Event{Kind::kSleep, static_cast<long long>(request->tv_sec), request->tv_nsec,
                       result, result == 0 ? 0 : error});
  }
  errno = error;
  return result;
}

VELMORA_TEST_INTERPOSER int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  if (g_events.watched()) {
    g_events.add(Event{Kind::kWait, 0, 0, 0, 0});
  }
  if (g_condWaitFault.shouldFail()) {
    return failWith(EINVAL);
  }
  return VELMORA_REAL(pthread_cond_wait)(cond, mutex);
}

VELMORA_TEST_INTERPOSER int pthread_mutex_init(pthread_mutex_t* mutex,
                                               const pthread_mutexattr_t* attributes) {
  return g_mutexInitFault.shouldFail() ? failWith(ENOMEM)
                                       : VELMORA_REAL(pthread_mutex_init)(mutex, attributes);
}

VELMORA_TEST_INTERPOSER int pthread_mutex_destroy(pthread_mutex_t* mutex) {
  g_mutexDestroys.fetch_add(1);
  return VELMORA_REAL(pthread_mutex_destroy)(mutex);
}

VELMORA_TEST_INTERPOSER int pthread_cond_init(pthread_cond_t* cond,
                                              const pthread_condattr_t* attributes) {
  return g_condInitFault.shouldFail() ? failWith(EAGAIN)
                                      : VELMORA_REAL(pthread_cond_init)(cond, attributes);
}

VELMORA_TEST_INTERPOSER int pthread_cond_signal(pthread_cond_t* cond) {
  return g_condSignalFault.shouldFail() ? failWith(EINVAL)
                                        : VELMORA_REAL(pthread_cond_signal)(cond);
}
}

namespace {

using velmora::testing::Latch;
using velmora::testing::LogCapture;
using velmora::testing::LoggedOnce;

constexpr uint16_t kInfo = 4000;
const Kind S = Kind::kSleep;
const Kind W = Kind::kWait;
const Kind B = Kind::kBegin;
const Kind E = Kind::kEnd;

std::string line(int number, const char* function, const std::string& message) {
  return "[B-LOG] runnable.cpp:" + std::to_string(number) + ":" + function + "(): " + message;
}

// A body whose cycle calls a hook with the cycle number (1, 2, ...).
class Probe : public velmora::base::Threading::Runnable {
 public:
  explicit Probe(int interval, std::function<void(Probe&, int)> hook = nullptr)
      : Runnable(interval), hook_(std::move(hook)) {}
  void runOnce() override {
    const int cycle = cycles_.fetch_add(1) + 1;
    g_events.add(Event{Kind::kBegin, 0, 0, 0, 0});
    if (hook_) {
      hook_(*this, cycle);
    }
    g_events.add(Event{Kind::kEnd, 0, 0, 0, 0});
  }
  int cycles() const { return cycles_.load(); }

 private:
  std::function<void(Probe&, int)> hook_;
  std::atomic<int> cycles_{0};
};

// Runs a probe on a thread of its own, watched by the event recorder.
class RunThread {
 public:
  explicit RunThread(Probe& probe)
      : probe_(probe), thread_([this] {
          g_events.watch(velmora::testing::gettid());
          started_ = std::chrono::steady_clock::now();
          probe_.run();
          returned_.countDown();
        }) {}
  ~RunThread() {
    if (!returned_.done()) {
      probe_.resume();
      probe_.stop();
    }
    thread_.join();
  }
  bool waitReturned() { return returned_.wait(); }
  std::chrono::steady_clock::time_point started() const { return started_; }

 private:
  Probe& probe_;
  Latch returned_;
  std::chrono::steady_clock::time_point started_;
  std::thread thread_;
};

class RunnableTest : public velmora::testing::LogCaptureTest {};

TEST_F(RunnableTest, ConstructorLogsTheArgumentAndTheDestructorLogsCalled) {
  {
    Probe probe(250);
    EXPECT_TRUE(LoggedOnce(kInfo, line(9, "Runnable", "called, interval: 250\n\n")));
  }
  EXPECT_TRUE(LoggedOnce(kInfo, line(13, "~Runnable", "called\n\n")));
}

TEST_F(RunnableTest, FirstCycleComesOneIntervalAfterRunStarts) {
  std::chrono::steady_clock::time_point firstCycle;
  Probe probe(100, [&](Probe& self, int) {
    firstCycle = std::chrono::steady_clock::now();
    self.stop();
  });
  {
    RunThread run(probe);
    ASSERT_TRUE(run.waitReturned());
    const auto elapsed = firstCycle - run.started();
    EXPECT_GE(elapsed, std::chrono::milliseconds(100));
    EXPECT_LT(elapsed, std::chrono::seconds(5));
  }
  EXPECT_EQ(probe.cycles(), 1);
  const auto events = g_events.all();
  ASSERT_EQ(g_events.kinds(), (std::vector<Kind>{S, B, E, S}));
  EXPECT_EQ(events[0].seconds, 0);
  EXPECT_EQ(events[0].nanoseconds, 100000000L);
  EXPECT_TRUE(LoggedOnce(kInfo, line(21, "run", "called\n\n")));
  EXPECT_TRUE(LoggedOnce(kInfo, line(36, "stop", "called\n\n")));
}

TEST_F(RunnableTest, EveryCycleIsPrecededByAFullIntervalAndStopEndsAfterOneMoreSleep) {
  Probe probe(1250, [](Probe& self, int cycle) {
    if (cycle == 2) {
      self.stop();
    }
  });
  {
    RunThread run(probe);
    ASSERT_TRUE(run.waitReturned());
  }
  EXPECT_EQ(probe.cycles(), 2);
  const auto events = g_events.all();
  ASSERT_EQ(g_events.kinds(), (std::vector<Kind>{S, B, E, S, B, E, S}));
  for (const Event& event : events) {
    if (event.kind == S) {
      EXPECT_EQ(event.seconds, 1);
      EXPECT_EQ(event.nanoseconds, 250000000L);
      EXPECT_EQ(event.result, 0);
    }
  }
}

TEST_F(RunnableTest, PauseTakesEffectAfterTheCurrentCycleAndTheNextSleep) {
  Latch inCycle;
  Latch release;
  Probe probe(20, [&](Probe& self, int cycle) {
    if (cycle == 1) {
      inCycle.countDown();
      release.wait();
    } else {
      self.stop();
    }
  });
  RunThread run(probe);
  ASSERT_TRUE(inCycle.wait());
  probe.pause();
  EXPECT_FALSE(probe.running());
  EXPECT_TRUE(LoggedOnce(kInfo, line(46, "pause", "called\n\n")));
  release.countDown();
  ASSERT_TRUE(g_events.waitFor(W, 1));
  EXPECT_EQ(g_events.kinds(), (std::vector<Kind>{S, B, E, S, W}));
  EXPECT_EQ(probe.cycles(), 1);
  probe.resume();
  EXPECT_TRUE(LoggedOnce(kInfo, line(52, "resume", "called\n\n")));
  ASSERT_TRUE(run.waitReturned());
  EXPECT_EQ(probe.cycles(), 2);
  EXPECT_EQ(g_events.kinds(), (std::vector<Kind>{S, B, E, S, W, B, E, S}));
}

TEST_F(RunnableTest, StopWhilePausedReturnsWithoutAnotherCycle) {
  Probe probe(1, [](Probe& self, int) { self.pause(); });
  RunThread run(probe);
  ASSERT_TRUE(g_events.waitFor(W, 1));
  EXPECT_FALSE(probe.running());
  probe.stop();
  ASSERT_TRUE(run.waitReturned());
  EXPECT_EQ(probe.cycles(), 1);
  EXPECT_EQ(g_events.kinds(), (std::vector<Kind>{S, B, E, S, W}));
  EXPECT_FALSE(probe.running());
}

TEST_F(RunnableTest, ResumeOnAnActiveBodyChangesNothing) {
  Probe probe(1, [](Probe& self, int cycle) {
    if (cycle == 2) {
      self.stop();
    }
  });
  probe.resume();
  EXPECT_TRUE(probe.running());
  EXPECT_TRUE(LoggedOnce(kInfo, line(52, "resume", "called\n\n")));
  {
    RunThread run(probe);
    ASSERT_TRUE(run.waitReturned());
  }
  EXPECT_EQ(probe.cycles(), 2);
  EXPECT_EQ(g_events.kinds(), (std::vector<Kind>{S, B, E, S, B, E, S}));
}

TEST_F(RunnableTest, RunningIsFalseWhenPausedOrStoppedAndResumeDoesNotReviveAStop) {
  Probe probe(1);
  EXPECT_TRUE(probe.running());
  probe.pause();
  EXPECT_FALSE(probe.running());
  probe.resume();
  EXPECT_TRUE(probe.running());
  probe.stop();
  EXPECT_FALSE(probe.running());
  probe.resume();
  EXPECT_FALSE(probe.running());
  probe.pause();
  EXPECT_FALSE(probe.running());
  EXPECT_EQ(LogCapture::countContaining("running"), 0u);
}

TEST_F(RunnableTest, RunOnAStoppedBodySleepsOnceAndReturnsWithoutACycle) {
  Probe probe(3);
  probe.stop();
  probe.resume();
  g_events.watch(velmora::testing::gettid());
  probe.run();
  g_events.watch(0);
  EXPECT_EQ(probe.cycles(), 0);
  EXPECT_EQ(g_events.kinds(), std::vector<Kind>{S});
}

TEST_F(RunnableTest, PauseAfterStopMakesANewRunWaitForResume) {
  Probe probe(1);
  probe.stop();
  probe.pause();
  RunThread run(probe);
  ASSERT_TRUE(g_events.waitFor(W, 1));
  EXPECT_EQ(g_events.kinds(), (std::vector<Kind>{S, W}));
  probe.resume();
  ASSERT_TRUE(run.waitReturned());
  EXPECT_EQ(probe.cycles(), 0);
  EXPECT_EQ(g_events.kinds(), (std::vector<Kind>{S, W}));
}

TEST_F(RunnableTest, IntervalZeroSleepsForNothing) {
  Probe probe(0, [](Probe& self, int cycle) {
    if (cycle == 5) {
      self.stop();
    }
  });
  {
    RunThread run(probe);
    ASSERT_TRUE(run.waitReturned());
  }
  EXPECT_EQ(probe.cycles(), 5);
  EXPECT_TRUE(LoggedOnce(kInfo, line(9, "Runnable", "called, interval: 0\n\n")));
  size_t sleeps = 0;
  for (const Event& event : g_events.all()) {
    if (event.kind == S) {
      ++sleeps;
      EXPECT_EQ(event.seconds, 0);
      EXPECT_EQ(event.nanoseconds, 0);
      EXPECT_EQ(event.result, 0);
    }
  }
  EXPECT_EQ(sleeps, 6u);
}

TEST_F(RunnableTest, NegativeIntervalIsRefusedBySleepSoTheLoopDoesNotPause) {
  Probe probe(-1500, [](Probe& self, int cycle) {
    if (cycle == 3) {
      self.stop();
    }
  });
  {
    RunThread run(probe);
    ASSERT_TRUE(run.waitReturned());
  }
  EXPECT_EQ(probe.cycles(), 3);
  EXPECT_TRUE(LoggedOnce(kInfo, line(9, "Runnable", "called, interval: -1500\n\n")));
  size_t sleeps = 0;
  for (const Event& event : g_events.all()) {
    if (event.kind == S) {
      ++sleeps;
      EXPECT_EQ(event.seconds, -1);
      EXPECT_EQ(event.nanoseconds, -500000000L);
      EXPECT_EQ(event.result, -1);
      EXPECT_EQ(event.error, EINVAL);
    }
  }
  EXPECT_EQ(sleeps, 4u);
}

TEST_F(RunnableTest, AnExceptionFromACycleLeavesRunWithNoLockHeld) {
  Probe probe(1, [](Probe&, int) { throw std::logic_error("cycle failed"); });
  bool caught = false;
  try {
    probe.run();
  } catch (const std::logic_error& error) {
    caught = std::string(error.what()) == "cycle failed";
  }
  EXPECT_TRUE(caught);
  probe.pause();
  EXPECT_FALSE(probe.running());
  probe.stop();
  EXPECT_EQ(probe.cycles(), 1);
}

TEST_F(RunnableTest, MutexInitFailureMakesConstructionThrow) {
  g_mutexInitFault.failNext(1);
  try {
    Probe probe(5);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), std::string("Mutex init error: ") + strerror(ENOMEM));
  }
  EXPECT_EQ(LogCapture::countContaining("called"), 0u);
}

TEST_F(RunnableTest, ConditionInitFailureThrowsAfterDestroyingTheMutex) {
  g_condInitFault.failNext(1);
  const int destroysBefore = g_mutexDestroys.load();
  try {
    Probe probe(5);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string("ConditionVariable init error: ") + strerror(EAGAIN));
  }
  EXPECT_EQ(g_mutexDestroys.load(), destroysBefore + 1);
  EXPECT_EQ(LogCapture::countContaining("called"), 0u);
}

TEST_F(RunnableTest, NotifyFailureLeavesResumeWithAnErrorAndUnlocks) {
  Probe probe(5);
  g_condSignalFault.failNext(1);
  try {
    probe.resume();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string("ConditionVariable notify_one error: ") + strerror(EINVAL));
  }
  // The lock was released while unwinding: the state can be read and changed again.
  EXPECT_TRUE(probe.running());
  probe.pause();
  EXPECT_FALSE(probe.running());
}

TEST_F(RunnableTest, WaitFailureLeavesRunWithAnError) {
  Probe probe(1);
  probe.pause();
  g_condWaitFault.failNext(1);
  bool caught = false;
  try {
    probe.run();
  } catch (const std::runtime_error& error) {
    caught = std::string(error.what()) ==
             std::string("ConditionVariable cond_wait error: ") + strerror(EINVAL);
  }
  EXPECT_TRUE(caught);
  EXPECT_EQ(probe.cycles(), 0);
  probe.stop();
  EXPECT_FALSE(probe.running());
}

}  // namespace
