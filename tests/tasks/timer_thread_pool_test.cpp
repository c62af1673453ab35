// The thread pool: the singleton accessors, the named threads and their identity checks, and the
// worker choice step by step.
#include "base/timer/timer_thread_pool.h"

#include <gtest/gtest.h>

#include <errno.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "task_interpose.h"
#include "task_support.h"

namespace {

using velmora::base::timer::TimerThreadPool;
using velmora::testing::FunctionTask;
using velmora::testing::Latch;
using velmora::testing::LogCapture;
using velmora::testing::LoggedOnce;
using velmora::testing::monotonicNow;
using velmora::testing::NotLogged;

constexpr uint16_t kCritical = 1;
constexpr uint16_t kError = 1000;
constexpr uint16_t kInfo = 4000;
constexpr uint16_t kVerbose = 5000;

std::string line(int number, const std::string& message) {
  return "[B-LOG] timer_thread_pool.cpp:" + std::to_string(number) +
         ":postWorkerTask(): " + message;
}

// A worker task that records its thread, reports its start and waits for the common release.
class HeldTask : public FunctionTask {
 public:
  explicit HeldTask(Latch& release)
      : FunctionTask([this, &release] {
          tid_.store(velmora::testing::gettid());
          started_.countDown();
          release.wait(std::chrono::seconds(30));
          finished_.countDown();
        }) {
    setNextFireTime(monotonicNow());
  }
  bool waitStarted() { return started_.wait(); }
  bool waitFinished() { return finished_.wait(); }
  int tid() const { return tid_.load(); }

 private:
  std::atomic<int> tid_{0};
  Latch started_;
  Latch finished_;
};

class TimerThreadPoolTest : public velmora::testing::LogCaptureTest {
 protected:
  std::shared_ptr<HeldTask> held() {
    auto task = std::make_shared<HeldTask>(release_);
    tasks_.push_back(task);
    return task;
  }
  // Lets every held task finish before the test's objects go away.
  void TearDown() override {
    release_.countDown();
    for (const auto& task : tasks_) {
      EXPECT_TRUE(task->waitFinished());
    }
  }
  Latch release_;
  std::vector<std::shared_ptr<HeldTask>> tasks_;
};

TEST_F(TimerThreadPoolTest, BothAccessorsReturnTheOneInstanceKeptInTheSingletonWord) {
  TimerThreadPool* pool = TimerThreadPool::GetInstance();
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(TimerThreadPool::getInstance(), pool);
  using PoolSingleton = velmora::base::Singleton<
      TimerThreadPool, velmora::base::DefaultSingletonTraits<TimerThreadPool>, TimerThreadPool>;
  EXPECT_EQ(PoolSingleton::instance_, reinterpret_cast<intptr_t>(pool));
}

TEST_F(TimerThreadPoolTest, WorkersAreChosenIdleFirstThenNewThenLeastLoaded) {
  auto a = held();
  TimerThreadPool::postWorkerTask(a);
  ASSERT_TRUE(a->waitStarted());
  EXPECT_TRUE(LoggedOnce(kCritical, line(158, "Crate Worker Thread: 0\n")));
  EXPECT_TRUE(LoggedOnce(
      kVerbose, "[TRACE -> postWorkerTask(IN)] timer_thread_pool.cpp:142:postWorkerTask() \n"));
  EXPECT_TRUE(LoggedOnce(
      kVerbose, "[TRACE <- postWorkerTask(OUT)] timer_thread_pool.cpp:142:postWorkerTask() \n"));

  // Worker 0 runs A with an empty queue: it counts as idle and takes B.
  auto b = held();
  TimerThreadPool::postWorkerTask(b);
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 1u);
  EXPECT_EQ(LogCapture::countContaining("Worker Count"), 0u);

  // Worker 0 has B queued: worker 1 is created and runs C.
  auto c = held();
  TimerThreadPool::postWorkerTask(c);
  ASSERT_TRUE(c->waitStarted());
  EXPECT_TRUE(LoggedOnce(kCritical, line(158, "Crate Worker Thread: 1\n")));
  EXPECT_NE(c->tid(), a->tid());

  // Worker 1 runs C with an empty queue: idle, takes D.
  auto d = held();
  TimerThreadPool::postWorkerTask(d);
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 2u);
  EXPECT_EQ(LogCapture::countContaining("Worker Count"), 0u);

  // Both have one queued task and are busy: load 2 each, the lowest index wins.
  auto e = held();
  TimerThreadPool::postWorkerTask(e);
  EXPECT_TRUE(LoggedOnce(kInfo, line(166, "Worker Count: 2\n")));
  EXPECT_TRUE(LoggedOnce(kInfo, line(185, "Post To Worker 0 : taskcount: 2\n")));

  // Loads 3 and 2: worker 1.
  auto f = held();
  TimerThreadPool::postWorkerTask(f);
  EXPECT_TRUE(LoggedOnce(kInfo, line(185, "Post To Worker 1 : taskcount: 2\n")));

  // Loads 3 and 3: worker 0 again.
  auto g = held();
  TimerThreadPool::postWorkerTask(g);
  EXPECT_TRUE(LoggedOnce(kInfo, line(185, "Post To Worker 0 : taskcount: 3\n")));
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 2u);
  EXPECT_EQ(LogCapture::count(kVerbose,
                              "[TRACE <- postWorkerTask(OUT)] timer_thread_pool.cpp:142:"
                              "postWorkerTask() \n"),
            7u);

  release_.countDown();
  for (const auto& task : tasks_) {
    ASSERT_TRUE(task->waitFinished());
  }
  EXPECT_EQ(b->tid(), a->tid());
  EXPECT_EQ(e->tid(), a->tid());
  EXPECT_EQ(g->tid(), a->tid());
  EXPECT_EQ(d->tid(), c->tid());
  EXPECT_EQ(f->tid(), c->tid());
}

TEST_F(TimerThreadPoolTest, AWorkerThatFinishedItsTasksIsReusedBeforeANewOneIsCreated) {
  Latch ran;
  auto first = std::make_shared<FunctionTask>([&] { ran.countDown(); });
  first->setNextFireTime(monotonicNow());
  TimerThreadPool::postWorkerTask(first);
  ASSERT_TRUE(ran.wait());
  Latch ranAgain;
  auto second = std::make_shared<FunctionTask>([&] { ranAgain.countDown(); });
  second->setNextFireTime(monotonicNow());
  TimerThreadPool::postWorkerTask(second);
  ASSERT_TRUE(ranAgain.wait());
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 1u);
}

TEST_F(TimerThreadPoolTest, ZeroWorkerLimitDropsTheTaskWithAnError) {
  TimerThreadPool::init(0);
  std::atomic<int> runs{0};
  auto task = std::make_shared<FunctionTask>([&] { runs.fetch_add(1); });
  task->setNextFireTime(monotonicNow());
  TimerThreadPool::postWorkerTask(task);
  EXPECT_TRUE(LoggedOnce(kInfo, line(166, "Worker Count: 0\n")));
  EXPECT_TRUE(LoggedOnce(kError, line(168, "No worker threads available. ignore task.\n")));
  // Nothing kept the task: it can never run.
  EXPECT_EQ(task.use_count(), 1);
  EXPECT_EQ(runs.load(), 0);
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 0u);
  EXPECT_EQ(velmora::testing::pthreadCreateCalls(), 0);
}

TEST_F(TimerThreadPoolTest, NegativeWorkerLimitDropsTheTaskWithAnError) {
  TimerThreadPool::init(-3);
  auto task = std::make_shared<FunctionTask>();
  TimerThreadPool::postWorkerTask(task);
  EXPECT_TRUE(LoggedOnce(kError, line(168, "No worker threads available. ignore task.\n")));
  EXPECT_EQ(task.use_count(), 1);
}

TEST_F(TimerThreadPoolTest, LoweringTheLimitStopsGrowthButKeepsExistingWorkers) {
  TimerThreadPool::init(1);
  auto a = held();
  TimerThreadPool::postWorkerTask(a);
  ASSERT_TRUE(a->waitStarted());
  auto b = held();
  TimerThreadPool::postWorkerTask(b);
  auto c = held();
  TimerThreadPool::postWorkerTask(c);
  EXPECT_TRUE(LoggedOnce(kInfo, line(166, "Worker Count: 1\n")));
  EXPECT_TRUE(LoggedOnce(kInfo, line(185, "Post To Worker 0 : taskcount: 2\n")));
  TimerThreadPool::init(0);
  auto d = held();
  TimerThreadPool::postWorkerTask(d);
  EXPECT_TRUE(LoggedOnce(kInfo, line(185, "Post To Worker 0 : taskcount: 3\n")));
  EXPECT_TRUE(NotLogged(line(168, "No worker threads available. ignore task.\n")));
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 1u);
}

TEST_F(TimerThreadPoolTest, ThreadCreationFailureOfAWorkerPassesThroughAndKeepsTheWorker) {
  velmora::testing::g_pthreadCreateFault.failNext(1);
  auto lost = std::make_shared<FunctionTask>();
  try {
    TimerThreadPool::postWorkerTask(lost);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Thread initialization failed");
  }
  EXPECT_TRUE(LoggedOnce(kCritical, line(158, "Crate Worker Thread: 0\n")));
  // The pool mutex was released; worker 0 stays, is idle (empty queue) and takes the next task,
  // which it never runs; the task after that makes worker 1.
  auto stuck = std::make_shared<FunctionTask>();
  TimerThreadPool::postWorkerTask(stuck);
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 1u);
  Latch ran;
  auto next = std::make_shared<FunctionTask>([&] { ran.countDown(); });
  TimerThreadPool::postWorkerTask(next);
  EXPECT_TRUE(LoggedOnce(kCritical, line(158, "Crate Worker Thread: 1\n")));
  EXPECT_TRUE(ran.wait());
  EXPECT_EQ(stuck.use_count(), 2);
}

TEST_F(TimerThreadPoolTest, IsMainThreadIsFalseBeforeTheMainThreadRunsAndTrueInsideItsTask) {
  EXPECT_FALSE(TimerThreadPool::isMainThread());
  EXPECT_FALSE(TimerThreadPool::isForegroundThread());
  EXPECT_FALSE(TimerThreadPool::isBackgroundThread());
  std::atomic<bool> main{false};
  std::atomic<bool> foreground{true};
  std::atomic<bool> background{true};
  Latch ran;
  auto task = std::make_shared<FunctionTask>([&] {
    main.store(TimerThreadPool::isMainThread());
    foreground.store(TimerThreadPool::isForegroundThread());
    background.store(TimerThreadPool::isBackgroundThread());
    ran.countDown();
  });
  TimerThreadPool::postMainThreadTask(task);
  ASSERT_TRUE(ran.wait());
  EXPECT_TRUE(main.load());
  EXPECT_FALSE(foreground.load());
  EXPECT_FALSE(background.load());
  EXPECT_FALSE(TimerThreadPool::isMainThread());
}

TEST_F(TimerThreadPoolTest, ForegroundAndBackgroundTasksRunOnTheirOwnNamedThreads) {
  std::atomic<int> roles{0};
  Latch ran(2);
  TimerThreadPool::postForegroundTask(std::make_shared<FunctionTask>([&] {
    if (TimerThreadPool::isForegroundThread() && !TimerThreadPool::isBackgroundThread() &&
        !TimerThreadPool::isMainThread()) {
      roles.fetch_add(1);
    }
    ran.countDown();
  }));
  TimerThreadPool::postBackgroundTask(std::make_shared<FunctionTask>([&] {
    if (TimerThreadPool::isBackgroundThread() && !TimerThreadPool::isForegroundThread() &&
        !TimerThreadPool::isMainThread()) {
      roles.fetch_add(1);
    }
    ran.countDown();
  }));
  ASSERT_TRUE(ran.wait());
  EXPECT_EQ(roles.load(), 2);
  EXPECT_EQ(LogCapture::countContaining("Starting Timer Thread"), 2u);
}

TEST_F(TimerThreadPoolTest, NamedThreadsOrderTheirTasksByDueTime) {
  velmora::testing::Recorder order;
  const double due = monotonicNow() + 0.2;
  for (int id : {3, 1, 2}) {
    auto task = std::make_shared<FunctionTask>([&order, id] { order.add(id); });
    task->setNextFireTime(due + id * 0.01);
    TimerThreadPool::postBackgroundTask(task);
  }
  ASSERT_TRUE(order.waitForSize(3));
  EXPECT_EQ(order.values(), (std::vector<int>{1, 2, 3}));
}

TEST_F(TimerThreadPoolTest, EmptyTaskToANamedThreadIsRefusedByTheThread) {
  TimerThreadPool::postMainThreadTask(nullptr);
  EXPECT_TRUE(LoggedOnce(kError, "[B-LOG] timer_thread.cpp:72:postTask(): Invalid Empty task\n"));
}

// Deliberate: a pool whose construction failed leaves the singleton word at its creation
// marker, so every later access spins for ever; a thread shows it is still waiting.
TEST_F(TimerThreadPoolTest, MutexInitFailureLeavesGetInstanceAndLaterAccessNeverReturns) {
  velmora::testing::g_mutexInitFault.failNext(1);
  try {
    TimerThreadPool::GetInstance();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), std::string("Mutex init error: ") + strerror(ENOMEM));
  }
  auto returned = std::make_shared<Latch>();
  std::thread([returned] {
    TimerThreadPool::isMainThread();
    returned->countDown();
  }).detach();
  EXPECT_FALSE(returned->wait(std::chrono::milliseconds(300)));
}

}  // namespace
