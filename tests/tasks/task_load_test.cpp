// Load: four threads post 20,000 tasks with random delays to one timer thread and to the pool's
// workers while a fifth cancels timer-thread tasks at random. Every task not cancelled runs
// exactly once and not before its due time; no cancelled task runs; every task is released.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "base/timer/timer_thread.h"
#include "base/timer/timer_thread_pool.h"
#include "log_capture.h"
#include "task_support.h"

namespace {

using velmora::base::timer::TimerTaskBase;
using velmora::base::timer::TimerThread;
using velmora::base::timer::TimerThreadPool;
using velmora::testing::LogCapture;
using velmora::testing::monotonicNow;

constexpr int kPosters = 4;
constexpr int kTasks = 20000;
constexpr int kPerPoster = kTasks / kPosters;

// What happened to one task.
struct Record {
  std::atomic<int> runs{0};
  std::atomic<int> early{0};
  double finalDue = 0.0;  // written by the destructor
  std::atomic<bool> released{false};
};

// Counts released tasks and lets the test wait for all of them.
class Releases {
 public:
  void add() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (++count_ == kTasks) {
      cond_.notify_all();
    }
  }
  bool waitForAll(std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [this] { return count_ == kTasks; });
  }
  int count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  int count_ = 0;
};

class LoadTask : public TimerTaskBase {
 public:
  LoadTask(Record& record, Releases& releases, int taskId) : record_(record), releases_(releases) {
    taskId_ = taskId;
  }
  ~LoadTask() override {
    record_.finalDue = getNextFireTime();
    record_.released.store(true, std::memory_order_release);
    releases_.add();
  }
  void execute() override {
    if (monotonicNow() < getNextFireTime()) {
      record_.early.fetch_add(1);
    }
    record_.runs.fetch_add(1);
  }

 private:
  Record& record_;
  Releases& releases_;
};

TEST(TaskLoadTest, EveryLiveTaskRunsOnceOnTimeAndNoCancelledTaskRuns) {
  LogCapture::reset();
  LogCapture::setThreshold(1000);
  std::vector<Record> records(kTasks);
  Releases releases;
  TimerThread thread;
  // Task i goes to the timer thread when i is even, to a pool worker when odd. Ids are fixed
  // before any thread starts, so the canceller can name tasks that may already be gone.
  std::vector<std::shared_ptr<LoadTask>> tasks;
  std::vector<int> sessions(kTasks);
  for (int i = 0; i < kTasks; ++i) {
    tasks.push_back(std::make_shared<LoadTask>(records[i], releases, i + 1));
    sessions[i] = tasks.back()->sessionId();
  }

  std::atomic<int> postersLeft{kPosters};
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      std::mt19937 random(static_cast<unsigned>(p + 1));
      std::uniform_int_distribution<int> delay(0, 20);
      for (int i = p * kPerPoster; i < (p + 1) * kPerPoster; ++i) {
        std::shared_ptr<LoadTask> task = std::move(tasks[i]);
        if (i % 2 == 0) {
          thread.postTask(std::move(task), delay(random));
        } else {
          task->setNextFireTime(monotonicNow() + delay(random) / 1000.0);
          TimerThreadPool::postWorkerTask(std::move(task));
        }
      }
      postersLeft.fetch_sub(1);
    });
  }
  std::thread canceller([&] {
    std::mt19937 random(99);
    std::uniform_int_distribution<int> index(0, kTasks / 2 - 1);
    int extra = 2000;
    while (postersLeft.load() > 0 || extra-- > 0) {
      const int i = index(random) * 2;
      if (random() % 2 == 0) {
        thread.cancelTaskByTaskId(i + 1);
      } else {
        thread.cancelTaskBySessionId(sessions[i]);
      }
    }
  });
  for (auto& poster : posters) {
    poster.join();
  }
  canceller.join();
  ASSERT_TRUE(releases.waitForAll(std::chrono::seconds(120))) << releases.count();

  int cancelled = 0;
  int ran = 0;
  for (int i = 0; i < kTasks; ++i) {
    const Record& record = records[i];
    ASSERT_TRUE(record.released.load(std::memory_order_acquire));
    EXPECT_EQ(record.early.load(), 0) << "task " << i;
    if (record.finalDue == 0.0) {
      EXPECT_EQ(i % 2, 0) << "a worker task was cancelled";
      EXPECT_EQ(record.runs.load(), 0) << "cancelled task " << i << " ran";
      ++cancelled;
    } else {
      EXPECT_EQ(record.runs.load(), 1) << "task " << i;
      ++ran;
    }
  }
  EXPECT_EQ(cancelled + ran, kTasks);
  EXPECT_GT(cancelled, 0);
  EXPECT_EQ(thread.taskCount(), 0);
  EXPECT_EQ(LogCapture::countContaining("Task Just Removed?"), 0u);
  EXPECT_EQ(LogCapture::countContaining("runtime_error"), 0u);
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 2u);
  RecordProperty("cancelled", cancelled);
}

}  // namespace
