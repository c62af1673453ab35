// Costs of event dispatch:
// - latency from EventHub::sendEvent to the start of the handler on an idle hub, against the
//   bare hand-off of a value to a thread waiting on a std::condition_variable (the same
//   mechanism a hub's thread waits on, without dispatcher, table or event);
// - throughput of one sender to one hub with a trivial handler, measured until the last
//   handler call, against a bare mutex/deque/condition-variable queue with one consumer;
// - heap allocations per event, counted by the replaced global operator new below.
//
// Latency benchmarks report the mean as their time (manual time per hand-off) and the
// median and 99th percentile in microseconds as counters.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/event_dispatcher/event_hub.h"

namespace {
std::atomic<uint64_t> g_allocations{0};
}  // namespace

// Counting replacements of the global allocation operators. None of them is inlined: the
// compiler would otherwise pair malloc and free with the operators and warn about a mismatch.
__attribute__((noinline)) void* operator new(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  void* pointer = std::malloc(size == 0 ? 1 : size);
  if (pointer == nullptr) {
    throw std::bad_alloc();
  }
  return pointer;
}

__attribute__((noinline)) void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}

__attribute__((noinline)) void operator delete(void* pointer) noexcept {
  std::free(pointer);
}
__attribute__((noinline)) void operator delete(void* pointer, std::size_t) noexcept {
  std::free(pointer);
}

namespace {

using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::evtdispch_register_hub;
using velmora::base::event_dispatcher::evtdispch_unregister_hub;
using Clock = std::chrono::steady_clock;

constexpr int kSenderModule = 1;
constexpr int kReceiverModule = 2;
constexpr int kEventType = 7;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// Per-iteration latencies and their summary counters.
class LatencyLog {
 public:
  void add(int64_t ns) { samples_.push_back(ns); }
  void report(benchmark::State& state) {
    if (samples_.empty()) {
      return;
    }
    std::sort(samples_.begin(), samples_.end());
    state.counters["median_us"] = samples_[samples_.size() / 2] / 1000.0;
    state.counters["p99_us"] = samples_[samples_.size() * 99 / 100] / 1000.0;
  }

 private:
  std::vector<int64_t> samples_;
};

// A flag one thread raises and another waits for.
class Ack {
 public:
  void raise() {
    std::lock_guard<std::mutex> lock(mutex_);
    raised_ = true;
    changed_.notify_one();
  }
  void waitAndLower() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return raised_; });
    raised_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool raised_ = false;
};

void BM_CondVarHandOffLatency(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable wake;
  bool pending = false;
  bool stop = false;
  int64_t sent_at = 0;
  std::atomic<int64_t> latency{0};
  Ack ack;
  std::thread waiter([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      wake.wait(lock, [&] { return pending || stop; });
      if (stop) {
        return;
      }
      latency.store(nowNs() - sent_at);
      pending = false;
      ack.raise();
    }
  });
  LatencyLog log;
  for (auto _ : state) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      sent_at = nowNs();
      pending = true;
      wake.notify_all();
    }
    ack.waitAndLower();
    log.add(latency.load());
    state.SetIterationTime(latency.load() * 1e-9);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
    wake.notify_all();
  }
  waiter.join();
  log.report(state);
}
BENCHMARK(BM_CondVarHandOffLatency)->UseManualTime()->Unit(benchmark::kMicrosecond);

// What the latency benchmark's handler reaches through one pointer: a handler whose callable
// fits std::function's small buffer is copied out of the table without an allocation.
struct LatencyProbe {
  std::atomic<int64_t> sent_at{0};
  std::atomic<int64_t> latency{0};
  Ack ack;
};

void BM_SendEventToHandlerStartLatency(benchmark::State& state) {
  EventHub sender(kSenderModule);
  EventHub receiver(kReceiverModule);
  LatencyProbe probe;
  LatencyProbe* target = &probe;
  receiver.registerHandler(kEventType, [target](std::shared_ptr<BrowserEvent>) {
    target->latency.store(nowNs() - target->sent_at.load());
    target->ack.raise();
  });
  evtdispch_register_hub(&receiver);
  LatencyLog log;
  const uint64_t allocations_before = g_allocations.load();
  for (auto _ : state) {
    std::shared_ptr<BrowserEvent> event = sender.createEvent(kEventType);
    probe.sent_at.store(nowNs());
    sender.sendEvent(std::move(event), kReceiverModule);
    probe.ack.waitAndLower();
    log.add(probe.latency.load());
    state.SetIterationTime(probe.latency.load() * 1e-9);
  }
  const uint64_t allocations = g_allocations.load() - allocations_before;
  evtdispch_unregister_hub(&receiver);
  log.report(state);
  state.counters["allocs_per_event"] =
      static_cast<double>(allocations) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_SendEventToHandlerStartLatency)->UseManualTime()->Unit(benchmark::kMicrosecond);

constexpr int kBatch = 100000;

// Counts handler calls and wakes the sender at the batch's last one. Only that call takes the
// mutex, so the handler stays trivial.
class BatchCounter {
 public:
  void expect(int64_t total) { target_.store(total); }
  void hit() {
    const int64_t now = count_.fetch_add(1) + 1;
    if (now == target_.load()) {
      std::lock_guard<std::mutex> lock(mutex_);
      changed_.notify_one();
    }
  }
  void waitForTarget() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return count_.load() >= target_.load(); });
  }

 private:
  std::atomic<int64_t> count_{0};
  std::atomic<int64_t> target_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
};

void BM_CondVarQueueThroughput(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::shared_ptr<int>> queue;
  bool stop = false;
  BatchCounter handled;
  std::thread consumer([&] {
    for (;;) {
      std::shared_ptr<int> item;
      {
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait(lock, [&] { return !queue.empty() || stop; });
        if (queue.empty()) {
          return;
        }
        item = std::move(queue.front());
        queue.pop_front();
      }
      benchmark::DoNotOptimize(item);
      handled.hit();
    }
  });
  int64_t total = 0;
  for (auto _ : state) {
    total += kBatch;
    handled.expect(total);
    for (int i = 0; i < kBatch; ++i) {
      std::shared_ptr<int> item(new int(i));
      std::lock_guard<std::mutex> lock(mutex);
      queue.push_back(std::move(item));
      wake.notify_all();
    }
    handled.waitForTarget();
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
    wake.notify_all();
  }
  consumer.join();
  state.SetItemsProcessed(total);
}
BENCHMARK(BM_CondVarQueueThroughput)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_OneSenderOneHubThroughput(benchmark::State& state) {
  EventHub sender(kSenderModule);
  EventHub receiver(kReceiverModule);
  BatchCounter handled;
  receiver.registerHandler(kEventType, [&](std::shared_ptr<BrowserEvent>) { handled.hit(); });
  evtdispch_register_hub(&receiver);
  int64_t total = 0;
  uint64_t allocations = 0;
  for (auto _ : state) {
    total += kBatch;
    handled.expect(total);
    const uint64_t allocations_before = g_allocations.load();
    for (int i = 0; i < kBatch; ++i) {
      sender.sendEvent(sender.createEvent(kEventType), kReceiverModule);
    }
    handled.waitForTarget();
    allocations += g_allocations.load() - allocations_before;
  }
  evtdispch_unregister_hub(&receiver);
  state.SetItemsProcessed(total);
  state.counters["allocs_per_event"] =
      static_cast<double>(allocations) / static_cast<double>(total);
}
BENCHMARK(BM_OneSenderOneHubThroughput)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
