// The timer interface: validity rules, normalisation, expiry computation, refusals and their
// exact log lines, the stop hand-shake of TimerImpl, and a Timer whose implementation could not
// be created.
#include <errno.h>
#include <time.h>

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>

#include "base/simple_timer/timer.h"
#include "log_capture.h"
#include "timer_interpose.h"
#include "timer_test_support.h"

namespace {

using velmora::base::simple_timer::CONTINUE;
using velmora::base::simple_timer::ONCE;
using velmora::base::simple_timer::TimeoutTime;
using velmora::base::simple_timer::Timer;
using velmora::base::simple_timer::TimerImpl;
using velmora::base::simple_timer::TimerType_e;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::Logged;
using velmora::testing::LoggedOnce;
using velmora::testing::NotLogged;
using velmora::testing::timerLogLine;

const auto kNoop = [](Timer*, void*) {};

const char kContinueZero[] = "When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n";

void expectTimeout(const TimeoutTime& actual, int32_t sec, int32_t msec, int32_t usec) {
  EXPECT_EQ(actual.sec, sec);
  EXPECT_EQ(actual.msec, msec);
  EXPECT_EQ(actual.usec, usec);
}

int64_t nanoseconds(const TimerImpl::ExpiredTime& expiry) {
  return static_cast<int64_t>(expiry.sec) * 1000000000LL + expiry.nsec;
}

class TimerImplTest : public LogCaptureTest {};

TEST_F(TimerImplTest, CarriesMicrosecondsAndMillisecondsUpwards) {
  TimerImpl timer(nullptr, "t", TimeoutTime{1, 1500, 2500}, kNoop, nullptr, ONCE);
  expectTimeout(timer.timeout(), 2, 502, 500);
}

TEST_F(TimerImplTest, StoresTwoAndAHalfThousandMillisecondsAsTwoSecondsFiveHundred) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, 2500, 0}, kNoop, nullptr, ONCE);
  expectTimeout(timer.timeout(), 2, 500, 0);
}

TEST_F(TimerImplTest, NegativeFieldsKeepTheirSignThroughTruncatingDivision) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, -1500, -2500}, kNoop, nullptr, ONCE);
  expectTimeout(timer.timeout(), -1, -502, -500);
  TimerImpl mixed(nullptr, "m", TimeoutTime{3, -1, 1999}, kNoop, nullptr, ONCE);
  expectTimeout(mixed.timeout(), 3, 0, 999);
}

TEST_F(TimerImplTest, NormalisationWrapsLikeSigned32BitArithmetic) {
  TimerImpl timer(nullptr, "t", TimeoutTime{INT32_MAX, 999, 1000}, kNoop, nullptr, ONCE);
  expectTimeout(timer.timeout(), INT32_MIN, 0, 0);
}

TEST_F(TimerImplTest, ExpiryIsNowPlusTimeoutOnTheMonotonicClock) {
  TimerImpl timer(nullptr, "t", TimeoutTime{1, 999, 999}, kNoop, nullptr, ONCE);
  const int64_t before = velmora::testing::monotonicNanoseconds();
  ASSERT_EQ(timer.caculateExpiredTime(), 0);
  const int64_t after = velmora::testing::monotonicNanoseconds();
  const int64_t timeout = 1999999000LL;
  const TimerImpl::ExpiredTime expiry = timer.expiredTime();
  EXPECT_GE(nanoseconds(expiry), before + timeout);
  EXPECT_LE(nanoseconds(expiry), after + timeout);
  EXPECT_GE(expiry.nsec, 0);
  EXPECT_LT(expiry.nsec, 1000000000);
}

TEST_F(TimerImplTest, ExpiryCarriesNanosecondsIntoSeconds) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, 999, 999}, kNoop, nullptr, ONCE);
  velmora::testing::freezeClockOnThisThread(timespec{100, 999000000});
  ASSERT_EQ(timer.caculateExpiredTime(), 0);
  velmora::testing::unfreezeClockOnThisThread();
  EXPECT_EQ(timer.expiredTime().sec, 101);
  EXPECT_EQ(timer.expiredTime().nsec, 998999000);
}

TEST_F(TimerImplTest, ClockFailureKeepsTheOldExpiryAndIsLogged) {
  TimerImpl timer(nullptr, "t", TimeoutTime{5, 0, 0}, kNoop, nullptr, ONCE);
  ASSERT_EQ(timer.caculateExpiredTime(), 0);
  const TimerImpl::ExpiredTime old = timer.expiredTime();
  velmora::testing::failClockOnThread(velmora::testing::currentThreadId());
  EXPECT_EQ(timer.caculateExpiredTime(), -1);
  velmora::testing::failClockOnThread(0);
  EXPECT_EQ(timer.expiredTime().sec, old.sec);
  EXPECT_EQ(timer.expiredTime().nsec, old.nsec);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int TimerImpl::caculateExpiredTime()",
                                            "caculateExpiredTime", "Fail to get now time",
                                            "Fail to get now time, errorno(22):'Invalid "
                                            "argument'.\n")));
}

TEST_F(TimerImplTest, ClearExpiredTimeZeroesBothFields) {
  TimerImpl timer(nullptr, "t", TimeoutTime{5, 0, 0}, kNoop, nullptr, ONCE);
  ASSERT_EQ(timer.caculateExpiredTime(), 0);
  timer.clearExpiredTime();
  EXPECT_EQ(timer.expiredTime().sec, 0);
  EXPECT_EQ(timer.expiredTime().nsec, 0);
}

TEST_F(TimerImplTest, NameOnlyConstructorMakesAnInvalidZeroTimer) {
  TimerImpl timer(nullptr, "bare");
  EXPECT_FALSE(timer.propertyValid());
  expectTimeout(timer.timeout(), 0, 0, 0);
  EXPECT_EQ(timer.expiredTime().sec, 0);
  EXPECT_EQ(timer.expiredTime().nsec, 0);
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(TimerImplTest, ContinueWithZeroTimeoutIsInvalidAndLogged) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, 0, 0}, kNoop, nullptr, CONTINUE);
  EXPECT_FALSE(timer.propertyValid());
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("TimerImpl::TimerImpl(Timer* owner, std::string name, "
                                            "const TimeoutTime& timeout",
                                            "TimerImpl", "kLogError", kContinueZero)));
}

TEST_F(TimerImplTest, EmptyHandlerIsInvalidWithoutMessageButStillNormalised) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, 1500, 0}, nullptr, nullptr, ONCE);
  EXPECT_FALSE(timer.propertyValid());
  expectTimeout(timer.timeout(), 1, 500, 0);
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(TimerImplTest, OnceWithZeroTimeoutIsValid) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_TRUE(timer.propertyValid());
}

TEST_F(TimerImplTest, SetPropertyRefusesContinueWithZeroAndInvalidatesWithoutOtherChange) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, 1500, 0}, kNoop, nullptr, ONCE);
  EXPECT_EQ(timer.setProperty(TimeoutTime{0, 0, 0}, kNoop, nullptr, CONTINUE), -1);
  EXPECT_FALSE(timer.propertyValid());
  expectTimeout(timer.timeout(), 1, 500, 0);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int TimerImpl::setProperty(", "setProperty",
                                            "kLogError", kContinueZero)));
  EXPECT_EQ(timer.changeType(CONTINUE), 0) << "the type was not changed by the refusal";
}

TEST_F(TimerImplTest, SetPropertyStoresNormalisesAndValidates) {
  TimerImpl timer(nullptr, "bare");
  int called = 0;
  EXPECT_EQ(timer.setProperty(
                TimeoutTime{0, 0, 3500}, [&](Timer*, void*) { ++called; }, &called, CONTINUE),
            0);
  EXPECT_TRUE(timer.propertyValid());
  expectTimeout(timer.timeout(), 0, 3, 500);
}

TEST_F(TimerImplTest, SetPropertyAcceptsAnEmptyHandler) {
  TimerImpl timer(nullptr, "bare");
  EXPECT_EQ(timer.setProperty(TimeoutTime{1, 0, 0}, nullptr, nullptr, ONCE), 0);
  EXPECT_TRUE(timer.propertyValid());
}

TEST_F(TimerImplTest, ChangeTimeoutRefusesZeroForContinue) {
  TimerImpl timer(nullptr, "t", TimeoutTime{1, 0, 0}, kNoop, nullptr, CONTINUE);
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{0, 0, 0}), -1);
  expectTimeout(timer.timeout(), 1, 0, 0);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int TimerImpl::changeTimeout(", "changeTimeout",
                                            "kLogError", kContinueZero)));
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{0, 1001, 0}), 0);
  expectTimeout(timer.timeout(), 1, 1, 0);
}

TEST_F(TimerImplTest, ChangeTypeRefusesContinueWhileTheTimeoutIsZero) {
  TimerImpl timer(nullptr, "t", TimeoutTime{0, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_EQ(timer.changeType(CONTINUE), -1);
  EXPECT_TRUE(LoggedOnce(
      1000, timerLogLine("int TimerImpl::changeType(", "changeType", "kLogError",
                         "When the timeout is {0, 0, 0}, you cannot change type to CONTINUE.\n")));
  EXPECT_EQ(timer.changeType(ONCE), 0);
  EXPECT_EQ(timer.changeType(static_cast<TimerType_e>(7)), 0) << "only exactly 1 is checked";
}

TEST_F(TimerImplTest, ChangeTimeoutAndTypeLeaveAnInvalidTimerInvalid) {
  TimerImpl timer(nullptr, "bare");
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{1, 0, 0}), 0);
  EXPECT_EQ(timer.changeType(CONTINUE), 0);
  EXPECT_EQ(timer.changeHandler(kNoop, nullptr), 0);
  EXPECT_FALSE(timer.propertyValid());
}

TEST_F(TimerImplTest, StopWithoutHandlerLogsTheHandShakeAndRequestsStop) {
  TimerImpl timer(nullptr, "hs", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_EQ(timer.stop(), 0);
  const std::string anchor = "int TimerImpl::stop()";
  EXPECT_TRUE(
      LoggedOnce(5000, timerLogLine(anchor, "stop", "Will stop", "Will stop timer:'hs'.\n")));
  EXPECT_TRUE(
      LoggedOnce(1, timerLogLine(anchor, "stop", "Before wait", "Before wait timer:'hs' stop.\n")));
  EXPECT_TRUE(
      LoggedOnce(1, timerLogLine(anchor, "stop", "After wait", "After wait timer:'hs' stop.\n")));
  const std::vector<size_t> before = velmora::testing::positionsOf(
      timerLogLine(anchor, "stop", "Before wait", "Before wait timer:'hs' stop.\n"));
  const std::vector<size_t> after = velmora::testing::positionsOf(
      timerLogLine(anchor, "stop", "After wait", "After wait timer:'hs' stop.\n"));
  ASSERT_EQ(before.size(), 1u);
  ASSERT_EQ(after.size(), 1u);
  EXPECT_LT(before[0], after[0]);
}

TEST_F(TimerImplTest, StartComputesTheExpiryInsideItsScopeTrace) {
  TimerImpl timer(nullptr, "t", TimeoutTime{2, 0, 0}, kNoop, nullptr, ONCE);
  const int64_t before = velmora::testing::monotonicNanoseconds();
  EXPECT_EQ(timer.start(), 0);
  EXPECT_GE(nanoseconds(timer.expiredTime()), before + 2000000000LL);
  const std::string anchor = "int TimerImpl::start()";
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceInLine(anchor, "start")));
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceOutLine(anchor, "start")));
}

TEST_F(TimerImplTest, StartFailsWhenTheClockFails) {
  TimerImpl timer(nullptr, "nc", TimeoutTime{2, 0, 0}, kNoop, nullptr, ONCE);
  velmora::testing::failClockOnThread(velmora::testing::currentThreadId());
  EXPECT_EQ(timer.start(), -1);
  velmora::testing::failClockOnThread(0);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int TimerImpl::start()", "start", "Fail to start",
                                            "Fail to start timer:'nc'.\n")));
}

class TimerPropertyTest : public LogCaptureTest {};

TEST_F(TimerPropertyTest, ContinueWithZeroTimeoutCannotStart) {
  Timer timer("cz", TimeoutTime{0, 0, 0}, kNoop, nullptr, CONTINUE);
  EXPECT_EQ(timer.start(), -1);
  EXPECT_FALSE(timer.isStarted());
  EXPECT_TRUE(
      LoggedOnce(1000, timerLogLine("int StartTimer(", "start", "is invalid",
                                    "Property of timer('cz') is invalid, cannot start.\n")));
}

TEST_F(TimerPropertyTest, EmptyHandlerMakesTheTimerInvalidWithoutMessage) {
  Timer timer("empty", TimeoutTime{1, 0, 0}, nullptr, nullptr, ONCE);
  // Only the engine's start-up (traces, its idle wait) is logged: nothing about the timer.
  for (const velmora::testing::LogEntry& entry : LogCapture::entries()) {
    EXPECT_GE(entry.level, 4000) << entry.text;
    EXPECT_EQ(entry.text.find("empty"), std::string::npos) << entry.text;
  }
  EXPECT_EQ(timer.start(), -1);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int StartTimer(", "start", "is invalid",
                                            "Property of timer('empty') is invalid, cannot "
                                            "start.\n")));
}

TEST_F(TimerPropertyTest, EverySetterIsRefusedWhileStarted) {
  Timer timer("busy", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  ASSERT_EQ(timer.start(), 0);
  EXPECT_EQ(timer.setProperty(TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE), -1);
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{1, 0, 0}), -1);
  EXPECT_EQ(timer.changeType(CONTINUE), -1);
  EXPECT_EQ(timer.changeHandler(kNoop, nullptr), -1);
  const std::string message = "Must stop timer before changing its property.\n";
  for (const char* function : {"setProperty", "changeTimeout", "changeType", "changeHandler"}) {
    EXPECT_TRUE(LoggedOnce(1000, timerLogLine(std::string("int Timer::") + function + "(", function,
                                              "_GUARD()", message)));
  }
  EXPECT_TRUE(timer.isStarted());
  EXPECT_EQ(timer.stop(), 0);
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{1, 0, 0}), 0);
}

TEST_F(TimerPropertyTest, ChangeTypeToContinueRefusedOnAStoppedZeroTimer) {
  Timer timer("z", TimeoutTime{0, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_EQ(timer.changeType(CONTINUE), -1);
  EXPECT_TRUE(LoggedOnce(
      1000, timerLogLine("int TimerImpl::changeType(", "changeType", "kLogError",
                         "When the timeout is {0, 0, 0}, you cannot change type to CONTINUE.\n")));
}

TEST_F(TimerPropertyTest, ChangeTimeoutToZeroRefusedOnAStoppedContinueTimer) {
  Timer timer("c", TimeoutTime{1, 0, 0}, kNoop, nullptr, CONTINUE);
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{0, 0, 0}), -1);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int TimerImpl::changeTimeout(", "changeTimeout",
                                            "kLogError", kContinueZero)));
}

TEST_F(TimerPropertyTest, OnlySetPropertyMakesAnInvalidTimerValid) {
  Timer timer("inv", TimeoutTime{0, 0, 0}, kNoop, nullptr, CONTINUE);
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{0, 0, 0}), -1);
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{5, 0, 0}), 0);
  EXPECT_EQ(timer.changeType(ONCE), 0);
  EXPECT_EQ(timer.changeHandler(kNoop, nullptr), 0);
  EXPECT_EQ(timer.start(), -1);
  EXPECT_EQ(LogCapture::count(1000, timerLogLine("int StartTimer(", "start", "is invalid",
                                                 "Property of timer('inv') is invalid, cannot "
                                                 "start.\n")),
            1u);
  EXPECT_EQ(timer.setProperty(TimeoutTime{5, 0, 0}, kNoop, nullptr, ONCE), 0);
  EXPECT_EQ(timer.start(), 0);
  EXPECT_TRUE(timer.isStarted());
}

TEST_F(TimerPropertyTest, NameIsACopyOfTheGivenName) {
  Timer timer("my timer", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_EQ(timer.name(), "my timer");
}

TEST_F(TimerPropertyTest, NeedStopIsFalseUntilAStopIsRequestedAndClearedByStart) {
  Timer timer("ns", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_FALSE(timer.needStop());
  EXPECT_EQ(timer.stopNoBlock(), 0);
  EXPECT_TRUE(timer.needStop());
  EXPECT_EQ(timer.start(), 0);
  EXPECT_FALSE(timer.needStop());
  EXPECT_EQ(timer.stop(), 0);
  EXPECT_TRUE(timer.needStop());
}

TEST_F(TimerPropertyTest, StopOfAStoppedTimerOnlyWaitsAndLogs) {
  Timer timer("idle", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  LogCapture::reset();
  EXPECT_EQ(timer.stop(), 0);
  EXPECT_TRUE(LoggedOnce(
      5000, timerLogLine("int Timer::stop()", "stop", "Stop timer", "Stop timer:'idle'.\n")));
  EXPECT_EQ(LogCapture::countContaining("Will remove timer"), 0u);
  EXPECT_TRUE(LoggedOnce(1, timerLogLine("int TimerImpl::stop()", "stop", "After wait",
                                         "After wait timer:'idle' stop.\n")));
}

TEST_F(TimerPropertyTest, StopNoBlockIsScopeTracedAndLogsThatTheImplementationExists) {
  Timer timer("snb", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  LogCapture::reset();
  EXPECT_EQ(timer.stopNoBlock(), 0);
  const std::string anchor = "int Timer::stopNoBlock()";
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceInLine(anchor, "stopNoBlock")));
  EXPECT_TRUE(LoggedOnce(
      4000, timerLogLine(anchor, "stopNoBlock", "is not NULL", "m_impl is not NULL.\n")));
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceOutLine(anchor, "stopNoBlock")));
  EXPECT_EQ(LogCapture::countContaining("Before wait"), 0u);
}

TEST_F(TimerPropertyTest, DestroyingAStoppedTimerTracesLogsAndWaitsForNoHandler) {
  auto timer = std::make_unique<Timer>("gone", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  LogCapture::reset();
  timer.reset();
  const std::string anchor = "Timer::~Timer()";
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceInLine(anchor, "~Timer")));
  EXPECT_TRUE(
      LoggedOnce(5000, timerLogLine(anchor, "~Timer", "Destroy timer", "Destroy timer:'gone'.\n")));
  EXPECT_TRUE(LoggedOnce(1, timerLogLine("int TimerImpl::stop()", "stop", "After wait",
                                         "After wait timer:'gone' stop.\n")));
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceOutLine(anchor, "~Timer")));
  EXPECT_EQ(LogCapture::countContaining("Will remove timer"), 0u);
}

TEST_F(TimerPropertyTest, DestroyingAStartedTimerRemovesItFromTheEngine) {
  auto timer = std::make_unique<Timer>("gone", TimeoutTime{60, 0, 0}, kNoop, nullptr, ONCE);
  ASSERT_EQ(timer->start(), 0);
  timer.reset();
  EXPECT_TRUE(LoggedOnce(4000, timerLogLine("void RemoveTimer(", "RemoveTimer", "Will remove",
                                            "Will remove timer('gone').\n")));
}

TEST_F(TimerPropertyTest, StartFailsWhenTheClockFails) {
  Timer timer("nc", TimeoutTime{2, 0, 0}, kNoop, nullptr, ONCE);
  velmora::testing::failClockOnThread(velmora::testing::currentThreadId());
  EXPECT_EQ(timer.start(), -1);
  velmora::testing::failClockOnThread(0);
  EXPECT_FALSE(timer.isStarted());
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int StartTimer(", "start", "Fail to start",
                                            "Fail to start timer:'nc'.\n")));
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int TimerImpl::start()", "start", "Fail to start",
                                            "Fail to start timer:'nc'.\n")));
}

TEST_F(TimerPropertyTest, RestartReportsAFailedStart) {
  Timer timer("rs", TimeoutTime{2, 0, 0}, kNoop, nullptr, ONCE);
  velmora::testing::failClockOnThread(velmora::testing::currentThreadId());
  EXPECT_EQ(timer.restart(), -1);
  velmora::testing::failClockOnThread(0);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("int Timer::restart()", "restart", "Fail to start",
                                            "Fail to start timer:'rs'.\n")));
  EXPECT_EQ(LogCapture::countContaining("Fail to stop timer"), 0u);
}

class TimerWithoutImplementationTest : public LogCaptureTest {};

TEST_F(TimerWithoutImplementationTest, EveryOperationRefusesWithItsOwnLine) {
  velmora::testing::failNextNothrowNewOnThisThread();
  Timer timer("none", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  EXPECT_TRUE(LoggedOnce(1000, timerLogLine("Timer::Timer(", "Timer", "Fail to create",
                                            "Fail to create TimerImpl.\n")));
  EXPECT_EQ(timer.start(), -1);
  EXPECT_EQ(timer.stop(), -1);
  EXPECT_EQ(timer.stopNoBlock(), -1);
  EXPECT_EQ(timer.restart(), -1);
  EXPECT_EQ(timer.setProperty(TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE), -1);
  EXPECT_EQ(timer.changeTimeout(TimeoutTime{1, 0, 0}), -1);
  EXPECT_EQ(timer.changeType(ONCE), -1);
  EXPECT_EQ(timer.changeHandler(kNoop, nullptr), -1);
  EXPECT_FALSE(timer.isStarted());
  EXPECT_TRUE(timer.needStop());
  EXPECT_EQ(timer.name(), "");
  const std::string message = "m_impl is NULL.\n";
  for (const char* function :
       {"start", "stop", "stopNoBlock", "restart", "isStarted", "needStop", "name"}) {
    const std::string anchor = std::string(" Timer::") + function + "()";
    EXPECT_TRUE(LoggedOnce(1000, timerLogLine(anchor, function, "m_impl is NULL", message)));
  }
  for (const char* function : {"setProperty", "changeTimeout", "changeType", "changeHandler"}) {
    EXPECT_TRUE(LoggedOnce(1000, timerLogLine(std::string("int Timer::") + function + "(", function,
                                              "_GUARD()", message)));
  }
  EXPECT_EQ(LogCapture::countContaining("m_impl is NULL"), 11u);
}

TEST_F(TimerWithoutImplementationTest, DestructorOnlyTraces) {
  velmora::testing::failNextNothrowNewOnThisThread();
  auto timer = std::make_unique<Timer>("none", TimeoutTime{1, 0, 0}, kNoop, nullptr, ONCE);
  // Let the engine reach its idle wait first, so that its lines do not mix in.
  ASSERT_TRUE(velmora::testing::ppollCalls().waitAtLeast(1));
  LogCapture::reset();
  timer.reset();
  const std::string anchor = "Timer::~Timer()";
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceInLine(anchor, "~Timer")));
  EXPECT_TRUE(LoggedOnce(5000, velmora::testing::traceOutLine(anchor, "~Timer")));
  EXPECT_EQ(LogCapture::entries().size(), 2u);
}

}  // namespace
