// Shutdown under concurrency: a timer thread stopped while other threads post and cancel, its
// destructor once the posters are joined, a task that stops its own thread, and the pool's
// threads created while many threads post. Each test counts the task bodies running at once on
// one timer thread (never more than one: one worker at a time), and keeps a ledger of every task
// (it runs exactly once, or never when cancelled, or is released unrun by the destructor).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <set>
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
using velmora::testing::Latch;
using velmora::testing::LogCapture;
using velmora::testing::monotonicNow;

constexpr uint16_t kCritical = 1;

const char kStarting[] = "Starting Timer Thread";
const char kExiting[] = "[B-LOG] timer_thread.cpp:343:run(): Exiting Timer Thread...\n";

// Runs action and waits for it at most timeout; a call that does not return ends the program
// with a message, since nothing can unblock it.
void mustReturnWithin(const char* what, std::chrono::seconds timeout,
                      const std::function<void()>& action) {
  auto done = std::make_shared<Latch>();
  std::thread runner([&action, done] {
    action();
    done->countDown();
  });
  if (!done->wait(timeout)) {
    fprintf(stderr, "%s did not return within %lld s\n", what,
            static_cast<long long>(timeout.count()));
    fflush(stderr);
    std::_Exit(1);
  }
  runner.join();
}

// Task bodies running at this moment on one timer thread: more than one means two workers.
class Overlap {
 public:
  void enter() {
    const int now = inside_.fetch_add(1) + 1;
    int most = most_.load();
    while (now > most && !most_.compare_exchange_weak(most, now)) {
    }
    // Stay a moment, so that a second worker running at the same time is seen.
    for (int i = 0; i < 3; ++i) {
      std::this_thread::yield();
    }
  }
  void leave() { inside_.fetch_sub(1); }
  int most() const { return most_.load(); }

 private:
  std::atomic<int> inside_{0};
  std::atomic<int> most_{0};
};

// What became of one task.
struct Entry {
  std::atomic<int> runs{0};
  std::atomic<bool> released{false};
  double finalDue = 0.0;  // written by the task's destructor
};

// The fate of every task of a test.
class Ledger {
 public:
  explicit Ledger(int size) : entries_(static_cast<size_t>(size)) {}
  Entry& operator[](int index) { return entries_[static_cast<size_t>(index)]; }
  int size() const { return static_cast<int>(entries_.size()); }
  int totalRuns() const {
    int runs = 0;
    for (const Entry& entry : entries_) {
      runs += entry.runs.load();
    }
    return runs;
  }

 private:
  std::vector<Entry> entries_;
};

class LedgerTask : public TimerTaskBase {
 public:
  LedgerTask(Entry& entry, Overlap& overlap, int taskId) : entry_(entry), overlap_(overlap) {
    taskId_ = taskId;
  }
  ~LedgerTask() override {
    entry_.finalDue = getNextFireTime();
    entry_.released.store(true, std::memory_order_release);
  }
  void execute() override {
    overlap_.enter();
    entry_.runs.fetch_add(1);
    overlap_.leave();
  }

 private:
  Entry& entry_;
  Overlap& overlap_;
};

// A task that counts down a latch when it runs.
class SignalTask : public TimerTaskBase {
 public:
  explicit SignalTask(Latch& latch) : latch_(latch) {}
  void execute() override { latch_.countDown(); }

 private:
  Latch& latch_;
};

// Posts a task due later than every task posted before it and waits until it has run: the
// worker, restarted by this post if it was stopped, has then dealt with all of them.
void drain(TimerThread& thread) {
  Latch ran;
  thread.postTask(std::make_shared<SignalTask>(ran), 50);
  ASSERT_TRUE(ran.wait());
}

class TimerThreadShutdownTest : public velmora::testing::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    LogCapture::setThreshold(kCritical);
  }
};

// The case of the report: eight threads post 100 tasks each, the main thread stops once.
TEST_F(TimerThreadShutdownTest,
       StopWhileEightThreadsPostReturnsAndEveryTaskRunsOnceAfterALaterPost) {
  constexpr int kRounds = 10;
  constexpr int kPosters = 8;
  constexpr int kPerPoster = 100;
  for (int round = 0; round < kRounds; ++round) {
    Ledger ledger(kPosters * kPerPoster);
    Overlap overlap;
    {
      auto owned = std::make_unique<TimerThread>();
      TimerThread& thread = *owned;
      Latch go;
      Latch underway(kPosters);
      std::vector<std::thread> posters;
      for (int p = 0; p < kPosters; ++p) {
        posters.emplace_back([&, p] {
          go.wait();
          for (int i = p * kPerPoster; i < (p + 1) * kPerPoster; ++i) {
            thread.postTask(std::make_shared<LedgerTask>(ledger[i], overlap, i + 1), 0);
            if (i == p * kPerPoster + kPerPoster / 4) {
              underway.countDown();
            }
          }
        });
      }
      go.countDown();
      ASSERT_TRUE(underway.wait());
      mustReturnWithin("stop()", std::chrono::seconds(10), [&] { thread.stop(); });
      mustReturnWithin("the posters", std::chrono::seconds(10), [&] {
        for (auto& poster : posters) {
          poster.join();
        }
      });
      drain(thread);
      EXPECT_EQ(thread.taskCount(), 0);
      mustReturnWithin("~TimerThread()", std::chrono::seconds(10), [&] { owned.reset(); });
    }
    for (int i = 0; i < ledger.size(); ++i) {
      ASSERT_EQ(ledger[i].runs.load(), 1) << "round " << round << ", task " << i;
      ASSERT_TRUE(ledger[i].released.load());
    }
    ASSERT_EQ(overlap.most(), 1) << "round " << round;
  }
  // Every worker started ended, once.
  EXPECT_EQ(LogCapture::countContaining(kStarting), LogCapture::count(kCritical, kExiting));
}

// Four threads post 1,000 tasks each with small delays, two cancel at random and one stops the
// thread over and over. Every task cancelled while queued never runs; every other task runs
// exactly once, at the latest after the final post.
TEST_F(TimerThreadShutdownTest, StopsWhileSeveralThreadsPostAndCancelLoseNoTaskAndRunNoneTwice) {
  constexpr int kPosters = 4;
  constexpr int kPerPoster = 1000;
  constexpr int kTasks = kPosters * kPerPoster;
  Ledger ledger(kTasks);
  Overlap overlap;
  std::vector<int> sessions(kTasks);
  std::vector<std::shared_ptr<LedgerTask>> tasks;
  for (int i = 0; i < kTasks; ++i) {
    tasks.push_back(std::make_shared<LedgerTask>(ledger[i], overlap, i + 1));
    sessions[static_cast<size_t>(i)] = tasks.back()->sessionId();
  }
  int stops = 0;
  {
    auto owned = std::make_unique<TimerThread>();
    TimerThread& thread = *owned;
    std::atomic<int> postersLeft{kPosters};
    std::vector<std::thread> threads;
    for (int p = 0; p < kPosters; ++p) {
      threads.emplace_back([&, p] {
        std::mt19937 random(static_cast<unsigned>(p + 1));
        for (int i = p * kPerPoster; i < (p + 1) * kPerPoster; ++i) {
          thread.postTask(std::move(tasks[static_cast<size_t>(i)]), static_cast<int>(random() % 4));
        }
        postersLeft.fetch_sub(1);
      });
    }
    for (int c = 0; c < 2; ++c) {
      threads.emplace_back([&, c] {
        std::mt19937 random(static_cast<unsigned>(100 + c));
        while (postersLeft.load() > 0) {
          const int i = static_cast<int>(random() % kTasks);
          if (random() % 2 == 0) {
            thread.cancelTaskByTaskId(i + 1);
          } else {
            thread.cancelTaskBySessionId(sessions[static_cast<size_t>(i)]);
          }
        }
      });
    }
    threads.emplace_back([&] {
      while (postersLeft.load() > 0) {
        thread.stop();
        ++stops;
        std::this_thread::yield();
      }
    });
    mustReturnWithin("the posters, cancellers and stopper", std::chrono::seconds(10), [&] {
      for (auto& member : threads) {
        member.join();
      }
    });
    drain(thread);
    EXPECT_EQ(thread.taskCount(), 0);
    mustReturnWithin("~TimerThread()", std::chrono::seconds(10), [&] { owned.reset(); });
  }
  int cancelled = 0;
  for (int i = 0; i < kTasks; ++i) {
    ASSERT_TRUE(ledger[i].released.load()) << "task " << i;
    if (ledger[i].finalDue == 0.0) {
      ASSERT_EQ(ledger[i].runs.load(), 0) << "cancelled task " << i;
      ++cancelled;
    } else {
      ASSERT_EQ(ledger[i].runs.load(), 1) << "task " << i;
    }
  }
  EXPECT_EQ(overlap.most(), 1);
  EXPECT_GT(stops, 0);
  EXPECT_EQ(LogCapture::countContaining(kStarting), LogCapture::count(kCritical, kExiting));
  RecordProperty("cancelled", cancelled);
  RecordProperty("stops", stops);
}

// Posters race with stops, then are joined, and the thread is destroyed at once: every task has
// run exactly once or is released unrun, and every worker has ended.
TEST_F(TimerThreadShutdownTest, DestructorAfterThePostersAreJoinedRunsOrReleasesEveryTaskOnce) {
  constexpr int kPosters = 4;
  constexpr int kPerPoster = 500;
  constexpr int kTasks = kPosters * kPerPoster;
  Ledger ledger(kTasks);
  Overlap overlap;
  auto owned = std::make_unique<TimerThread>();
  TimerThread& thread = *owned;
  std::atomic<int> postersLeft{kPosters};
  std::vector<std::thread> threads;
  for (int p = 0; p < kPosters; ++p) {
    threads.emplace_back([&, p] {
      std::mt19937 random(static_cast<unsigned>(p + 7));
      for (int i = p * kPerPoster; i < (p + 1) * kPerPoster; ++i) {
        thread.postTask(std::make_shared<LedgerTask>(ledger[i], overlap, i + 1),
                        static_cast<int>(random() % 3));
      }
      postersLeft.fetch_sub(1);
    });
  }
  threads.emplace_back([&] {
    while (postersLeft.load() > 0) {
      thread.stop();
      std::this_thread::yield();
    }
  });
  mustReturnWithin("the posters and the stopper", std::chrono::seconds(10), [&] {
    for (auto& member : threads) {
      member.join();
    }
  });
  mustReturnWithin("~TimerThread()", std::chrono::seconds(10), [&] { owned.reset(); });
  int ran = 0;
  for (int i = 0; i < kTasks; ++i) {
    ASSERT_TRUE(ledger[i].released.load()) << "task " << i;
    ASSERT_LE(ledger[i].runs.load(), 1) << "task " << i;
    ran += ledger[i].runs.load();
  }
  EXPECT_EQ(overlap.most(), 1);
  EXPECT_EQ(LogCapture::countContaining(kStarting), LogCapture::count(kCritical, kExiting));
  RecordProperty("ran", ran);
}

// A task that stops its own thread and posts the next one, fifty times over: each post starts a
// new worker, which begins only after the stopping one has left; no worker is left behind.
TEST_F(TimerThreadShutdownTest, TasksThatStopTheirOwnThreadAndPostAgainLeaveOneWorkerAtATime) {
  constexpr int kLinks = 50;
  Overlap overlap;
  std::vector<int> workers;
  std::mutex workersMutex;
  Latch done;
  auto owned = std::make_unique<TimerThread>();
  TimerThread& thread = *owned;
  std::function<void(int)> postLink = [&](int link) {
    thread.postTask(std::make_shared<velmora::testing::FunctionTask>([&, link] {
                      overlap.enter();
                      {
                        std::lock_guard<std::mutex> lock(workersMutex);
                        workers.push_back(velmora::testing::gettid());
                      }
                      thread.stop();
                      overlap.leave();
                      if (link + 1 < kLinks) {
                        postLink(link + 1);
                      } else {
                        done.countDown();
                      }
                    }),
                    0);
  };
  postLink(0);
  ASSERT_TRUE(done.wait());
  mustReturnWithin("~TimerThread()", std::chrono::seconds(10), [&] { owned.reset(); });
  EXPECT_EQ(overlap.most(), 1);
  ASSERT_EQ(workers.size(), static_cast<size_t>(kLinks));
  EXPECT_EQ(std::set<int>(workers.begin(), workers.end()).size(), workers.size());
  for (int tid : workers) {
    EXPECT_TRUE(velmora::testing::threadEndsWithin(tid)) << tid;
  }
  EXPECT_EQ(LogCapture::countContaining(kStarting), static_cast<size_t>(kLinks));
  EXPECT_EQ(LogCapture::count(kCritical, kExiting), static_cast<size_t>(kLinks));
}

// What a pool task saw of the thread it ran on.
struct PoolRun {
  std::atomic<int> runs{0};
  std::atomic<int> tid{0};
  std::atomic<bool> roleSeen{false};
};

// Eight threads, released together, post to every role of a fresh pool before any of its
// threads exists: each named role gets exactly one thread, the workers reach their limit and no
// more, and every task runs exactly once on a thread of its role.
TEST_F(TimerThreadShutdownTest, PostsFromManyThreadsRacingWithThePoolsThreadCreationMakeEachOnce) {
  constexpr int kPosters = 8;
  constexpr int kPerRole = 50;
  constexpr int kRoles = 4;
  constexpr int kPerPoster = kRoles * kPerRole;
  std::vector<PoolRun> runs(kPosters * kPerPoster);
  Latch all(static_cast<int>(runs.size()));
  Latch go;
  const std::function<bool()> roleChecks[kRoles] = {
      [] { return TimerThreadPool::isMainThread(); },
      [] { return TimerThreadPool::isForegroundThread(); },
      [] { return TimerThreadPool::isBackgroundThread(); },
      [] {
        return !TimerThreadPool::isMainThread() && !TimerThreadPool::isForegroundThread() &&
               !TimerThreadPool::isBackgroundThread();
      }};
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      go.wait();
      for (int k = 0; k < kPerPoster; ++k) {
        const int index = p * kPerPoster + k;
        const int role = k % kRoles;
        PoolRun& run = runs[static_cast<size_t>(index)];
        auto task = std::make_shared<velmora::testing::FunctionTask>([&, role] {
          run.tid.store(velmora::testing::gettid());
          run.roleSeen.store(roleChecks[role]());
          run.runs.fetch_add(1);
          all.countDown();
        });
        task->setNextFireTime(monotonicNow());
        switch (role) {
          case 0:
            TimerThreadPool::postMainThreadTask(task);
            break;
          case 1:
            TimerThreadPool::postForegroundTask(task);
            break;
          case 2:
            TimerThreadPool::postBackgroundTask(task);
            break;
          default:
            TimerThreadPool::postWorkerTask(task);
            break;
        }
      }
    });
  }
  go.countDown();
  for (auto& poster : posters) {
    poster.join();
  }
  ASSERT_TRUE(all.wait());
  std::set<int> tids[kRoles];
  for (size_t index = 0; index < runs.size(); ++index) {
    const int role = static_cast<int>(index % kPerPoster) % kRoles;
    EXPECT_EQ(runs[index].runs.load(), 1) << index;
    EXPECT_TRUE(runs[index].roleSeen.load()) << index;
    tids[role].insert(runs[index].tid.load());
  }
  for (int role = 0; role < 3; ++role) {
    EXPECT_EQ(tids[role].size(), 1u) << "role " << role;
  }
  EXPECT_LE(tids[3].size(), 2u);
  EXPECT_EQ(LogCapture::count(kCritical,
                              "[B-LOG] timer_thread_pool.cpp:158:postWorkerTask(): Crate Worker "
                              "Thread: 0\n"),
            1u);
  EXPECT_EQ(LogCapture::countContaining("Crate Worker Thread"), 2u);
  EXPECT_EQ(LogCapture::countContaining(kStarting), 5u);
}

}  // namespace
