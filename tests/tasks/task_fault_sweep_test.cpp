// Allocation and thread-creation faults at every point of the timer thread's operations: its
// posts (the first, which starts the worker, later ones, and the post that restarts a stopped
// worker), cancels and stop.
//
// A failed allocation reaches the caller as std::bad_alloc and leaves the object as it was: the
// same post, repeated, works. A thread that cannot be created gives std::runtime_error("Thread
// initialization failed") and the dead state that is kept for it: the thread runs nothing until
// stop().
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/timer/timer_thread.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "task_support.h"

namespace {

using velmora::base::timer::TimerTaskBase;
using velmora::base::timer::TimerThread;
using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::Latch;
using velmora::testing::LogCapture;
using velmora::testing::monotonicNow;
using velmora::testing::sweepFaults;

constexpr uint16_t kVerbose = 5000;
// The posts of a batch: enough to need a new block of the queue.
constexpr int kPosts = 40;
const char kThreadFailure[] = "Thread initialization failed";
const char kStarting[] = "Starting Timer Thread";
const char kStartTrace31[] =
    "[TRACE] timer_thread.cpp:31:void velmora::base::timer::TimerThread::start()\n";
const char kStartTrace34[] =
    "[TRACE] timer_thread.cpp:34:void velmora::base::timer::TimerThread::start()\n";

// The harness's pthread_create looks the real one up on its first call, building a string, and
// an allocation failure there would end the program from inside pthread_create (declared not to
// throw). One thread made before any sweep does that look-up unarmed, in every child too.
class ThreadCreationWarmUp : public ::testing::Environment {
 public:
  void SetUp() override {
    std::thread([] {}).join();
  }
};
::testing::Environment* const kThreadCreationWarmUp =
    ::testing::AddGlobalTestEnvironment(new ThreadCreationWarmUp);

// A task that counts its runs and records its thread; due now unless told otherwise.
class CountedTask : public TimerTaskBase {
 public:
  explicit CountedTask(double due = monotonicNow(), int taskId = 0) {
    setNextFireTime(due);
    taskId_ = taskId;
  }
  void execute() override {
    tid_.store(velmora::testing::gettid());
    runs_.fetch_add(1);
    ran_.countDown();
  }
  bool waitRan() { return ran_.wait(); }
  int runs() const { return runs_.load(); }
  int tid() const { return tid_.load(); }

 private:
  std::atomic<int> runs_{0};
  std::atomic<int> tid_{0};
  Latch ran_;
};

// A task that holds its thread until opened, so that the queue behind it stays as posted.
class GateTask : public TimerTaskBase {
 public:
  GateTask() { setNextFireTime(monotonicNow()); }
  void execute() override {
    tid_.store(velmora::testing::gettid());
    entered_.countDown();
    open_.wait(std::chrono::seconds(30));
  }
  bool waitEntered() { return entered_.wait(); }
  void open() { open_.countDown(); }
  int tid() const { return tid_.load(); }

 private:
  std::atomic<int> tid_{0};
  Latch entered_;
  Latch open_;
};

std::vector<std::shared_ptr<CountedTask>> countedTasks(int count, double due = monotonicNow()) {
  std::vector<std::shared_ptr<CountedTask>> tasks;
  for (int i = 0; i < count; ++i) {
    tasks.push_back(std::make_shared<CountedTask>(due));
  }
  return tasks;
}

// The text of the runtime_error the operation threw armed, empty if none; any other exception
// fails the run.
template <typename Operation>
std::string runtimeErrorOf(FaultRun& run, Operation&& operation) {
  try {
    run.armed(std::forward<Operation>(operation));
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return std::string();
}

// Thread creations the operation attempts, counted with a fault armed that never fires.
long threadCreationsOf(const std::function<void()>& operation) {
  velmora::testing::armFault(FaultKind::kThreadCreation, LONG_MAX);
  operation();
  velmora::testing::disarmFaults();
  return velmora::testing::faultCallsCounted(FaultKind::kThreadCreation);
}

// Starts the worker of thread and waits until it has run a task.
void startWorker(TimerThread& thread) {
  auto first = std::make_shared<CountedTask>();
  thread.postTask(first);
  ASSERT_TRUE(first->waitRan());
}

// The first post of a timer thread: a failure leaves no worker and no task; the repeated post
// starts the worker, once, and the task runs once.
void firstPostScenario(
    FaultRun& run, const std::function<void(TimerThread&, std::shared_ptr<CountedTask>)>& post) {
  LogCapture::reset();
  TimerThread thread;
  auto task = std::make_shared<CountedTask>();
  const bool threw = run.throws<std::bad_alloc>([&] { post(thread, task); });
  EXPECT_EQ(threw, run.injected());
  if (threw) {
    EXPECT_EQ(thread.taskCount(), 0);
    EXPECT_EQ(task.use_count(), 1);
    post(thread, task);
  }
  ASSERT_TRUE(task->waitRan());
  EXPECT_EQ(thread.threadId(), task->tid());
  EXPECT_EQ(LogCapture::countContaining(kStarting), 1u);
  EXPECT_EQ(LogCapture::count(kVerbose, kStartTrace34), 1u);
  thread.stop();
  EXPECT_EQ(task->runs(), 1);
  EXPECT_EQ(thread.taskCount(), 0);
}

TEST(TimerThreadFaultSweep, FirstPostStartsTheWorker) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    firstPostScenario(
        run, [](TimerThread& thread, std::shared_ptr<CountedTask> task) { thread.postTask(task); });
  });
  EXPECT_GT(report.points, 0);
}

TEST(TimerThreadFaultSweep, FirstDelayedPostStartsTheWorker) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    firstPostScenario(run, [](TimerThread& thread, std::shared_ptr<CountedTask> task) {
      thread.postTask(task, 0);
    });
  });
  EXPECT_GT(report.points, 0);
}

// Later posts, while the worker is held: a failed post queues nothing, the ones before it stay
// queued in order, and repeating the failed one completes the queue.
TEST(TimerThreadFaultSweep, LaterPostsWhileTheWorkerRuns) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    TimerThread thread;
    startWorker(thread);
    auto gate = std::make_shared<GateTask>();
    thread.postTask(gate);
    ASSERT_TRUE(gate->waitEntered());
    const auto tasks = countedTasks(kPosts);
    int posted = 0;
    const bool threw = run.throws<std::bad_alloc>([&] {
      for (; posted < kPosts; ++posted) {
        thread.postTask(tasks[static_cast<size_t>(posted)], 0);
      }
    });
    EXPECT_EQ(threw, run.injected());
    EXPECT_EQ(thread.taskCount(), posted);
    for (; posted < kPosts; ++posted) {
      thread.postTask(tasks[static_cast<size_t>(posted)], 0);
    }
    EXPECT_EQ(thread.taskCount(), kPosts);
    gate->open();
    for (const auto& task : tasks) {
      ASSERT_TRUE(task->waitRan());
    }
    thread.stop();
    for (const auto& task : tasks) {
      EXPECT_EQ(task->runs(), 1);
    }
    EXPECT_EQ(LogCapture::countContaining(kStarting), 1u);
  });
  EXPECT_GT(report.points, 0);
}

// The post after stop() starts a new worker; a failure leaves the thread stopped, with nothing
// queued, and the repeated post starts it.
TEST(TimerThreadFaultSweep, PostAfterStopRestartsTheWorker) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    TimerThread thread;
    startWorker(thread);
    thread.stop();
    auto task = std::make_shared<CountedTask>();
    const bool threw = run.throws<std::bad_alloc>([&] { thread.postTask(task); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_EQ(thread.taskCount(), 0);
      thread.postTask(task);
    }
    ASSERT_TRUE(task->waitRan());
    EXPECT_EQ(thread.threadId(), task->tid());
    EXPECT_EQ(LogCapture::countContaining(kStarting), 2u);
    thread.stop();
    EXPECT_EQ(task->runs(), 1);
  });
  EXPECT_GT(report.points, 0);
}

TEST(TimerThreadFaultSweep, CancelsAndStopDoNotAllocate) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    TimerThread thread;
    startWorker(thread);
    auto bySession = std::make_shared<CountedTask>(monotonicNow() + 1000.0, 1);
    auto byId = std::make_shared<CountedTask>(monotonicNow() + 1000.0, 2);
    auto untouched = std::make_shared<CountedTask>(monotonicNow() + 1000.0, 3);
    thread.postTask(bySession);
    thread.postTask(byId);
    thread.postTask(untouched);
    const int worker = thread.threadId();
    run.armed([&] {
      thread.cancelTaskBySessionId(bySession->sessionId());
      thread.cancelTaskByTaskId(byId->taskId());
      thread.stop();
    });
    EXPECT_EQ(bySession->getNextFireTime(), 0.0);
    EXPECT_EQ(byId->getNextFireTime(), 0.0);
    EXPECT_NE(untouched->getNextFireTime(), 0.0);
    EXPECT_TRUE(velmora::testing::threadEndsWithin(worker));
    EXPECT_EQ(thread.taskCount(), 3);
  });
  EXPECT_EQ(report.points, 0);
}

// The kept dead state: the post throws before queueing its task, later posts only queue theirs
// and try no thread; stop() clears it, and the next post starts the worker.
void deadThreadScenario(FaultRun& run, bool restart) {
  LogCapture::reset();
  TimerThread thread;
  if (restart) {
    startWorker(thread);
    thread.stop();
  }
  const size_t startsBefore = LogCapture::countContaining(kStarting);
  auto task = std::make_shared<CountedTask>();
  const std::string error = runtimeErrorOf(run, [&] { thread.postTask(task); });
  EXPECT_EQ(!error.empty(), run.injected());
  if (!error.empty()) {
    EXPECT_EQ(error, kThreadFailure);
    EXPECT_EQ(thread.taskCount(), 0);
    EXPECT_EQ(LogCapture::count(kVerbose, kStartTrace31), startsBefore + 1);
    EXPECT_EQ(LogCapture::count(kVerbose, kStartTrace34), startsBefore);
    EXPECT_EQ(threadCreationsOf([&] { thread.postTask(task); }), 0);
    EXPECT_EQ(thread.taskCount(), 1);
    EXPECT_EQ(LogCapture::countContaining(kStarting), startsBefore + 1);
    thread.stop();
    auto after = std::make_shared<CountedTask>();
    thread.postTask(after);
    ASSERT_TRUE(after->waitRan());
  }
  ASSERT_TRUE(task->waitRan());
  thread.stop();
  EXPECT_EQ(task->runs(), 1);
}

TEST(TimerThreadFaultSweep, FirstPostWithoutAThread) {
  const auto report = sweepFaults(FaultKind::kThreadCreation,
                                  [](FaultRun& run) { deadThreadScenario(run, false); });
  EXPECT_EQ(report.points, 1);
}

TEST(TimerThreadFaultSweep, PostAfterStopWithoutAThread) {
  const auto report =
      sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) { deadThreadScenario(run, true); });
  EXPECT_EQ(report.points, 1);
}

}  // namespace
