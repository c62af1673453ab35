// The engine: command traffic seen through its log lines, firing order, the stop hand-shakes
// with running handlers, re-arming, and its behaviour when pipe, clock or ppoll fail or its
// descriptors lie above FD_SETSIZE.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/simple_timer/timer.h"
#include "log_capture.h"
#include "timer_interpose.h"
#include "timer_test_support.h"

namespace {

using velmora::base::simple_timer::CONTINUE;
using velmora::base::simple_timer::ONCE;
using velmora::base::simple_timer::TimeoutTime;
using velmora::base::simple_timer::Timer;
using velmora::base::simple_timer::TimerType_e;
using velmora::testing::Counter;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::Logged;
using velmora::testing::LoggedOnce;
using velmora::testing::NotLogged;
using velmora::testing::Signal;
using velmora::testing::timerLogLine;

const auto kNoop = [](Timer*, void*) {};

std::string idleLine() {
  return timerLogLine("void WaitForFirstTimer()", "HandleTimerThread", "wait for ever",
                      "No timer, wait for ever.\n");
}
std::string wokenLine() {
  return timerLogLine("void WaitForFirstTimer()", "HandleTimerThread", "begin work",
                      "Has new timer, begin work.\n");
}
std::string commandLine(int command) {
  return timerLogLine("void WaitForFirstTimer()", "HandleTimerThread",
                      "\"cmd:", "cmd:" + std::to_string(command) + ".\n");
}
std::string rescheduleLine() {
  return timerLogLine("void ServeTimers()", "HandleTimerThread", "Need reschedule",
                      "Need reschedule, continue.\n");
}
std::string emptyListLine() {
  return timerLogLine("void ServeTimers()", "HandleTimerThread", "No timer need handle",
                      "No timer need handle.\n");
}
std::string insertLine(const std::string& fragment, const std::string& message) {
  return timerLogLine("void InsterTimer(", "InsterTimer", fragment, message);
}
std::string onceLine(const std::string& name) {
  return timerLogLine("bool HandleTimeout()", "HandleTimeout", "is ONCE",
                      "Timer:'" + name + "' type is ONCE, stop now.\n");
}
std::string continueLine(const std::string& name) {
  return timerLogLine("bool HandleTimeout()", "HandleTimeout", "is CONTINUE",
                      "Timer:'" + name + "' type is CONTINUE, reschedule it.\n");
}

struct Expiry {
  int64_t sec;
  int64_t nsec;
};

std::string waitingLine(const std::string& name, const Expiry& expiry) {
  return timerLogLine("void ServeTimers()", "HandleTimerThread", "Waiting for timer",
                      "Waiting for timer('" + name +
                          "') expired, expiredTime(sec:" + std::to_string(expiry.sec) +
                          ", nsec:" + std::to_string(expiry.nsec) + ").\n");
}

timespec monotonicNow() {
  const int64_t now = velmora::testing::monotonicNanoseconds();
  return timespec{static_cast<time_t>(now / 1000000000LL), static_cast<long>(now % 1000000000LL)};
}

// Starts the timer as if the clock read `at`, and returns the expiry the engine will print.
Expiry startAt(Timer& timer, const timespec& at, const TimeoutTime& timeout) {
  velmora::testing::freezeClockOnThisThread(at);
  const int result = timer.start();
  velmora::testing::unfreezeClockOnThisThread();
  EXPECT_EQ(result, 0);
  const int64_t nsec = at.tv_nsec + 1000000LL * timeout.msec + 1000LL * timeout.usec;
  return Expiry{at.tv_sec + timeout.sec + nsec / 1000000000LL, nsec % 1000000000LL};
}

Expiry startNow(Timer& timer, const TimeoutTime& timeout) {
  return startAt(timer, monotonicNow(), timeout);
}

// Waits until the engine has entered its idle wait for the given time.
void waitUntilIdle(size_t times = 1) {
  ASSERT_TRUE(LogCapture::waitFor(idleLine(), times));
  ASSERT_TRUE(velmora::testing::ppollCalls().waitAtLeast(static_cast<int>(times)));
}

class SimpleTimerEngineTest : public LogCaptureTest {};

TEST_F(SimpleTimerEngineTest, FirstStartSendsStartAndWakesTheIdleEngine) {
  Timer timer("first", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  EXPECT_TRUE(LoggedOnce(4000, idleLine()));
  const Expiry expiry = startNow(timer, TimeoutTime{60, 0, 0});
  EXPECT_TRUE(LoggedOnce(5000, insertLine("Begin inster", "Begin inster timer:'first'.\n")));
  EXPECT_TRUE(LoggedOnce(
      5000, insertLine("Has no timer yet", "Has no timer yet, insert timer:'first' to head.\n")));
  EXPECT_TRUE(LoggedOnce(
      5000, insertLine("Send CMD_START", "Send CMD_START(1) because of timer('first').\n")));
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("first", expiry)));
  EXPECT_TRUE(LoggedOnce(4000, wokenLine()));
  EXPECT_TRUE(LoggedOnce(4000, commandLine(1)));
  EXPECT_TRUE(LoggedOnce(5000, waitingLine("first", expiry)));
  EXPECT_TRUE(timer.isStarted());
}

TEST_F(SimpleTimerEngineTest, StartOfTheFirstTimerStartsTheEngineOnceUnderItsTrace) {
  Timer first("a", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  Timer second("b", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  const std::string anchor = "void StartTimerThreadOnce()";
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceInLine(anchor, "StartTimerThreadOnce")));
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceOutLine(anchor, "StartTimerThreadOnce")));
  EXPECT_EQ(velmora::testing::pipeCalls(), 1);
  waitUntilIdle();
  EXPECT_EQ(velmora::testing::threadsCreated(), 1);
}

TEST_F(SimpleTimerEngineTest, EarlierTimerBecomesHeadAndReschedulesTheEngine) {
  Timer late("late", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  Timer early("early", TimeoutTime{30, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  const Expiry lateExpiry = startNow(late, TimeoutTime{60, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("late", lateExpiry)));
  const Expiry earlyExpiry = startNow(early, TimeoutTime{30, 0, 0});
  EXPECT_TRUE(LoggedOnce(
      5000, insertLine("\"Insert timer:'%s' to head", "Insert timer:'early' to head.\n")));
  EXPECT_TRUE(LoggedOnce(5000, insertLine("Send CMD_RESCHEDULE",
                                          "Send CMD_RESCHEDULE(2) because of timer('early').\n")));
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("early", earlyExpiry)));
  EXPECT_TRUE(LoggedOnce(5000, rescheduleLine()));
  const std::vector<size_t> reschedule = velmora::testing::positionsOf(rescheduleLine());
  const std::vector<size_t> waiting =
      velmora::testing::positionsOf(waitingLine("early", earlyExpiry));
  ASSERT_EQ(waiting.size(), 1u);
  EXPECT_LT(reschedule[0], waiting[0]);
}

TEST_F(SimpleTimerEngineTest, LaterTimerGoesToItsPositionWithoutCommand) {
  Timer head("head", TimeoutTime{30, 0, 0}, kNoop, nullptr, ONCE);
  Timer later("later", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  Timer probe("probe", TimeoutTime{10, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  const Expiry headExpiry = startNow(head, TimeoutTime{30, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("head", headExpiry)));
  startNow(later, TimeoutTime{60, 0, 0});
  EXPECT_TRUE(LoggedOnce(
      5000, insertLine("normal position", "Insert timer:'later' to normal position.\n")));
  EXPECT_EQ(LogCapture::countContaining("Send CMD_"), 1u);
  // A command from the probe reaches the engine; had the later timer sent one, the engine
  // would have read two and woken twice before settling on the probe.
  const Expiry probeExpiry = startNow(probe, TimeoutTime{10, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("probe", probeExpiry)));
  EXPECT_EQ(LogCapture::count(rescheduleLine()), 1u);
  EXPECT_EQ(LogCapture::count(waitingLine("head", headExpiry)), 1u);
}

TEST_F(SimpleTimerEngineTest, StoppingTheHeadReschedulesAndOthersSendNothing) {
  Timer head("head", TimeoutTime{30, 0, 0}, kNoop, nullptr, ONCE);
  Timer middle("middle", TimeoutTime{40, 0, 0}, kNoop, nullptr, ONCE);
  Timer tail("tail", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  const Expiry headExpiry = startNow(head, TimeoutTime{30, 0, 0});
  const Expiry middleExpiry = startNow(middle, TimeoutTime{40, 0, 0});
  const Expiry tailExpiry = startNow(tail, TimeoutTime{60, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("head", headExpiry)));

  EXPECT_EQ(middle.stop(), 0);
  EXPECT_TRUE(LoggedOnce(4000, timerLogLine("void RemoveTimer(", "RemoveTimer", "Will remove",
                                            "Will remove timer('middle').\n")));
  EXPECT_EQ(LogCapture::countContaining("from head"), 0u);
  EXPECT_FALSE(middle.isStarted());

  EXPECT_EQ(head.stop(), 0);
  EXPECT_TRUE(LoggedOnce(5000, timerLogLine("void RemoveTimer(", "RemoveTimer", "from head",
                                            "Remove timer('head') from head, send "
                                            "CMD_RESCHEDULE(2).\n")));
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("tail", tailExpiry)));
  EXPECT_EQ(LogCapture::count(waitingLine("middle", middleExpiry)), 0u);
  EXPECT_TRUE(LoggedOnce(5000, rescheduleLine()));
  const std::string anchor = "void RemoveTimer(";
  EXPECT_EQ(LogCapture::count(5000, velmora::testing::traceInLine(anchor, "RemoveTimer")), 2u);
  EXPECT_EQ(LogCapture::count(5000, velmora::testing::traceOutLine(anchor, "RemoveTimer")), 2u);
}

TEST_F(SimpleTimerEngineTest, StoppingTheLastTimerSendsTheEngineBackToItsIdleWait) {
  Timer only("only", TimeoutTime{30, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  const Expiry expiry = startNow(only, TimeoutTime{30, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("only", expiry)));
  EXPECT_EQ(only.stop(), 0);
  ASSERT_TRUE(LogCapture::waitFor(idleLine(), 2));
  EXPECT_TRUE(LoggedOnce(5000, emptyListLine()));
  const std::vector<size_t> empty = velmora::testing::positionsOf(emptyListLine());
  const std::vector<size_t> idle = velmora::testing::positionsOf(idleLine());
  ASSERT_EQ(idle.size(), 2u);
  EXPECT_LT(empty[0], idle[1]);
  // Woken again, it starts over with the next command.
  Timer next("next", TimeoutTime{30, 0, 0}, kNoop, nullptr, ONCE);
  startNow(next, TimeoutTime{30, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(commandLine(1), 2));
  EXPECT_EQ(LogCapture::count(wokenLine()), 2u);
}

TEST_F(SimpleTimerEngineTest, StoppingATimerNotInTheListChangesNothing) {
  Timer head("head", TimeoutTime{30, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  const Expiry expiry = startNow(head, TimeoutTime{30, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("head", expiry)));
  Timer stranger("stranger", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_EQ(stranger.stop(), 0);
  EXPECT_EQ(LogCapture::countContaining("Will remove timer"), 0u);
  EXPECT_TRUE(head.isStarted());
}

TEST_F(SimpleTimerEngineTest, OnceTimerWithZeroTimeoutFiresAtOnceWithOwnerAndData) {
  Signal fired;
  std::atomic<Timer*> seenOwner{nullptr};
  std::atomic<void*> seenData{nullptr};
  int data = 0;
  Timer timer(
      "zero", TimeoutTime{0, 0, 0},
      [&](Timer* owner, void* userData) {
        seenOwner = owner;
        seenData = userData;
        fired.set();
      },
      &data, ONCE);
  const int64_t before = velmora::testing::monotonicNanoseconds();
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(fired.wait());
  EXPECT_LT(velmora::testing::monotonicNanoseconds() - before, 5000000000LL);
  EXPECT_EQ(seenOwner.load(), &timer);
  EXPECT_EQ(seenData.load(), &data);
  EXPECT_FALSE(timer.isStarted());
  EXPECT_FALSE(timer.needStop());
  EXPECT_TRUE(LoggedOnce(5000, onceLine("zero")));
  EXPECT_TRUE(Logged(
      5000, timerLogLine("void ServeTimers()", "HandleTimerThread", "Timeout.", "Timeout.\n")));
}

TEST_F(SimpleTimerEngineTest, OnceTimerMayBeStartedAgainFromItsHandler) {
  Counter calls;
  velmora::testing::HandlerThreadDrain drain;
  Timer timer(
      "again", TimeoutTime{0, 1, 0},
      [&](Timer* self, void*) {
        calls.increment();
        if (calls.value() == 1) {
          EXPECT_FALSE(self->isStarted());
          EXPECT_EQ(self->start(), 0);
        }
      },
      nullptr, ONCE);
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(calls.waitAtLeast(2));
  ASSERT_TRUE(LogCapture::waitFor(onceLine("again"), 2));
  EXPECT_EQ(timer.stop(), 0);
}

TEST_F(SimpleTimerEngineTest, TimersFireInOrderOfExpiry) {
  Counter fired;
  const auto count = [&](Timer*, void*) { fired.increment(); };
  velmora::testing::HandlerThreadDrain drain;
  Timer t40("t40", TimeoutTime{0, 40, 0}, count, nullptr, ONCE);
  Timer t10("t10", TimeoutTime{0, 10, 0}, count, nullptr, ONCE);
  Timer t30("t30", TimeoutTime{0, 30, 0}, count, nullptr, ONCE);
  Timer t20("t20", TimeoutTime{0, 20, 0}, count, nullptr, ONCE);
  // Counted from a second ahead, so that all are in the list before the first is due.
  timespec now = monotonicNow();
  now.tv_sec += 1;
  startAt(t40, now, TimeoutTime{0, 40, 0});
  startAt(t10, now, TimeoutTime{0, 10, 0});
  startAt(t30, now, TimeoutTime{0, 30, 0});
  startAt(t20, now, TimeoutTime{0, 20, 0});
  ASSERT_TRUE(fired.waitAtLeast(4));
  std::vector<size_t> order;
  for (const char* name : {"t10", "t20", "t30", "t40"}) {
    const std::vector<size_t> positions = velmora::testing::positionsOf(onceLine(name));
    ASSERT_EQ(positions.size(), 1u) << name;
    order.push_back(positions[0]);
  }
  EXPECT_LT(order[0], order[1]);
  EXPECT_LT(order[1], order[2]);
  EXPECT_LT(order[2], order[3]);
}

TEST_F(SimpleTimerEngineTest, TimersWithEqualExpiryFireInTheOrderTheyWereStarted) {
  Counter fired;
  const auto count = [&](Timer*, void*) { fired.increment(); };
  velmora::testing::HandlerThreadDrain drain;
  Timer first("first", TimeoutTime{0, 20, 0}, count, nullptr, ONCE);
  Timer second("second", TimeoutTime{0, 20, 0}, count, nullptr, ONCE);
  Timer third("third", TimeoutTime{0, 20, 0}, count, nullptr, ONCE);
  // Counted from a second ahead, so that all are in the list before the first is due.
  timespec now = monotonicNow();
  now.tv_sec += 1;
  startAt(second, now, TimeoutTime{0, 20, 0});
  startAt(first, now, TimeoutTime{0, 20, 0});
  startAt(third, now, TimeoutTime{0, 20, 0});
  EXPECT_TRUE(LoggedOnce(
      5000, insertLine("normal position", "Insert timer:'first' to normal position.\n")));
  EXPECT_TRUE(LoggedOnce(
      5000, insertLine("normal position", "Insert timer:'third' to normal position.\n")));
  ASSERT_TRUE(fired.waitAtLeast(3));
  const size_t a = velmora::testing::positionsOf(onceLine("second")).at(0);
  const size_t b = velmora::testing::positionsOf(onceLine("first")).at(0);
  const size_t c = velmora::testing::positionsOf(onceLine("third")).at(0);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
}

TEST_F(SimpleTimerEngineTest, SecondStartKeepsTheRunningCountdown) {
  Timer timer("twice", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  Signal shortFired;
  Timer shortTimer(
      "short", TimeoutTime{0, 10, 0}, [&](Timer*, void*) { shortFired.set(); }, nullptr, ONCE);
  waitUntilIdle();
  const Expiry expiry = startNow(timer, TimeoutTime{60, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("twice", expiry)));
  const timespec later = {monotonicNow().tv_sec + 5, 0};
  velmora::testing::freezeClockOnThisThread(later);
  EXPECT_EQ(timer.start(), 0);
  velmora::testing::unfreezeClockOnThisThread();
  EXPECT_EQ(LogCapture::count(insertLine("Begin inster", "Begin inster timer:'twice'.\n")), 1u);
  // The engine shows the head's expiry again once the short timer has come and gone.
  ASSERT_EQ(shortTimer.start(), 0);
  ASSERT_TRUE(shortFired.wait());
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("twice", expiry), 2));
}

TEST_F(SimpleTimerEngineTest, RestartCountsTheFullTimeoutFromTheCall) {
  Timer timer("re", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  const timespec first = monotonicNow();
  const Expiry before = startAt(timer, first, TimeoutTime{60, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("re", before)));
  const timespec second = {first.tv_sec + 7, first.tv_nsec};
  velmora::testing::freezeClockOnThisThread(second);
  EXPECT_EQ(timer.restart(), 0);
  velmora::testing::unfreezeClockOnThisThread();
  const Expiry after = {before.sec + 7, before.nsec};
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("re", after)));
  EXPECT_TRUE(timer.isStarted());
  EXPECT_TRUE(LoggedOnce(
      5000, timerLogLine("int Timer::stop()", "stop", "Stop timer", "Stop timer:'re'.\n")));
}

TEST_F(SimpleTimerEngineTest, ContinueTimerWithBlockingHandlerKeepsFiringOnNewThreads) {
  Signal release;
  Counter calls;
  std::mutex threadsMutex;
  std::set<std::thread::id> threads;
  std::atomic<int> returned{0};
  velmora::testing::HandlerThreadDrain drain;
  Timer timer(
      "blocker", TimeoutTime{0, 20, 0},
      [&](Timer*, void*) {
        {
          std::lock_guard<std::mutex> lock(threadsMutex);
          threads.insert(std::this_thread::get_id());
        }
        calls.increment();
        release.wait(std::chrono::seconds(30));
        ++returned;
      },
      nullptr, CONTINUE);
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(calls.waitAtLeast(5));
  // Every call so far is still blocked, each on a thread of its own.
  EXPECT_EQ(returned.load(), 0);
  {
    std::lock_guard<std::mutex> lock(threadsMutex);
    EXPECT_GE(threads.size(), 5u);
  }
  EXPECT_GE(LogCapture::count(5000, continueLine("blocker")), 5u);
  // Each re-arm counts the full period from the moment the expiry was handled.
  const std::vector<velmora::testing::PrintedExpiry> expiries =
      velmora::testing::printedExpiries("blocker");
  ASSERT_GE(expiries.size(), 5u);
  for (size_t i = 1; i < expiries.size(); ++i) {
    const int64_t previous = expiries[i - 1].sec * 1000000000LL + expiries[i - 1].nsec;
    const int64_t current = expiries[i].sec * 1000000000LL + expiries[i].nsec;
    if (current != previous) {
      EXPECT_GE(current - previous, 20000000LL);
    }
  }
  release.set();
  EXPECT_EQ(timer.stop(), 0);
  EXPECT_FALSE(timer.isStarted());
}

TEST_F(SimpleTimerEngineTest, TypeOtherThanOnceIsHandledAsContinue) {
  Counter calls;
  velmora::testing::HandlerThreadDrain drain;
  Timer timer(
      "seven", TimeoutTime{0, 5, 0}, [&](Timer*, void*) { calls.increment(); }, nullptr,
      static_cast<TimerType_e>(7));
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(calls.waitAtLeast(2));
  EXPECT_TRUE(timer.isStarted());
  EXPECT_GE(LogCapture::count(5000, continueLine("seven")), 2u);
  EXPECT_EQ(timer.stop(), 0);
}

TEST_F(SimpleTimerEngineTest, StopWaitsUntilTheRunningHandlerHasReturned) {
  Signal entered;
  Signal release;
  std::atomic<bool> handlerReturned{false};
  Timer timer(
      "slow", TimeoutTime{0, 0, 0},
      [&](Timer*, void*) {
        entered.set();
        release.wait(std::chrono::seconds(30));
        handlerReturned = true;
      },
      nullptr, ONCE);
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(entered.wait());
  std::atomic<bool> returnedWhenStopReturned{false};
  Signal stopped;
  std::thread stopper([&] {
    EXPECT_EQ(timer.stop(), 0);
    returnedWhenStopReturned = handlerReturned.load();
    stopped.set();
  });
  ASSERT_TRUE(LogCapture::waitFor(timerLogLine("int TimerImpl::stop()", "stop", "Before wait",
                                               "Before wait timer:'slow' stop.\n")));
  EXPECT_FALSE(stopped.isSet());
  release.set();
  ASSERT_TRUE(stopped.wait());
  stopper.join();
  EXPECT_TRUE(returnedWhenStopReturned.load());
  EXPECT_TRUE(LoggedOnce(1, timerLogLine("int TimerImpl::stop()", "stop", "After wait",
                                         "After wait timer:'slow' stop.\n")));
}

TEST_F(SimpleTimerEngineTest, StopNoBlockFromItsOwnHandlerEndsAContinueTimer) {
  Counter calls;
  Signal handlerDone;
  velmora::testing::HandlerThreadDrain drain;
  Timer timer(
      "self", TimeoutTime{1, 0, 0},
      [&](Timer* self, void*) {
        calls.increment();
        EXPECT_EQ(self->stopNoBlock(), 0);
        EXPECT_TRUE(self->needStop());
        handlerDone.set();
      },
      nullptr, CONTINUE);
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(handlerDone.wait());
  ASSERT_TRUE(LogCapture::waitFor(emptyListLine()));
  EXPECT_FALSE(timer.isStarted());
  EXPECT_TRUE(timer.needStop());
  EXPECT_EQ(calls.value(), 1);
  EXPECT_TRUE(LoggedOnce(5000, timerLogLine("void RemoveTimer(", "RemoveTimer", "from head",
                                            "Remove timer('self') from head, send "
                                            "CMD_RESCHEDULE(2).\n")));
}

TEST_F(SimpleTimerEngineTest, LongRunningHandlerSeesNeedStopAndStopWaitsForIt) {
  Signal entered;
  std::atomic<bool> sawNeedStop{false};
  Timer timer(
      "long", TimeoutTime{0, 0, 0},
      [&](Timer* self, void*) {
        entered.set();
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!self->needStop() && std::chrono::steady_clock::now() < giveUp) {
          std::this_thread::yield();
        }
        sawNeedStop = self->needStop();
      },
      nullptr, ONCE);
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(entered.wait());
  EXPECT_FALSE(timer.needStop());
  EXPECT_EQ(timer.stop(), 0);
  EXPECT_TRUE(sawNeedStop.load());
}

TEST_F(SimpleTimerEngineTest, DestroyingTheTimerWaitsForItsRunningHandler) {
  Signal entered;
  Signal release;
  std::atomic<bool> handlerReturned{false};
  auto timer = std::make_unique<Timer>(
      "doomed", TimeoutTime{0, 0, 0},
      [&](Timer*, void*) {
        entered.set();
        release.wait(std::chrono::seconds(30));
        handlerReturned = true;
      },
      nullptr, ONCE);
  ASSERT_EQ(timer->start(), 0);
  ASSERT_TRUE(entered.wait());
  std::atomic<bool> returnedWhenDestroyed{false};
  Signal destroyed;
  std::thread destroyer([&] {
    timer.reset();
    returnedWhenDestroyed = handlerReturned.load();
    destroyed.set();
  });
  ASSERT_TRUE(LogCapture::waitFor(timerLogLine("int TimerImpl::stop()", "stop", "Before wait",
                                               "Before wait timer:'doomed' stop.\n")));
  EXPECT_FALSE(destroyed.isSet());
  release.set();
  ASSERT_TRUE(destroyed.wait());
  destroyer.join();
  EXPECT_TRUE(returnedWhenDestroyed.load());
}

// Sets a signal when the handler (and so the implementation holding it) is destroyed.
struct DestructionWitness {
  explicit DestructionWitness(Signal* signal) : signal_(signal) {}
  ~DestructionWitness() { signal_->set(); }
  Signal* signal_;
};

TEST_F(SimpleTimerEngineTest, ImplementationOutlivesATimerDestroyedAfterItsExpiryWasTaken) {
  Signal handlerRan;
  Signal implementationDestroyed;
  velmora::testing::HandlerThreadDrain drain;
  auto witness = std::make_shared<DestructionWitness>(&implementationDestroyed);
  auto timer = std::make_unique<Timer>(
      "orphan", TimeoutTime{0, 0, 0},
      [witness, &handlerRan](Timer*, void*) {
        // The owner may be gone by now: only the handler's own state is used.
        EXPECT_FALSE(witness->signal_->isSet());
        handlerRan.set();
      },
      nullptr, ONCE);
  witness.reset();
  waitUntilIdle();
  velmora::testing::holdNewThreads();
  const int threadsBefore = velmora::testing::threadsCreated();
  ASSERT_EQ(timer->start(), 0);
  ASSERT_TRUE(LogCapture::waitFor(emptyListLine()));
  EXPECT_EQ(velmora::testing::threadsCreated(), threadsBefore + 1);
  timer.reset();
  EXPECT_FALSE(implementationDestroyed.isSet());
  EXPECT_FALSE(handlerRan.isSet());
  velmora::testing::releaseNewThreads();
  ASSERT_TRUE(handlerRan.wait());
  ASSERT_TRUE(implementationDestroyed.wait());
}

TEST_F(SimpleTimerEngineTest, PipeFailureIsLoggedOnceAndNoTimerEverFires) {
  // The write end keeps the value 0; make sure writing there fails.
  const int readOnly = open("/dev/null", O_RDONLY);
  ASSERT_GE(readOnly, 0);
  ASSERT_EQ(dup2(readOnly, 0), 0);
  close(readOnly);
  velmora::testing::g_pipeFault.failNext(1);
  std::atomic<int> calls{0};
  Timer first(
      "first", TimeoutTime{0, 0, 0}, [&](Timer*, void*) { ++calls; }, nullptr, ONCE);
  Timer second(
      "second", TimeoutTime{0, 0, 0}, [&](Timer*, void*) { ++calls; }, nullptr, ONCE);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("void StartTimerThreadOnce()", "StartTimerThreadOnce",
                                            "Fail to create pipe",
                                            "Fail to create pipe, errno(24):'Too many open "
                                            "files'.\n")));
  EXPECT_EQ(velmora::testing::pipeCalls(), 1);
  EXPECT_EQ(velmora::testing::threadsCreated(), 0) << "no engine thread exists";
  EXPECT_EQ(first.start(), 0);
  const std::string writeFailure =
      timerLogLine("void SendCmd(", "SendCmd", "Fail to wrtie",
                   "Fail to wrtie data, errno(9):'Bad file descriptor'.\n");
  EXPECT_TRUE(LoggedOnce(1000, writeFailure));
  EXPECT_EQ(first.stop(), 0);
  EXPECT_EQ(LogCapture::count(1000, writeFailure), 2u) << "removing the head writes again";
  EXPECT_EQ(second.start(), 0);
  EXPECT_EQ(LogCapture::count(1000, writeFailure), 3u);
  EXPECT_EQ(velmora::testing::threadsCreated(), 0);
  EXPECT_EQ(calls.load(), 0);
  EXPECT_EQ(velmora::testing::ppollCalls().value(), 0);
}

TEST_F(SimpleTimerEngineTest, CommandFloodWhileTheEngineIsBusyNeitherBlocksNorLosesWakeUps) {
  Signal fired;
  Timer holder("holder", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  Timer flood("flood", TimeoutTime{30, 0, 0}, kNoop, nullptr, ONCE);
  Timer probe(
      "probe", TimeoutTime{0, 0, 0}, [&](Timer*, void*) { fired.set(); }, nullptr, ONCE);
  waitUntilIdle();
  // Keep the engine in its next clock reading, outside the list lock, with a timer armed.
  velmora::testing::holdClockOnThread(velmora::testing::firstThreadId());
  ASSERT_EQ(holder.start(), 0);
  ASSERT_TRUE(velmora::testing::heldClockCalls().waitAtLeast(1));
  LogCapture::setThreshold(1000);
  // Each cycle writes two commands (new head, head removed): far more than the pipe holds.
  Signal flooded;
  std::thread producer([&] {
    for (int cycle = 0; cycle < 20000; ++cycle) {
      flood.start();
      flood.stop();
    }
    flooded.set();
  });
  const bool producerFinished = flooded.wait(std::chrono::seconds(60));
  velmora::testing::releaseClock();
  ASSERT_TRUE(producerFinished) << "a write blocked on the full pipe";
  producer.join();
  EXPECT_GE(LogCapture::count(1000, timerLogLine("void SendCmd(", "SendCmd", "Fail to wrtie",
                                                 "Fail to wrtie data, errno(11):'Resource "
                                                 "temporarily unavailable'.\n")),
            1u);
  ASSERT_EQ(probe.start(), 0);
  ASSERT_TRUE(fired.wait());
  EXPECT_TRUE(holder.isStarted());
}

TEST_F(SimpleTimerEngineTest, EngineWorksWithPipeDescriptorsAboveFdSetSize) {
  rlimit limit = {0, 0};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlim_t wanted = FD_SETSIZE + 256;
  ASSERT_GE(limit.rlim_max, wanted) << "the hard descriptor limit is too low for this test";
  if (limit.rlim_cur < wanted) {
    limit.rlim_cur = wanted;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  std::vector<int> filler;
  for (;;) {
    const int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    filler.push_back(fd);
    if (fd >= FD_SETSIZE + 8) {
      break;
    }
  }
  Counter fired;
  velmora::testing::HandlerThreadDrain drain;
  Timer late("late", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  Timer early(
      "early", TimeoutTime{0, 10, 0}, [&](Timer*, void*) { fired.increment(); }, nullptr, CONTINUE);
  EXPECT_GE(velmora::testing::lastPipeReadEnd(), FD_SETSIZE);
  EXPECT_GE(velmora::testing::lastPipeWriteEnd(), FD_SETSIZE);
  waitUntilIdle();
  startNow(late, TimeoutTime{60, 0, 0});
  ASSERT_EQ(early.start(), 0);
  ASSERT_TRUE(fired.waitAtLeast(3));
  EXPECT_GE(LogCapture::count(rescheduleLine()), 1u);
  EXPECT_EQ(early.stop(), 0);
  EXPECT_EQ(late.stop(), 0);
  ASSERT_TRUE(LogCapture::waitFor(idleLine(), 2));
  EXPECT_EQ(LogCapture::countContaining("Fail to select"), 0u);
  for (int fd : filler) {
    close(fd);
  }
}

TEST_F(SimpleTimerEngineTest, EngineClockFailureWaitsZeroSkipsThePassAndRecovers) {
  Signal fired;
  Timer timer(
      "clk", TimeoutTime{0, 50, 0}, [&](Timer*, void*) { fired.set(); }, nullptr, ONCE);
  waitUntilIdle();
  ASSERT_NE(velmora::testing::firstThreadId(), 0);
  velmora::testing::failClockOnThread(velmora::testing::firstThreadId());
  ASSERT_EQ(timer.start(), 0);
  const std::string selectClock =
      timerLogLine("timeval CaculateSelectTimeout(", "CaculateSelectTimeout", "timeout is 0",
                   "Fail to get now time, errorno(22):'Invalid argument', timeout is 0.\n");
  const std::string handleClock =
      timerLogLine("bool HandleTimeout()", "HandleTimeout", "Fail to get now time",
                   "Fail to get now time, errorno(22):'Invalid argument'.\n");
  ASSERT_TRUE(LogCapture::waitFor(selectClock));
  ASSERT_TRUE(LogCapture::waitFor(handleClock));
  EXPECT_TRUE(Logged(1000, selectClock));
  EXPECT_TRUE(Logged(1000, handleClock));
  EXPECT_FALSE(fired.isSet()) << "a pass without a clock handles nothing";
  velmora::testing::failClockOnThread(0);
  ASSERT_TRUE(fired.wait());
  EXPECT_FALSE(timer.isStarted());
}

TEST_F(SimpleTimerEngineTest, FailedWaitInTheArmedLoopIsLoggedAndTheLoopGoesOn) {
  Signal fired;
  Timer timer(
      "intr", TimeoutTime{0, 20, 0}, [&](Timer*, void*) { fired.set(); }, nullptr, ONCE);
  waitUntilIdle();
  velmora::testing::g_ppollFault.failNext(1);
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(fired.wait());
  EXPECT_TRUE(
      LoggedOnce(1000, timerLogLine("void ServeTimers()", "HandleTimerThread", "Fail to select",
                                    "Fail to select, errno(4):'Interrupted system "
                                    "call'.\n")));
  EXPECT_GE(velmora::testing::printedExpiries("intr").size(), 2u);
}

TEST_F(SimpleTimerEngineTest, FailedIdleWaitIsLoggedAndTheIdleWaitRepeated) {
  velmora::testing::g_ppollFault.failNext(1);
  Signal fired;
  Timer timer(
      "idle", TimeoutTime{0, 0, 0}, [&](Timer*, void*) { fired.set(); }, nullptr, ONCE);
  waitUntilIdle(2);
  EXPECT_TRUE(LoggedOnce(
      1000, timerLogLine("void WaitForFirstTimer()", "HandleTimerThread", "Fail to select",
                         "Fail to select, errno(4):'Interrupted system "
                         "call'.\n")));
  ASSERT_EQ(timer.start(), 0);
  ASSERT_TRUE(fired.wait());
}

// Waits for the given time on a condition nobody signals: a measuring window, not a
// synchronisation.
void measuringWindow(std::chrono::milliseconds length) {
  std::mutex mutex;
  std::condition_variable never;
  std::unique_lock<std::mutex> lock(mutex);
  never.wait_for(lock, length, [] { return false; });
}

TEST_F(SimpleTimerEngineTest, IdleAndArmedEngineBlockWithoutPolling) {
  Timer timer("hour", TimeoutTime{3600, 0, 0}, kNoop, nullptr, ONCE);
  waitUntilIdle();
  const int engine = velmora::testing::firstThreadId();
  int calls = velmora::testing::ppollCalls().value();
  long ticks = velmora::testing::threadCpuTicks(engine);
  measuringWindow(std::chrono::milliseconds(300));
  EXPECT_EQ(velmora::testing::ppollCalls().value(), calls);
  EXPECT_LE(velmora::testing::threadCpuTicks(engine) - ticks, 1);

  const Expiry expiry = startNow(timer, TimeoutTime{3600, 0, 0});
  ASSERT_TRUE(LogCapture::waitFor(waitingLine("hour", expiry)));
  ASSERT_TRUE(velmora::testing::ppollCalls().waitAtLeast(calls + 1));
  calls = velmora::testing::ppollCalls().value();
  ticks = velmora::testing::threadCpuTicks(engine);
  measuringWindow(std::chrono::milliseconds(300));
  EXPECT_EQ(velmora::testing::ppollCalls().value(), calls);
  EXPECT_LE(velmora::testing::threadCpuTicks(engine) - ticks, 1);
  EXPECT_EQ(timer.stop(), 0);
}

}  // namespace
