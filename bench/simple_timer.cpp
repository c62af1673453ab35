// Simple timers: how late handlers start, what an insert costs as the engine's list grows, and
// whether an idle engine costs CPU.
//
// - OnceTimerDelay/<ms>: a ONCE timer of 1, 10 or 100 ms, started again and again; each sample
//   is the time from the expiry (taken as the clock just before start(), so the figure errs
//   late by well under a microsecond) to the first instruction of the handler.
// - BareThreadSpawn: the floor of that delay, since each expiry runs its handler on a new
//   thread: the time from just before creating a thread to the first instruction of its body.
// - BareWaitThenSpawn/<ms>: the engine's path without the engine (a timed ppoll, then a thread
//   spawn), measured like OnceTimerDelay: what the machine allows at the moment of the run.
// - InsertIntoList/<n>: start() of a timer that goes behind n (at least one) started timers: the
//   walk over the whole list is the worst case of an insert, and no command is written.
// - ThousandTimersFire: 1,000 ONCE timers of 10 to 60 ms started at once, then all fired.
// - EngineCpuWhileIdle / EngineCpuWhileArmed: the process CPU time over one second while the
//   engine waits (no timer, or one timer an hour away).
#include <poll.h>
#include <time.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/simple_timer/timer.h"

namespace {

using velmora::base::simple_timer::ONCE;
using velmora::base::simple_timer::TimeoutTime;
using velmora::base::simple_timer::Timer;

int64_t nowNanoseconds(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now = {0, 0};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// One handler start, handed from the handler thread to the measuring thread.
class Arrival {
 public:
  void arrive(int64_t at) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      at_ = at;
      arrived_ = true;
    }
    changed_.notify_one();
  }
  int64_t wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return arrived_; });
    arrived_ = false;
    return at_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int64_t at_ = 0;
  bool arrived_ = false;
};

// Reports the median, 99th percentile and maximum of the samples in microseconds.
void reportDelays(benchmark::State& state, std::vector<int64_t> samples) {
  std::sort(samples.begin(), samples.end());
  const auto at = [&](double quantile) {
    const size_t index = static_cast<size_t>(quantile * static_cast<double>(samples.size() - 1));
    return static_cast<double>(samples[index]) / 1000.0;
  };
  state.counters["median_us"] = at(0.5);
  state.counters["p99_us"] = at(0.99);
  state.counters["max_us"] = static_cast<double>(samples.back()) / 1000.0;
  state.counters["samples"] = static_cast<double>(samples.size());
}

void OnceTimerDelay(benchmark::State& state) {
  const int milliseconds = static_cast<int>(state.range(0));
  Arrival arrival;
  Timer timer(
      "delay", TimeoutTime{0, milliseconds, 0},
      [&arrival](Timer*, void*) { arrival.arrive(nowNanoseconds()); }, nullptr, ONCE);
  std::vector<int64_t> samples;
  for (auto _ : state) {
    const int64_t expiry = nowNanoseconds() + milliseconds * 1000000LL;
    timer.start();
    samples.push_back(arrival.wait() - expiry);
  }
  timer.stop();
  reportDelays(state, samples);
}
BENCHMARK(OnceTimerDelay)->Arg(1)->Iterations(500)->Unit(benchmark::kMillisecond);
BENCHMARK(OnceTimerDelay)->Arg(10)->Iterations(300)->Unit(benchmark::kMillisecond);
BENCHMARK(OnceTimerDelay)->Arg(100)->Iterations(100)->Unit(benchmark::kMillisecond);

void BareThreadSpawn(benchmark::State& state) {
  Arrival arrival;
  std::vector<int64_t> samples;
  for (auto _ : state) {
    const int64_t before = nowNanoseconds();
    std::thread([&arrival] { arrival.arrive(nowNanoseconds()); }).detach();
    samples.push_back(arrival.wait() - before);
  }
  reportDelays(state, samples);
}
BENCHMARK(BareThreadSpawn)->Iterations(500)->Unit(benchmark::kMicrosecond);

// The engine's path without the engine: sleep in ppoll for the timeout, then spawn the thread
// that would run the handler. The delay is measured from the end of the timeout as above.
void BareWaitThenSpawn(benchmark::State& state) {
  const int milliseconds = static_cast<int>(state.range(0));
  Arrival arrival;
  std::vector<int64_t> samples;
  for (auto _ : state) {
    const int64_t expiry = nowNanoseconds() + milliseconds * 1000000LL;
    const timespec wait = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    ppoll(nullptr, 0, &wait, nullptr);
    std::thread([&arrival] { arrival.arrive(nowNanoseconds()); }).detach();
    samples.push_back(arrival.wait() - expiry);
  }
  reportDelays(state, samples);
}
BENCHMARK(BareWaitThenSpawn)->Arg(1)->Iterations(500)->Unit(benchmark::kMillisecond);
BENCHMARK(BareWaitThenSpawn)->Arg(10)->Iterations(300)->Unit(benchmark::kMillisecond);
BENCHMARK(BareWaitThenSpawn)->Arg(100)->Iterations(100)->Unit(benchmark::kMillisecond);

const auto kIgnore = [](Timer*, void*) {};

// Timers an hour and more away, so that none fires while measuring.
std::vector<std::unique_ptr<Timer>> startFarTimers(int count) {
  std::vector<std::unique_ptr<Timer>> timers;
  for (int index = 0; index < count; ++index) {
    timers.push_back(std::make_unique<Timer>("far" + std::to_string(index),
                                             TimeoutTime{3600, index, 0}, kIgnore, nullptr, ONCE));
    timers.back()->start();
  }
  return timers;
}

void InsertIntoList(benchmark::State& state) {
  std::vector<std::unique_ptr<Timer>> timers = startFarTimers(static_cast<int>(state.range(0)));
  Timer last("last", TimeoutTime{7200, 0, 0}, kIgnore, nullptr, ONCE);
  for (auto _ : state) {
    const int64_t before = nowNanoseconds();
    last.start();
    const int64_t after = nowNanoseconds();
    state.SetIterationTime(static_cast<double>(after - before) * 1e-9);
    last.stop();
  }
  for (std::unique_ptr<Timer>& timer : timers) {
    timer->stop();
  }
}
BENCHMARK(InsertIntoList)
    ->Arg(1)
    ->Arg(10)
    ->Arg(100)
    ->Arg(250)
    ->Arg(500)
    ->Arg(1000)
    ->UseManualTime()
    ->Unit(benchmark::kNanosecond);

void ThousandTimersFire(benchmark::State& state) {
  constexpr int kCount = 1000;
  std::atomic<int> fired{0};
  std::atomic<int64_t> latest{0};
  Arrival allFired;
  const auto handler = [&](Timer*, void*) {
    const int64_t now = nowNanoseconds();
    int64_t seen = latest.load();
    while (now > seen && !latest.compare_exchange_weak(seen, now)) {
    }
    if (fired.fetch_add(1) + 1 == kCount) {
      allFired.arrive(now);
    }
  };
  std::vector<std::unique_ptr<Timer>> timers;
  for (int index = 0; index < kCount; ++index) {
    timers.push_back(std::make_unique<Timer>("burst" + std::to_string(index),
                                             TimeoutTime{0, 10 + index % 50, (index * 37) % 1000},
                                             handler, nullptr, ONCE));
  }
  for (auto _ : state) {
    fired = 0;
    latest = 0;
    const int64_t begin = nowNanoseconds();
    for (std::unique_ptr<Timer>& timer : timers) {
      timer->start();
    }
    const int64_t started = nowNanoseconds();
    allFired.wait();
    state.counters["start_all_us"] = static_cast<double>(started - begin) / 1000.0;
    state.counters["start_each_ns"] = static_cast<double>(started - begin) / kCount;
    // The longest timeout is 59.999 ms from the last start.
    state.counters["last_fire_after_start_ms"] = static_cast<double>(latest - begin) / 1e6;
  }
}
BENCHMARK(ThousandTimersFire)->Iterations(3)->Unit(benchmark::kMillisecond);

void measureEngineCpu(benchmark::State& state) {
  for (auto _ : state) {
    const int64_t cpuBefore = nowNanoseconds(CLOCK_PROCESS_CPUTIME_ID);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const int64_t cpuAfter = nowNanoseconds(CLOCK_PROCESS_CPUTIME_ID);
    state.counters["process_cpu_us_per_s"] = static_cast<double>(cpuAfter - cpuBefore) / 1000.0;
  }
}

void EngineCpuWhileIdle(benchmark::State& state) {
  Timer timer("idle", TimeoutTime{0, 1, 0}, kIgnore, nullptr, ONCE);
  measureEngineCpu(state);
}
BENCHMARK(EngineCpuWhileIdle)->Iterations(1)->Unit(benchmark::kMillisecond);

void EngineCpuWhileArmed(benchmark::State& state) {
  Timer timer("hour", TimeoutTime{3600, 0, 0}, kIgnore, nullptr, ONCE);
  timer.start();
  measureEngineCpu(state);
  timer.stop();
}
BENCHMARK(EngineCpuWhileArmed)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // Every stop() writes its two hand-shake lines at the most severe level; keep them off the
  // terminal (and out of the timings) unless the caller asks for a level.
  setenv("VEX_DEBUG_LEVEL", "0", 0);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
