// Allocation and thread-creation faults at every point of the task-scheduling operations: timer
// thread posts (the first, which starts the worker, later ones, and the post that restarts a
// stopped worker), cancels and stop; the pool's first use, each role's first and later posts and
// each worker's creation; Runnable's operations and the owner's thread that runs it.
//
// A failed allocation reaches the caller as std::bad_alloc and leaves the object as it was: the
// same post, repeated, works. A thread that cannot be created gives std::runtime_error("Thread
// initialization failed") and the dead state that is kept for it: the thread (or role, or
// worker) never runs anything, until stop() for a timer thread of one's own.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "base/threading/runnable.h"
#include "base/timer/timer_thread.h"
#include "base/timer/timer_thread_pool.h"
#include "fault_injection.h"
#include "log_capture.h"
#include "task_support.h"

namespace {

using velmora::base::timer::TimerTaskBase;
using velmora::base::timer::TimerThread;
using velmora::base::timer::TimerThreadPool;
using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::Latch;
using velmora::testing::LogCapture;
using velmora::testing::monotonicNow;
using velmora::testing::sweepFaults;

constexpr uint16_t kCritical = 1;
constexpr uint16_t kVerbose = 5000;
// The posts of a batch: enough to need a new block of the queue.
constexpr int kPosts = 40;
const char kThreadFailure[] = "Thread initialization failed";
const char kStarting[] = "Starting Timer Thread";
const char kStartTrace31[] =
    "[TRACE] timer_thread.cpp:31:void velmora::base::timer::TimerThread::start()\n";
const char kStartTrace34[] =
    "[TRACE] timer_thread.cpp:34:void velmora::base::timer::TimerThread::start()\n";

std::string workerCreated(int index) {
  return "[B-LOG] timer_thread_pool.cpp:158:postWorkerTask(): Crate Worker Thread: " +
         std::to_string(index) + "\n";
}

// Timer-thread workers started and not ended, by their level-1 lines.
size_t liveWorkerThreads() {
  return LogCapture::countContaining(kStarting) -
         LogCapture::count(kCritical,
                           "[B-LOG] timer_thread.cpp:343:run(): Exiting Timer Thread...\n");
}

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
    // The untouched task is in front, so that the worker drops no cancelled task meanwhile.
    auto untouched = std::make_shared<CountedTask>(monotonicNow() + 500.0, 3);
    auto bySession = std::make_shared<CountedTask>(monotonicNow() + 1000.0, 1);
    auto byId = std::make_shared<CountedTask>(monotonicNow() + 1000.0, 2);
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

// The pool's roles, for the sweeps that go through each of them.
enum class Role { kMain, kForeground, kBackground };

void postTo(Role role, std::shared_ptr<TimerTaskBase> task) {
  switch (role) {
    case Role::kMain:
      TimerThreadPool::postMainThreadTask(std::move(task));
      break;
    case Role::kForeground:
      TimerThreadPool::postForegroundTask(std::move(task));
      break;
    case Role::kBackground:
      TimerThreadPool::postBackgroundTask(std::move(task));
      break;
  }
}

bool isRoleThread(Role role) {
  switch (role) {
    case Role::kMain:
      return TimerThreadPool::isMainThread();
    case Role::kForeground:
      return TimerThreadPool::isForegroundThread();
    case Role::kBackground:
      return TimerThreadPool::isBackgroundThread();
  }
  return false;
}

// A task that records whether it ran on the thread of its role.
class RoleTask : public CountedTask {
 public:
  explicit RoleTask(Role role) : role_(role) {}
  void execute() override {
    onRole_.store(isRoleThread(role_));
    CountedTask::execute();
  }
  bool ranOnRole() const { return onRole_.load(); }

 private:
  Role role_;
  std::atomic<bool> onRole_{false};
};

// The first post to a role starts its thread; a failure leaves the role without thread or task,
// and the repeated post starts it.
void sweepFirstRolePost(Role role) {
  const auto report = sweepFaults(FaultKind::kAllocation, [role](FaultRun& run) {
    LogCapture::reset();
    TimerThreadPool::GetInstance();
    auto task = std::make_shared<RoleTask>(role);
    const bool threw = run.throws<std::bad_alloc>([&] { postTo(role, task); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_EQ(task.use_count(), 1);
      postTo(role, task);
    }
    ASSERT_TRUE(task->waitRan());
    EXPECT_TRUE(task->ranOnRole());
    EXPECT_EQ(task->runs(), 1);
    EXPECT_EQ(LogCapture::countContaining(kStarting), 1u);
  });
  EXPECT_GT(report.points, 0);
}

TEST(TimerThreadPoolFaultSweep, FirstMainThreadPost) {
  sweepFirstRolePost(Role::kMain);
}

TEST(TimerThreadPoolFaultSweep, FirstForegroundPost) {
  sweepFirstRolePost(Role::kForeground);
}

TEST(TimerThreadPoolFaultSweep, FirstBackgroundPost) {
  sweepFirstRolePost(Role::kBackground);
}

// Later posts to a started role, its thread held: each task is queued once or, after a failure,
// by the repeated post; all run once.
TEST(TimerThreadPoolFaultSweep, LaterRolePosts) {
  for (Role role : {Role::kMain, Role::kForeground, Role::kBackground}) {
    const auto report = sweepFaults(FaultKind::kAllocation, [role](FaultRun& run) {
      auto gate = std::make_shared<GateTask>();
      postTo(role, gate);
      ASSERT_TRUE(gate->waitEntered());
      const auto tasks = countedTasks(kPosts);
      int posted = 0;
      const bool threw = run.throws<std::bad_alloc>([&] {
        for (; posted < kPosts; ++posted) {
          postTo(role, tasks[static_cast<size_t>(posted)]);
        }
      });
      EXPECT_EQ(threw, run.injected());
      for (; posted < kPosts; ++posted) {
        postTo(role, tasks[static_cast<size_t>(posted)]);
      }
      gate->open();
      for (const auto& task : tasks) {
        ASSERT_TRUE(task->waitRan());
        EXPECT_EQ(task->tid(), gate->tid());
      }
      for (const auto& task : tasks) {
        EXPECT_EQ(task->runs(), 1);
      }
    });
    EXPECT_GT(report.points, 0);
  }
}

// The pool's first use builds it; a failure there is the singleton's named outcome: the
// exception reaches the caller and the instance word keeps its creation marker, on which every
// later caller waits.
TEST(TimerThreadPoolFaultSweep, FirstUseBuildsThePool) {
  using PoolSingleton = velmora::base::Singleton<
      TimerThreadPool, velmora::base::DefaultSingletonTraits<TimerThreadPool>, TimerThreadPool>;
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    TimerThreadPool* pool = nullptr;
    const bool threw = run.throws<std::bad_alloc>([&] { pool = TimerThreadPool::GetInstance(); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_EQ(PoolSingleton::instance_, velmora::base::internal::kSingletonBeingCreated);
    } else {
      EXPECT_EQ(PoolSingleton::instance_, reinterpret_cast<intptr_t>(pool));
    }
  });
  EXPECT_GT(report.points, 0);
}

TEST(TimerThreadPoolFaultSweep, InitAndRoleQueriesDoNotAllocate) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    TimerThreadPool::GetInstance();
    bool any = true;
    run.armed([&] {
      TimerThreadPool::init(3);
      any = TimerThreadPool::isMainThread() || TimerThreadPool::isForegroundThread() ||
            TimerThreadPool::isBackgroundThread();
    });
    EXPECT_FALSE(any);
  });
  EXPECT_EQ(report.points, 0);
}

// Posts the task after a failed post meant to create worker index: the pool has no such worker
// (the failure took it out again), so this post creates it.
void expectPostCreatesWorker(int index, const std::shared_ptr<TimerTaskBase>& task) {
  const size_t before = LogCapture::count(kCritical, workerCreated(index));
  TimerThreadPool::postWorkerTask(task);
  EXPECT_EQ(LogCapture::count(kCritical, workerCreated(index)), before + 1);
}

// Worker posts: the first creates worker 0; with worker 0 busy and a task queued behind, the
// next creates worker 1; with both loaded, the next goes to the least loaded. A failure leaves
// the workers as they were (no worker is added), and the repeated post does what the failed one
// would have done.
TEST(TimerThreadPoolFaultSweep, FirstWorkerPostCreatesWorkerZero) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    TimerThreadPool::GetInstance();
    auto task = std::make_shared<CountedTask>();
    const bool threw = run.throws<std::bad_alloc>([&] { TimerThreadPool::postWorkerTask(task); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_EQ(task.use_count(), 1);
      expectPostCreatesWorker(0, task);
    }
    ASSERT_TRUE(task->waitRan());
    EXPECT_EQ(task->runs(), 1);
    EXPECT_GE(LogCapture::count(kCritical, workerCreated(0)), 1u);
    EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread: 1"), 0u);
    // A failure after the worker's thread started removed the worker again: its thread ended.
    EXPECT_EQ(liveWorkerThreads(), 1u);
  });
  EXPECT_GT(report.points, 0);
}

TEST(TimerThreadPoolFaultSweep, WorkerPostCreatesWorkerOne) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    auto gate = std::make_shared<GateTask>();
    TimerThreadPool::postWorkerTask(gate);
    ASSERT_TRUE(gate->waitEntered());
    auto queued = std::make_shared<CountedTask>();
    TimerThreadPool::postWorkerTask(queued);
    auto task = std::make_shared<CountedTask>();
    const bool threw = run.throws<std::bad_alloc>([&] { TimerThreadPool::postWorkerTask(task); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_EQ(task.use_count(), 1);
      expectPostCreatesWorker(1, task);
    }
    ASSERT_TRUE(task->waitRan());
    EXPECT_NE(task->tid(), gate->tid());
    EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread: 2"), 0u);
    EXPECT_EQ(liveWorkerThreads(), 2u);
    gate->open();
    ASSERT_TRUE(queued->waitRan());
    EXPECT_EQ(queued->tid(), gate->tid());
    EXPECT_EQ(task->runs(), 1);
  });
  EXPECT_GT(report.points, 0);
}

TEST(TimerThreadPoolFaultSweep, WorkerPostsToTheLeastLoaded) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    auto first = std::make_shared<GateTask>();
    TimerThreadPool::postWorkerTask(first);
    ASSERT_TRUE(first->waitEntered());
    auto behindFirst = std::make_shared<CountedTask>();
    TimerThreadPool::postWorkerTask(behindFirst);
    auto second = std::make_shared<GateTask>();
    TimerThreadPool::postWorkerTask(second);
    ASSERT_TRUE(second->waitEntered());
    const auto tasks = countedTasks(kPosts);
    int posted = 0;
    const bool threw = run.throws<std::bad_alloc>([&] {
      for (; posted < kPosts; ++posted) {
        TimerThreadPool::postWorkerTask(tasks[static_cast<size_t>(posted)]);
      }
    });
    EXPECT_EQ(threw, run.injected());
    for (; posted < kPosts; ++posted) {
      TimerThreadPool::postWorkerTask(tasks[static_cast<size_t>(posted)]);
    }
    first->open();
    second->open();
    int onFirst = 0;
    for (const auto& task : tasks) {
      ASSERT_TRUE(task->waitRan());
      EXPECT_EQ(task->runs(), 1);
      onFirst += task->tid() == first->tid() ? 1 : 0;
    }
    // Worker 1, with an empty queue, counts as idle and takes the first; the loads are then
    // equal, and the rest alternate from worker 0 (the lower index wins ties).
    EXPECT_EQ(onFirst, kPosts / 2);
    EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 2u);
  });
  EXPECT_GT(report.points, 0);
}

// Each role's thread that cannot be created: the first post throws, the role is dead for good
// (the pool never stops its threads): later posts try no thread and nothing runs on the role.
TEST(TimerThreadPoolFaultSweep, EachRoleWithoutAThread) {
  for (Role role : {Role::kMain, Role::kForeground, Role::kBackground}) {
    const auto report = sweepFaults(FaultKind::kThreadCreation, [role](FaultRun& run) {
      LogCapture::reset();
      TimerThreadPool::GetInstance();
      auto task = std::make_shared<RoleTask>(role);
      const std::string error = runtimeErrorOf(run, [&] { postTo(role, task); });
      EXPECT_EQ(!error.empty(), run.injected());
      if (!error.empty()) {
        EXPECT_EQ(error, kThreadFailure);
        EXPECT_EQ(threadCreationsOf([&] { postTo(role, task); }), 0);
        EXPECT_EQ(LogCapture::countContaining(kStarting), 1u);
        EXPECT_EQ(LogCapture::count(kVerbose, kStartTrace34), 0u);
        EXPECT_FALSE(isRoleThread(role));
        return;
      }
      ASSERT_TRUE(task->waitRan());
      EXPECT_TRUE(task->ranOnRole());
    });
    EXPECT_EQ(report.points, 1);
  }
}

// Each worker's thread that cannot be created: the post throws and the worker stays without a
// thread. With an empty queue it counts as idle and takes the next task, which never runs; the
// task after that (the dead worker now has a task) creates the next worker, which runs it.
TEST(TimerThreadPoolFaultSweep, EachWorkerWithoutAThread) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) {
    LogCapture::reset();
    TimerThreadPool::init(3);
    auto gate = std::make_shared<GateTask>();
    auto behindGate = std::make_shared<CountedTask>();
    auto onWorkerOne = std::make_shared<CountedTask>();
    int step = 0;
    const std::string error = runtimeErrorOf(run, [&] {
      TimerThreadPool::postWorkerTask(gate);
      ++step;
      ASSERT_TRUE(gate->waitEntered());
      TimerThreadPool::postWorkerTask(behindGate);
      ++step;
      TimerThreadPool::postWorkerTask(onWorkerOne);
      ++step;
    });
    EXPECT_EQ(!error.empty(), run.injected());
    if (error.empty()) {
      gate->open();
      ASSERT_TRUE(onWorkerOne->waitRan());
      ASSERT_TRUE(behindGate->waitRan());
      EXPECT_NE(onWorkerOne->tid(), gate->tid());
      return;
    }
    EXPECT_EQ(error, kThreadFailure);
    const int dead = run.nth() == 1 ? 0 : 1;
    EXPECT_EQ(step, dead == 0 ? 0 : 2);
    EXPECT_EQ(LogCapture::count(kCritical, workerCreated(dead)), 1u);
    auto lost = std::make_shared<CountedTask>();
    EXPECT_EQ(threadCreationsOf([&] { TimerThreadPool::postWorkerTask(lost); }), 0);
    EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), static_cast<size_t>(dead + 1));
    auto next = std::make_shared<CountedTask>();
    TimerThreadPool::postWorkerTask(next);
    EXPECT_EQ(LogCapture::count(kCritical, workerCreated(dead + 1)), 1u);
    gate->open();
    ASSERT_TRUE(next->waitRan());
    EXPECT_EQ(lost->runs(), 0);
    EXPECT_EQ(lost.use_count(), 2);
  });
  EXPECT_EQ(report.points, 2);
}

// A body that stops itself after its first cycle.
class OneCycle : public velmora::base::Threading::Runnable {
 public:
  OneCycle() : Runnable(0) {}
  void runOnce() override {
    cycles_.fetch_add(1);
    stop();
  }
  int cycles() const { return cycles_.load(); }

 private:
  std::atomic<int> cycles_{0};
};

// Construction, pause, running, resume, a cycle and stop, and destruction allocate nothing.
TEST(RunnableFaultSweep, EveryOperationIsFreeOfAllocation) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    std::optional<OneCycle> body;
    bool runningWhilePaused = true;
    bool runningAfterStop = true;
    int cycles = 0;
    run.armed([&] {
      body.emplace();
      body->pause();
      runningWhilePaused = body->running();
      body->resume();
      body->run();
      runningAfterStop = body->running();
      cycles = body->cycles();
      body.reset();
    });
    EXPECT_FALSE(runningWhilePaused);
    EXPECT_FALSE(runningAfterStop);
    EXPECT_EQ(cycles, 1);
  });
  EXPECT_EQ(report.points, 0);
}

// The owner's thread that would run the body cannot be created: std::thread throws, the body is
// untouched, and a thread made later runs it.
TEST(RunnableFaultSweep, TheOwnersThreadWithoutAThread) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) {
    OneCycle body;
    std::thread owner;
    const bool threw =
        run.throws<std::system_error>([&] { owner = std::thread([&body] { body.run(); }); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_FALSE(owner.joinable());
      EXPECT_TRUE(body.running());
      EXPECT_EQ(body.cycles(), 0);
      owner = std::thread([&body] { body.run(); });
    }
    owner.join();
    EXPECT_EQ(body.cycles(), 1);
  });
  EXPECT_EQ(report.points, 1);
}

}  // namespace
