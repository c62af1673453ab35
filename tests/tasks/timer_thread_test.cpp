// The timer thread: lazy start, posting and ordering, cancelling, the worker loop's branches,
// waiting, stopping, destruction and thread-creation failure.
#include "base/timer/timer_thread.h"

#include <gtest/gtest.h>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "log_capture.h"
#include "task_interpose.h"
#include "task_support.h"

namespace {

using velmora::base::timer::TimerTaskBase;
using velmora::base::timer::TimerThread;
using velmora::testing::FunctionTask;
using velmora::testing::Latch;
using velmora::testing::LogCapture;
using velmora::testing::Logged;
using velmora::testing::LoggedOnce;
using velmora::testing::monotonicNow;
using velmora::testing::NotLogged;
using velmora::testing::Recorder;

constexpr uint16_t kCritical = 1;
constexpr uint16_t kError = 1000;
constexpr uint16_t kWarning = 3000;
constexpr uint16_t kVerbose = 5000;

std::string line(int number, const char* function, const std::string& message) {
  return "[B-LOG] timer_thread.cpp:" + std::to_string(number) + ":" + function + "(): " + message;
}

std::string trace(int number, const char* function) {
  return std::string("[TRACE] timer_thread.cpp:") + std::to_string(number) + ":" + function + "\n";
}

const char* const kStart = "void velmora::base::timer::TimerThread::start()";
const char* const kStop = "void velmora::base::timer::TimerThread::stop()";

std::shared_ptr<FunctionTask> dueTask(double due, std::function<void()> body) {
  auto task = std::make_shared<FunctionTask>(std::move(body));
  task->setNextFireTime(due);
  return task;
}

// A task that holds the worker until released.
struct Gate {
  Latch started;
  Latch release;
  std::atomic<int> tid{0};
  std::shared_ptr<FunctionTask> task() {
    return dueTask(monotonicNow(), [this] {
      tid.store(velmora::testing::gettid());
      started.countDown();
      release.wait(std::chrono::seconds(30));
    });
  }
  // Posts the gate and waits until the worker is inside it.
  void hold(TimerThread& thread) {
    thread.postTask(task());
    ASSERT_TRUE(started.wait());
  }
};

// Entries whose text starts with prefix.
std::vector<velmora::testing::LogEntry> entriesStartingWith(const std::string& prefix) {
  std::vector<velmora::testing::LogEntry> found;
  for (const auto& entry : LogCapture::entries()) {
    if (entry.text.compare(0, prefix.size(), prefix) == 0) {
      found.push_back(entry);
    }
  }
  return found;
}

class TimerThreadTest : public velmora::testing::LogCaptureTest {};

TEST_F(TimerThreadTest, ConstructionTracesAndStartsNoThread) {
  {
    TimerThread thread;
    EXPECT_TRUE(
        LoggedOnce(kVerbose, trace(16, "velmora::base::timer::TimerThread::TimerThread()")));
    EXPECT_EQ(thread.threadId(), -1);
    EXPECT_FALSE(thread.hasTask());
    EXPECT_EQ(thread.taskCount(), 0);
    EXPECT_FALSE(thread.isBusy());
  }
  EXPECT_TRUE(LoggedOnce(kVerbose, trace(22, "velmora::base::timer::TimerThread::~TimerThread()")));
  EXPECT_TRUE(LoggedOnce(kVerbose, trace(39, kStop)));
  EXPECT_TRUE(LoggedOnce(kVerbose, trace(58, kStop)));
  EXPECT_TRUE(NotLogged(line(49, "stop", "Wakeup worker\n")));
  EXPECT_EQ(LogCapture::countContaining("Starting Timer Thread"), 0u);
  EXPECT_EQ(velmora::testing::pthreadCreateCalls(), 0);
}

TEST_F(TimerThreadTest, FirstPostStartsTheWorkerOnceWithALevelOneLine) {
  TimerThread thread;
  Recorder tids;
  thread.postTask(dueTask(monotonicNow(), [&] { tids.add(velmora::testing::gettid()); }));
  thread.postTask(dueTask(monotonicNow(), [&] { tids.add(velmora::testing::gettid()); }));
  ASSERT_TRUE(tids.waitForSize(2));
  const std::string starting =
      "Starting Timer Thread " + velmora::testing::pointerText(&thread) + ".\n";
  EXPECT_TRUE(LoggedOnce(kCritical, line(96, "postTask", starting)));
  EXPECT_TRUE(LoggedOnce(kVerbose, trace(31, kStart)));
  EXPECT_TRUE(LoggedOnce(kVerbose, trace(34, kStart)));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(274, "run", "Starting Timer Task Thread\n")));
  EXPECT_EQ(velmora::testing::pthreadCreateCalls(), 1);
  EXPECT_EQ(tids.values()[0], tids.values()[1]);
  EXPECT_EQ(thread.threadId(), tids.values()[0]);
  EXPECT_NE(thread.threadId(), velmora::testing::gettid());
}

TEST_F(TimerThreadTest, EmptyTaskIsRefusedWithAnError) {
  TimerThread thread;
  thread.postTask(nullptr);
  EXPECT_TRUE(LoggedOnce(kError, line(72, "postTask", "Invalid Empty task\n")));
  EXPECT_EQ(thread.taskCount(), 0);
  EXPECT_EQ(velmora::testing::pthreadCreateCalls(), 0);
}

TEST_F(TimerThreadTest, TaskWithoutDueTimeIsWarnedSetToNowAndRuns) {
  TimerThread thread;
  Latch ran;
  auto task = std::make_shared<FunctionTask>([&] { ran.countDown(); });
  task->setTaskId(42);
  const double before = monotonicNow();
  thread.postTask(task);
  const double after = monotonicNow();
  ASSERT_TRUE(ran.wait());
  EXPECT_TRUE(LoggedOnce(
      kWarning, line(79, "postTask", "Forgot to set Firing Time?default to now(). task id: 42\n")));
  EXPECT_GE(task->getNextFireTime(), before);
  EXPECT_LE(task->getNextFireTime(), after);
}

TEST_F(TimerThreadTest, EqualDueTimesRunInPostingOrderAndAnEarlierOnePostedLaterRunsFirst) {
  TimerThread thread;
  Gate gate;
  gate.hold(thread);
  Recorder order;
  const double due = monotonicNow() - 1.0;
  for (int id = 1; id <= 3; ++id) {
    thread.postTask(dueTask(due, [&order, id] { order.add(id); }));
  }
  thread.postTask(dueTask(due - 0.5, [&order] { order.add(4); }));
  EXPECT_EQ(thread.taskCount(), 4);
  gate.release.countDown();
  ASSERT_TRUE(order.waitForSize(4));
  EXPECT_EQ(order.values(), (std::vector<int>{4, 1, 2, 3}));
}

TEST_F(TimerThreadTest, DelayIsAddedToNowInMillisecondsAndDelayZeroRunsOnTheNextPass) {
  TimerThread thread;
  Latch ran;
  auto task = std::make_shared<FunctionTask>([&] { ran.countDown(); });
  const double before = monotonicNow();
  thread.postTask(task, 0);
  const double after = monotonicNow();
  ASSERT_TRUE(ran.wait());
  EXPECT_GE(task->getNextFireTime(), before);
  EXPECT_LE(task->getNextFireTime(), after);
  EXPECT_EQ(LogCapture::countContaining("Forgot to set Firing Time"), 0u);
}

TEST_F(TimerThreadTest, DelayKeepsSubSecondPrecisionAndANegativeDelayIsInThePast) {
  TimerThread thread;
  Gate gate;
  gate.hold(thread);
  Latch ran(2);
  auto later = std::make_shared<FunctionTask>([&] { ran.countDown(); });
  auto past = std::make_shared<FunctionTask>([&] { ran.countDown(); });
  const double before = monotonicNow();
  thread.postTask(later, 7);
  thread.postTask(past, -1500);
  const double after = monotonicNow();
  EXPECT_GE(later->getNextFireTime(), before + 0.007);
  EXPECT_LE(later->getNextFireTime(), after + 0.007);
  EXPECT_GE(past->getNextFireTime(), before - 1.5);
  EXPECT_LE(past->getNextFireTime(), after - 1.5);
  gate.release.countDown();
  EXPECT_TRUE(ran.wait());
}

TEST_F(TimerThreadTest, CancelBySessionCancelsEveryMatchLogsEachAndDoesNotWakeTheWorker) {
  TimerThread thread;
  Gate gate;
  gate.hold(thread);
  Recorder order;
  const double due = monotonicNow() + 0.25;
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (int id = 1; id <= 3; ++id) {
    tasks.push_back(dueTask(due, [&order, id] { order.add(id); }));
    tasks.back()->setTaskId(id + 10);
  }
  tasks[0]->setSessionId(77);
  tasks[2]->setSessionId(77);
  tasks[1]->setSessionId(78);
  for (const auto& task : tasks) {
    thread.postTask(task);
  }
  const int signalsBefore = velmora::testing::condSignalsOnThisThread();
  const double before = monotonicNow();
  thread.cancelTaskBySessionId(77);
  const double after = monotonicNow();
  EXPECT_EQ(velmora::testing::condSignalsOnThisThread(), signalsBefore);

  const auto cancelLines =
      entriesStartingWith(line(137, "cancelTaskBySessionId", "CancelTask 77: taskid: "));
  ASSERT_EQ(cancelLines.size(), 2u);
  const int expectedTaskIds[] = {11, 13};
  for (size_t i = 0; i < cancelLines.size(); ++i) {
    EXPECT_EQ(cancelLines[i].level, kVerbose);
    int session = 0;
    int taskId = 0;
    double now = 0;
    double remaining = 0;
    const std::string& text = cancelLines[i].text;
    ASSERT_EQ(
        sscanf(text.c_str() + text.find("CancelTask"),
               "CancelTask %d: taskid: %d,firetime:%lf(%lf)", &session, &taskId, &now, &remaining),
        4);
    EXPECT_EQ(session, 77);
    EXPECT_EQ(taskId, expectedTaskIds[i]);
    EXPECT_GE(now, before - 1e-6);
    EXPECT_LE(now, after + 1e-6);
    EXPECT_NEAR(remaining, due - now, 2e-6);
    EXPECT_EQ(text.back(), '\n');
  }
  EXPECT_TRUE(LoggedOnce(kVerbose, line(143, "cancelTaskBySessionId", "Canceled Task Count: 2\n")));
  EXPECT_EQ(tasks[0]->getNextFireTime(), 0.0);
  EXPECT_EQ(tasks[1]->getNextFireTime(), due);
  EXPECT_EQ(tasks[2]->getNextFireTime(), 0.0);
  EXPECT_EQ(thread.taskCount(), 3);

  gate.release.countDown();
  ASSERT_TRUE(order.waitForSize(1));
  EXPECT_TRUE(LogCapture::waitFor(line(323, "run", "Canceled task\n"), 2));
  EXPECT_EQ(thread.taskCount(), 0);
  EXPECT_EQ(order.values(), std::vector<int>{2});
}

TEST_F(TimerThreadTest, CancelByTaskIdCancelsEveryMatchAndLogsTaskIdAndSession) {
  TimerThread thread;
  Gate gate;
  gate.hold(thread);
  Recorder order;
  const double due = monotonicNow() - 1.0;
  std::vector<std::shared_ptr<FunctionTask>> tasks;
  for (int id = 1; id <= 3; ++id) {
    tasks.push_back(dueTask(due, [&order, id] { order.add(id); }));
    tasks.back()->setSessionId(100 + id);
  }
  tasks[0]->setTaskId(9);
  tasks[1]->setTaskId(9);
  tasks[2]->setTaskId(10);
  for (const auto& task : tasks) {
    thread.postTask(task);
  }
  const int signalsBefore = velmora::testing::condSignalsOnThisThread();
  const double before = monotonicNow();
  thread.cancelTaskByTaskId(9);
  const double after = monotonicNow();
  EXPECT_EQ(velmora::testing::condSignalsOnThisThread(), signalsBefore);

  const auto cancelLines = entriesStartingWith(line(163, "cancelTaskByTaskId", "CancelTask 9,"));
  ASSERT_EQ(cancelLines.size(), 2u);
  for (size_t i = 0; i < cancelLines.size(); ++i) {
    EXPECT_EQ(cancelLines[i].level, kVerbose);
    int taskId = 0;
    int session = 0;
    double now = 0;
    double remaining = 0;
    const std::string& text = cancelLines[i].text;
    ASSERT_EQ(
        sscanf(text.c_str() + text.find("CancelTask"), "CancelTask %d,Session:%d firetime:%lf(%lf)",
               &taskId, &session, &now, &remaining),
        4);
    EXPECT_EQ(taskId, 9);
    EXPECT_EQ(session, 101 + static_cast<int>(i));
    EXPECT_GE(now, before - 1e-6);
    EXPECT_LE(now, after + 1e-6);
    EXPECT_NEAR(remaining, due - now, 2e-6);
  }
  EXPECT_TRUE(LoggedOnce(kVerbose, line(169, "cancelTaskByTaskId", "Canceled Task Count: 2\n")));
  gate.release.countDown();
  ASSERT_TRUE(order.waitForSize(1));
  EXPECT_TRUE(LogCapture::waitFor(line(323, "run", "Canceled task\n"), 2));
  EXPECT_EQ(order.values(), std::vector<int>{3});
}

TEST_F(TimerThreadTest, CancelWithoutMatchCountsZero) {
  TimerThread thread;
  thread.cancelTaskBySessionId(5);
  thread.cancelTaskByTaskId(6);
  EXPECT_TRUE(LoggedOnce(kVerbose, line(143, "cancelTaskBySessionId", "Canceled Task Count: 0\n")));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(169, "cancelTaskByTaskId", "Canceled Task Count: 0\n")));
  EXPECT_EQ(LogCapture::countContaining("CancelTask"), 0u);
}

TEST_F(TimerThreadTest, CancelledTaskNeverRunsAndIsCountedUntilTheWorkerReachesIt) {
  TimerThread thread;
  Gate gate;
  gate.hold(thread);
  std::atomic<int> runs{0};
  auto task = dueTask(monotonicNow() - 1.0, [&] { runs.fetch_add(1); });
  thread.postTask(task);
  thread.cancelTaskBySessionId(task->sessionId());
  EXPECT_EQ(thread.taskCount(), 1);
  EXPECT_TRUE(thread.hasTask());
  gate.release.countDown();
  ASSERT_TRUE(LogCapture::waitFor(line(323, "run", "Canceled task\n")));
  EXPECT_TRUE(Logged(kVerbose, line(222, "getNextFiringInterval", "No Task\n")));
  EXPECT_EQ(thread.taskCount(), 0);
  EXPECT_FALSE(thread.hasTask());
  // Once a later task has run, the worker has released the dropped one.
  Latch sentinel;
  thread.postTask(dueTask(monotonicNow(), [&] { sentinel.countDown(); }));
  ASSERT_TRUE(sentinel.wait());
  EXPECT_EQ(task.use_count(), 1);
  EXPECT_EQ(runs.load(), 0);
}

TEST_F(TimerThreadTest, CancelDoesNotTouchARunningTask) {
  TimerThread thread;
  Latch started;
  Latch release;
  Latch finished;
  const double due = monotonicNow();
  auto running = dueTask(due, [&] {
    started.countDown();
    release.wait();
    finished.countDown();
  });
  running->setTaskId(555);
  thread.postTask(running);
  ASSERT_TRUE(started.wait());
  thread.cancelTaskByTaskId(555);
  thread.cancelTaskBySessionId(running->sessionId());
  EXPECT_TRUE(LoggedOnce(kVerbose, line(169, "cancelTaskByTaskId", "Canceled Task Count: 0\n")));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(143, "cancelTaskBySessionId", "Canceled Task Count: 0\n")));
  EXPECT_EQ(running->getNextFireTime(), due);
  release.countDown();
  EXPECT_TRUE(finished.wait());
}

TEST_F(TimerThreadTest, IdleWorkerWaitsAtMostOneSecondAtATime) {
  TimerThread thread;
  Latch ran;
  thread.postTask(dueTask(monotonicNow(), [&] { ran.countDown(); }));
  ASSERT_TRUE(ran.wait());
  velmora::testing::watchTimedWaits(thread.threadId());
  const auto waits = velmora::testing::waitForTimedWaits(3, std::chrono::seconds(10));
  ASSERT_GE(waits.size(), 3u);
  for (const velmora::testing::TimedWait& wait : waits) {
    EXPECT_LE(wait.interval, 1.0 + 1e-3);
    EXPECT_GT(wait.interval, 0.5);
  }
}

// A step of the wall clock must not stretch a wait: every deadline is on the monotonic clock,
// the clock of the due times, both while the queue is empty and while a task is pending.
TEST_F(TimerThreadTest, WaitsTakeTheirDeadlineOnTheMonotonicClock) {
  TimerThread thread;
  Latch ran;
  thread.postTask(dueTask(monotonicNow(), [&] { ran.countDown(); }));
  ASSERT_TRUE(ran.wait());
  velmora::testing::watchTimedWaits(thread.threadId());
  const auto idle = velmora::testing::waitForTimedWaits(1, std::chrono::seconds(10));
  ASSERT_FALSE(idle.empty());
  Latch pending;
  thread.postTask(dueTask(monotonicNow() + 0.3, [&] { pending.countDown(); }));
  ASSERT_TRUE(pending.wait());
  const auto waits = velmora::testing::waitForTimedWaits(2, std::chrono::seconds(10));
  ASSERT_GE(waits.size(), 2u);
  for (const velmora::testing::TimedWait& wait : waits) {
    EXPECT_EQ(wait.clock, CLOCK_MONOTONIC);
    EXPECT_GT(wait.interval, 0.0);
    EXPECT_LE(wait.interval, 1.0 + 1e-3);
  }
  // The wait for the pending task asked for the time to its due time, not the idle second.
  EXPECT_TRUE(std::any_of(waits.begin() + 1, waits.end(), [](const velmora::testing::TimedWait& w) {
    return w.interval <= 0.3 + 1e-3;
  }));
}

TEST_F(TimerThreadTest, TaskPoppedEarlyIsPutBackAndRunsOnceWhenDue) {
  TimerThread thread;
  Recorder runs;
  std::atomic<double> ranAt{0.0};
  const double due = monotonicNow() + 0.3;
  auto early = dueTask(due, [&] {
    ranAt.store(monotonicNow());
    runs.add(1);
  });
  // Posted from a task on the worker itself, which then shifts its own next monotonic clock
  // read: that is the read of getNextFiringInterval on the next pass, so the task looks due
  // and is popped; the check after the pop reads the true time and puts it back.
  thread.postTask(dueTask(monotonicNow(), [&] {
    thread.postTask(early);
    velmora::testing::shiftNextMonotonicRead(velmora::testing::gettid(), 10.0);
  }));
  ASSERT_TRUE(runs.waitForSize(1));
  Latch sentinel;
  thread.postTask(dueTask(monotonicNow() + 0.05, [&] { sentinel.countDown(); }));
  ASSERT_TRUE(sentinel.wait());
  EXPECT_EQ(runs.values().size(), 1u);
  EXPECT_GE(ranAt.load(), due);
  const auto putBack = entriesStartingWith(line(336, "run", "Put the task back to queue. "));
  ASSERT_EQ(putBack.size(), 1u);
  EXPECT_EQ(putBack[0].level, kWarning);
  double loggedDue = 0;
  double loggedNow = 0;
  const std::string& text = putBack[0].text;
  ASSERT_EQ(sscanf(text.c_str() + text.find("Put"), "Put the task back to queue. %lf - %lf >0 \n",
                   &loggedDue, &loggedNow),
            2);
  char dueText[64];
  snprintf(dueText, sizeof(dueText), "%f", due);
  EXPECT_NE(text.find(std::string("queue. ") + dueText + " - "), std::string::npos);
  EXPECT_LT(loggedNow, loggedDue);
  EXPECT_EQ(text.substr(text.size() - 5), " >0 \n");
}

TEST_F(TimerThreadTest, TaskJustRemovedBranchWaitsASecondAndLogsAwake) {
  TimerThread thread;
  Gate gate;
  gate.hold(thread);
  auto cancelled = dueTask(monotonicNow() - 1.0, [] {});
  thread.postTask(cancelled);
  thread.cancelTaskBySessionId(cancelled->sessionId());
  // The first verbose check on the worker after the gate is the "No Task" line of
  // getNextFiringInterval, made after its lock is released: take the task away right there,
  // so that the worker's pop finds the queue empty.
  const int worker = gate.tid.load();
  std::atomic<bool> stolen{false};
  LogCapture::setAnswer([&](const LogFrame& frame) {
    if (frame.level == kVerbose && velmora::testing::gettid() == worker && !stolen.exchange(true)) {
      thread.popFirstTask();
    }
    return frame.level <= kVerbose ? 1 : 0;
  });
  gate.release.countDown();
  ASSERT_TRUE(LogCapture::waitFor(line(309, "run", "Task Thread awake.\n")));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(222, "getNextFiringInterval", "No Task\n")));
  EXPECT_TRUE(LoggedOnce(kError, line(305, "run", "Task Just Removed?\n")));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(307, "run", "Wait for task: 1.000000 s\n")));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(309, "run", "Task Thread awake.\n")));
  EXPECT_TRUE(NotLogged(line(323, "run", "Canceled task\n")));
  const std::string all = LogCapture::allText();
  EXPECT_LT(all.find("Task Just Removed?"), all.find("Wait for task"));
  EXPECT_LT(all.find("Wait for task"), all.find("Task Thread awake."));
}

TEST_F(TimerThreadTest, NoLockIsHeldWhileATaskRuns) {
  TimerThread thread;
  Latch done(2);
  std::atomic<bool> busyInside{false};
  std::atomic<int> countInside{-1};
  thread.postTask(dueTask(monotonicNow(), [&] {
    busyInside.store(thread.isBusy());
    countInside.store(thread.taskCount());
    thread.cancelTaskByTaskId(12345);
    thread.postTask(dueTask(monotonicNow(), [&] { done.countDown(); }));
    done.countDown();
  }));
  ASSERT_TRUE(done.wait());
  EXPECT_TRUE(busyInside.load());
  EXPECT_EQ(countInside.load(), 0);
}

TEST_F(TimerThreadTest, DestroyingWithPendingTasksRunsNoneReleasesAllAndJoinsTheWorker) {
  static std::atomic<int> destroyed{0};
  static std::atomic<int> runs{0};
  struct Counted : TimerTaskBase {
    ~Counted() override { destroyed.fetch_add(1); }
    void execute() override { runs.fetch_add(1); }
  };
  int worker = 0;
  {
    TimerThread thread;
    Latch warm;
    thread.postTask(dueTask(monotonicNow(), [&] { warm.countDown(); }));
    ASSERT_TRUE(warm.wait());
    worker = thread.threadId();
    for (int i = 0; i < 5; ++i) {
      thread.postTask(std::make_shared<Counted>(), 100000);
    }
    EXPECT_EQ(thread.taskCount(), 5);
    EXPECT_EQ(destroyed.load(), 0);
  }
  EXPECT_EQ(destroyed.load(), 5);
  EXPECT_EQ(runs.load(), 0);
  EXPECT_TRUE(LoggedOnce(kCritical, line(343, "run", "Exiting Timer Thread...\n")));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(49, "stop", "Wakeup worker\n")));
  EXPECT_TRUE(velmora::testing::threadEndsWithin(worker));
}

TEST_F(TimerThreadTest, StopJoinsTheWorkerAndALaterPostStartsANewOne) {
  TimerThread thread;
  Latch first;
  thread.postTask(dueTask(monotonicNow(), [&] { first.countDown(); }));
  ASSERT_TRUE(first.wait());
  const int worker = thread.threadId();
  thread.stop();
  EXPECT_TRUE(velmora::testing::threadEndsWithin(worker));
  EXPECT_TRUE(LoggedOnce(kCritical, line(343, "run", "Exiting Timer Thread...\n")));
  EXPECT_TRUE(LoggedOnce(kVerbose, line(49, "stop", "Wakeup worker\n")));
  // The released thread record stops once more (without a thread) before joining.
  EXPECT_EQ(LogCapture::count(kVerbose, trace(39, kStop)), 2u);
  EXPECT_EQ(LogCapture::count(kVerbose, trace(58, kStop)), 2u);

  Recorder tids;
  thread.postTask(dueTask(monotonicNow(), [&] { tids.add(velmora::testing::gettid()); }));
  ASSERT_TRUE(tids.waitForSize(1));
  EXPECT_EQ(LogCapture::countContaining("Starting Timer Thread"), 2u);
  EXPECT_EQ(velmora::testing::pthreadCreateCalls(), 2);
  EXPECT_EQ(thread.threadId(), tids.values()[0]);
  EXPECT_TRUE(velmora::testing::threadExists(thread.threadId()));
}

TEST_F(TimerThreadTest, StartOnARunningThreadReplacesTheWorkerAndJoinsTheOldOne) {
  TimerThread thread;
  Latch first;
  thread.postTask(dueTask(monotonicNow(), [&] { first.countDown(); }));
  ASSERT_TRUE(first.wait());
  const int replaced = thread.threadId();
  thread.start();
  EXPECT_TRUE(velmora::testing::threadEndsWithin(replaced));
  EXPECT_TRUE(LoggedOnce(kCritical, line(343, "run", "Exiting Timer Thread...\n")));
  Recorder tids;
  thread.postTask(dueTask(monotonicNow(), [&] { tids.add(velmora::testing::gettid()); }));
  ASSERT_TRUE(tids.waitForSize(1));
  EXPECT_NE(tids.values()[0], replaced);
  EXPECT_EQ(thread.threadId(), tids.values()[0]);
  EXPECT_EQ(velmora::testing::pthreadCreateCalls(), 2);
  EXPECT_EQ(LogCapture::count(kVerbose, trace(34, kStart)), 2u);
}

TEST_F(TimerThreadTest, StopKeepsQueuedTasksForTheNextWorker) {
  TimerThread thread;
  Latch warm;
  thread.postTask(dueTask(monotonicNow(), [&] { warm.countDown(); }));
  ASSERT_TRUE(warm.wait());
  thread.stop();
  Latch ran(2);
  auto kept = dueTask(monotonicNow(), [&] { ran.countDown(); });
  EXPECT_EQ(thread.taskCount(), 0);
  thread.postTask(kept);
  thread.postTask(dueTask(monotonicNow(), [&] { ran.countDown(); }));
  EXPECT_TRUE(ran.wait());
}

TEST_F(TimerThreadTest, ThreadCreationFailureThrowsAndLeavesLaterPostsQueuedForever) {
  TimerThread thread;
  velmora::testing::g_pthreadCreateFault.failNext(1);
  auto first = dueTask(0.0, [] {});
  try {
    thread.postTask(first);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Thread initialization failed");
  }
  EXPECT_NE(first->getNextFireTime(), 0.0);
  EXPECT_EQ(thread.taskCount(), 0);
  EXPECT_TRUE(LoggedOnce(kVerbose, trace(31, kStart)));
  EXPECT_TRUE(NotLogged(trace(34, kStart)));

  thread.postTask(dueTask(monotonicNow(), [] {}));
  thread.postTask(dueTask(monotonicNow(), [] {}));
  EXPECT_EQ(thread.taskCount(), 2);
  // No worker exists, none is tried again: the queued tasks cannot run.
  EXPECT_EQ(velmora::testing::pthreadCreateCalls(), 1);
  EXPECT_EQ(LogCapture::countContaining("Starting Timer Thread"), 1u);
  EXPECT_EQ(thread.threadId(), -1);
}

TEST_F(TimerThreadTest, WaitReturnsAtOnceWhenNotRunning) {
  TimerThread thread;
  const auto start = std::chrono::steady_clock::now();
  thread.waitNextTaskWithTimeOut(60.0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_TRUE(
      LoggedOnce(kWarning, line(240, "waitNextTaskWithTimeOut", "Request Exit before wait.\n")));
}

// A thread whose worker could not be created: running, tasks queue up, nothing pops them.
class WorkerlessTimerThreadTest : public TimerThreadTest {
 protected:
  void SetUp() override {
    TimerThreadTest::SetUp();
    velmora::testing::g_pthreadCreateFault.failNext(1);
    EXPECT_THROW(thread_.postTask(dueTask(1.0, [] {})), std::runtime_error);
  }
  // Seconds one wait took.
  double timedWait(double timeout) {
    const auto start = std::chrono::steady_clock::now();
    thread_.waitNextTaskWithTimeOut(timeout);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  TimerThread thread_;
};

TEST_F(WorkerlessTimerThreadTest, WaitReturnsAtOnceForADueOrCancelledFrontTask) {
  auto due = dueTask(monotonicNow() - 0.5, [] {});
  thread_.postTask(due);
  EXPECT_LT(timedWait(60.0), 10.0);
  thread_.cancelTaskBySessionId(due->sessionId());
  EXPECT_LT(timedWait(60.0), 10.0);
  EXPECT_EQ(thread_.popFirstTask(), due);
  EXPECT_TRUE(NotLogged(line(240, "waitNextTaskWithTimeOut", "Request Exit before wait.\n")));
}

TEST_F(WorkerlessTimerThreadTest, WaitUsesTheTimeoutOrTheTimeUntilTheFrontTaskWhicheverIsShorter) {
  EXPECT_LT(timedWait(0.05), 10.0);
  auto far = dueTask(monotonicNow() + 1000.0, [] {});
  thread_.postTask(far);
  EXPECT_LT(timedWait(0.05), 10.0);
  thread_.popFirstTask();
  auto near = dueTask(monotonicNow() + 0.2, [] {});
  thread_.postTask(near);
  EXPECT_LT(timedWait(60.0), 10.0);
}

TEST_F(WorkerlessTimerThreadTest, NextFiringIntervalIsTheTimeToTheFrontTaskOrZero) {
  EXPECT_EQ(thread_.getNextFiringInterval(), 0.0);
  EXPECT_TRUE(LoggedOnce(kVerbose, line(222, "getNextFiringInterval", "No Task\n")));
  auto far = dueTask(monotonicNow() + 100.0, [] {});
  thread_.postTask(far);
  const double interval = thread_.getNextFiringInterval();
  EXPECT_GT(interval, 90.0);
  EXPECT_LE(interval, 100.0);
  thread_.cancelTaskBySessionId(far->sessionId());
  EXPECT_EQ(thread_.getNextFiringInterval(), 0.0);
  EXPECT_EQ(LogCapture::count(kVerbose, line(222, "getNextFiringInterval", "No Task\n")), 2u);
  thread_.popFirstTask();
  thread_.postTask(dueTask(monotonicNow() - 3.0, [] {}));
  EXPECT_LE(thread_.getNextFiringInterval(), -3.0);
}

TEST_F(WorkerlessTimerThreadTest, PopFirstTaskTakesTheFrontAndGivesNothingWhenEmpty) {
  EXPECT_EQ(thread_.popFirstTask(), nullptr);
  auto second = dueTask(20.0, [] {});
  auto first = dueTask(10.0, [] {});
  thread_.postTask(second);
  thread_.postTask(first);
  EXPECT_EQ(thread_.popFirstTask(), first);
  EXPECT_EQ(thread_.popFirstTask(), second);
  EXPECT_EQ(thread_.popFirstTask(), nullptr);
}

}  // namespace
