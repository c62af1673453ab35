// Task scheduling costs:
// - hand-off: the time from postTask of a due task to an idle TimerThread until its body starts,
//   against a bare condition-variable hand-off between two threads (the floor of any wake-up);
// - one post with 1,000 and with 100,000 tasks queued (due times non-decreasing, the worker
//   held in a task), against the same insertion made by walking a queue from the front;
// - postWorkerTask throughput with 2 workers.
//
// Latencies are reported per iteration (manual time) and as median/p90 counters in
// microseconds. Run without VEX_DEBUG_LEVEL so that only severe lines are printed.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "base/timer/timer_thread.h"
#include "base/timer/timer_thread_pool.h"

namespace {

using velmora::base::timer::TimerTaskBase;
using velmora::base::timer::TimerThread;
using velmora::base::timer::TimerThreadPool;
using Clock = std::chrono::steady_clock;

double monotonicNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The pause between hand-offs, so that the receiving thread is asleep again each time.
constexpr auto kSettle = std::chrono::microseconds(300);

void reportLatencies(benchmark::State& state, std::vector<double> microseconds) {
  if (microseconds.empty()) {
    return;
  }
  std::sort(microseconds.begin(), microseconds.end());
  state.counters["median_us"] = microseconds[microseconds.size() / 2];
  state.counters["p90_us"] = microseconds[microseconds.size() * 9 / 10];
}

class StampTask : public TimerTaskBase {
 public:
  explicit StampTask(std::atomic<int64_t>& started) : started_(started) {}
  void execute() override {
    started_.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
  }

 private:
  std::atomic<int64_t>& started_;
};

// Waits for the receiver to stamp `started` (clock ticks) and records the time from `posted` to
// that stamp, as the iteration's time and in microseconds.
void recordHandOff(benchmark::State& state, Clock::time_point posted,
                   const std::atomic<int64_t>& started, std::vector<double>& latencies) {
  int64_t stamp = 0;
  while ((stamp = started.load(std::memory_order_acquire)) == 0) {
    std::this_thread::yield();
  }
  const double seconds =
      std::chrono::duration<double>(Clock::time_point(Clock::duration(stamp)) - posted).count();
  state.SetIterationTime(seconds);
  latencies.push_back(seconds * 1e6);
}

void BM_HandOffToIdleTimerThread(benchmark::State& state) {
  TimerThread thread;
  std::atomic<int64_t> started{0};
  std::vector<double> latencies;
  for (auto _ : state) {
    auto task = std::make_shared<StampTask>(started);
    started.store(0, std::memory_order_relaxed);
    std::this_thread::sleep_for(kSettle);
    task->setNextFireTime(monotonicNow());
    const Clock::time_point posted = Clock::now();
    thread.postTask(task);
    recordHandOff(state, posted, started, latencies);
  }
  reportLatencies(state, latencies);
}
BENCHMARK(BM_HandOffToIdleTimerThread)->UseManualTime()->Iterations(3000);

// The baseline: a flag handed to a thread asleep on a condition variable.
void BM_HandOffBareConditionVariable(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cond;
  bool ready = false;
  bool quit = false;
  std::atomic<int64_t> started{0};
  std::thread receiver([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      cond.wait(lock, [&] { return ready || quit; });
      if (quit) {
        return;
      }
      ready = false;
      started.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
    }
  });
  std::vector<double> latencies;
  for (auto _ : state) {
    started.store(0, std::memory_order_relaxed);
    std::this_thread::sleep_for(kSettle);
    const Clock::time_point posted = Clock::now();
    {
      std::lock_guard<std::mutex> lock(mutex);
      ready = true;
    }
    cond.notify_one();
    recordHandOff(state, posted, started, latencies);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    quit = true;
  }
  cond.notify_one();
  receiver.join();
  reportLatencies(state, latencies);
}
BENCHMARK(BM_HandOffBareConditionVariable)->UseManualTime()->Iterations(3000);

class EmptyTask : public TimerTaskBase {
 public:
  void execute() override {}
};

constexpr int kPostIterations = 20000;

// count tasks due one millisecond apart from due on; due is left at the next free slot, so
// consecutive calls give non-decreasing due times.
std::vector<std::shared_ptr<TimerTaskBase>> makeTasksDueFrom(size_t count, double& due) {
  std::vector<std::shared_ptr<TimerTaskBase>> tasks;
  tasks.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    tasks.push_back(std::make_shared<EmptyTask>());
    tasks.back()->setNextFireTime(due);
    due += 1e-3;
  }
  return tasks;
}

// Holds a TimerThread's worker inside a task until released, so that posts measured meanwhile
// neither wake it nor compete with it for the queue lock.
class GateTask : public TimerTaskBase {
 public:
  void execute() override {
    std::unique_lock<std::mutex> lock(mutex_);
    entered_ = true;
    cond_.notify_all();
    cond_.wait(lock, [this] { return released_; });
  }
  void waitEntered() {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return entered_; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    cond_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool entered_ = false;
  bool released_ = false;
};

// One post with range(0) tasks queued, all due far in the future, while the worker is held.
void BM_PostWithQueuedTasks(benchmark::State& state) {
  const size_t queued = static_cast<size_t>(state.range(0));
  TimerThread thread;
  auto gate = std::make_shared<GateTask>();
  gate->setNextFireTime(monotonicNow());
  thread.postTask(gate);
  gate->waitEntered();
  double due = monotonicNow() + 1e6;
  for (const auto& task : makeTasksDueFrom(queued, due)) {
    thread.postTask(task);
  }
  std::vector<std::shared_ptr<TimerTaskBase>> tasks = makeTasksDueFrom(kPostIterations, due);
  size_t next = 0;
  for (auto _ : state) {
    thread.postTask(tasks[next++]);
  }
  gate->release();
  state.counters["queued"] = static_cast<double>(queued);
}
BENCHMARK(BM_PostWithQueuedTasks)
    ->Arg(1000)
    ->Arg(100000)
    ->Iterations(kPostIterations)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// The reference: the same insertion found by walking the queue from the front.
void BM_FrontWalkInsertionReference(benchmark::State& state) {
  const size_t queued = static_cast<size_t>(state.range(0));
  std::deque<std::shared_ptr<TimerTaskBase>> queue;
  double due = monotonicNow() + 1e6;
  for (const auto& task : makeTasksDueFrom(queued, due)) {
    queue.push_back(task);
  }
  std::vector<std::shared_ptr<TimerTaskBase>> tasks = makeTasksDueFrom(kPostIterations, due);
  size_t next = 0;
  for (auto _ : state) {
    const std::shared_ptr<TimerTaskBase>& task = tasks[next++];
    auto position = queue.begin();
    while (position != queue.end() && !((*position)->getNextFireTime() > task->getNextFireTime())) {
      ++position;
    }
    queue.insert(position, task);
  }
}
BENCHMARK(BM_FrontWalkInsertionReference)->Arg(1000)->Arg(100000)->Iterations(2000);

class CountingTask : public TimerTaskBase {
 public:
  explicit CountingTask(std::atomic<int>& ran) : ran_(ran) {}
  void execute() override { ran_.fetch_add(1, std::memory_order_relaxed); }

 private:
  std::atomic<int>& ran_;
};

void BM_PostWorkerTaskTwoWorkers(benchmark::State& state) {
  TimerThreadPool::init(2);
  std::atomic<int> ran{0};
  const int count = static_cast<int>(state.max_iterations);
  std::vector<std::shared_ptr<TimerTaskBase>> tasks;
  tasks.reserve(static_cast<size_t>(count));
  const double due = monotonicNow();
  for (int i = 0; i < count; ++i) {
    tasks.push_back(std::make_shared<CountingTask>(ran));
    tasks.back()->setNextFireTime(due);
  }
  size_t next = 0;
  for (auto _ : state) {
    TimerThreadPool::postWorkerTask(std::move(tasks[next++]));
  }
  state.SetItemsProcessed(state.iterations());
  // The timed loop has ended: let the workers finish before the counter goes away.
  while (ran.load(std::memory_order_relaxed) < count) {
    std::this_thread::yield();
  }
}
BENCHMARK(BM_PostWorkerTaskTwoWorkers)->Iterations(200000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
