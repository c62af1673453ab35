// Load: 200 timers of mixed types and timeouts started, restarted, stopped and stopped without
// waiting from 4 threads, thousands of operations while they expire. Checks, with exact
// accounting: no handler call that begins after a timer's last stop() misses
// needStop(); nothing fires once every timer is stopped and the handler threads in flight have
// ended; every ONCE timer started and then left alone fires exactly once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "base/simple_timer/timer.h"
#include "log_capture.h"
#include "timer_interpose.h"
#include "timer_test_support.h"

namespace {

using velmora::base::simple_timer::CONTINUE;
using velmora::base::simple_timer::ONCE;
using velmora::base::simple_timer::TimeoutTime;
using velmora::base::simple_timer::Timer;
using velmora::base::simple_timer::TimerType_e;
using velmora::testing::Counter;
using velmora::testing::LogCapture;

constexpr int kTimers = 200;
constexpr int kThreads = 4;
// Each worker churns for kChurn and at least kLeastOperationsPerThread operations, but stops at
// kChurnLimit however few it has done (a slow target under ThreadSanitizer does about 500 a
// second; a native build tens of thousands).
constexpr auto kChurn = std::chrono::seconds(3);
constexpr auto kChurnLimit = std::chrono::seconds(6);
constexpr int kLeastOperationsPerThread = 500;

struct TimerRecord {
  std::atomic<int> calls{0};
  std::atomic<int> missedStop{0};
  // Set once the timer's last stop() has returned.
  std::atomic<bool> finallyStopped{false};
  std::unique_ptr<Timer> timer;
};

void handle(Timer* timer, void* data) {
  auto* record = static_cast<TimerRecord*>(data);
  record->calls.fetch_add(1);
  if (record->finallyStopped.load() && !timer->needStop()) {
    record->missedStop.fetch_add(1);
  }
}

// Starts, restarts and stops (waiting or not) the timers of one worker at random for the churn
// time, then stops them all for good. Counts its operations.
void churn(std::vector<TimerRecord>& records, int worker, std::atomic<int>& failures,
           std::atomic<int>& operations) {
  std::mt19937 random(static_cast<unsigned>(worker) * 7919u + 1u);
  const auto begin = std::chrono::steady_clock::now();
  for (int done = 0;; ++done) {
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    if ((elapsed >= kChurn && done >= kLeastOperationsPerThread) || elapsed >= kChurnLimit) {
      break;
    }
    TimerRecord& record =
        records[static_cast<size_t>(worker + kThreads * (random() % (kTimers / kThreads)))];
    int result = 0;
    switch (random() % 5) {
      case 0:
      case 1:
        result = record.timer->start();
        break;
      case 2:
        result = record.timer->restart();
        break;
      case 3:
        result = record.timer->stopNoBlock();
        break;
      default:
        result = record.timer->stop();
        break;
    }
    failures.fetch_add(result == 0 ? 0 : 1);
    operations.fetch_add(1);
  }
  for (int index = worker; index < kTimers; index += kThreads) {
    failures.fetch_add(records[static_cast<size_t>(index)].timer->stop() == 0 ? 0 : 1);
    records[static_cast<size_t>(index)].finallyStopped.store(true);
  }
}

int totalCalls(const std::vector<TimerRecord>& records) {
  int total = 0;
  for (const TimerRecord& record : records) {
    total += record.calls.load();
  }
  return total;
}

TEST(SimpleTimerLoadTest, ManyTimersFromManyThreadsKeepExactAccounts) {
  LogCapture::reset();
  LogCapture::setThreshold(1000);
  std::vector<TimerRecord> records(kTimers);
  velmora::testing::HandlerThreadDrain drain;
  for (int index = 0; index < kTimers; ++index) {
    TimerRecord& record = records[static_cast<size_t>(index)];
    const TimerType_e type = index % 2 == 0 ? ONCE : CONTINUE;
    record.timer = std::make_unique<Timer>(
        "load" + std::to_string(index), TimeoutTime{0, 1 + index % 50, 0}, handle, &record, type);
  }

  std::atomic<int> failures{0};
  std::atomic<int> operations{0};
  std::vector<std::thread> workers;
  for (int worker = 0; worker < kThreads; ++worker) {
    workers.emplace_back(churn, std::ref(records), worker, std::ref(failures),
                         std::ref(operations));
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GE(operations.load(), kThreads * kLeastOperationsPerThread);
  printf("[  LOAD    ] %d operations, ", operations.load());
  ASSERT_TRUE(velmora::testing::waitForThreadsToFinish(1, std::chrono::seconds(60)));
  const int churned = totalCalls(records);
  printf("%d handler calls\n", churned);
  EXPECT_GT(churned, 0);
  for (const TimerRecord& record : records) {
    EXPECT_EQ(record.missedStop.load(), 0);
    EXPECT_FALSE(record.timer->isStarted());
  }
  // Quiet: no timer is in the engine, so no thread can be created any more.
  const int threadsWhenQuiet = velmora::testing::threadsCreated();
  EXPECT_EQ(velmora::testing::threadsFinished(), threadsWhenQuiet - 1);

  // Every ONCE timer started from the workers and left alone fires exactly once.
  for (TimerRecord& record : records) {
    record.calls.store(0);
  }
  workers.clear();
  for (int worker = 0; worker < kThreads; ++worker) {
    workers.emplace_back([&records, &failures, worker] {
      for (int index = worker * 2; index < kTimers; index += kThreads * 2) {
        failures.fetch_add(records[static_cast<size_t>(index)].timer->start() == 0 ? 0 : 1);
      }
    });
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  EXPECT_EQ(failures.load(), 0);
  const int onceTimers = kTimers / 2;
  // Wait for the ONCE timers' handler threads to be created and to end.
  ASSERT_TRUE(velmora::testing::waitForThreadsCreated(threadsWhenQuiet + kThreads + onceTimers,
                                                      std::chrono::seconds(60)));
  ASSERT_TRUE(velmora::testing::waitForThreadsToFinish(1, std::chrono::seconds(60)));
  EXPECT_EQ(velmora::testing::threadsCreated(), threadsWhenQuiet + kThreads + onceTimers);
  for (int index = 0; index < kTimers; ++index) {
    const TimerRecord& record = records[static_cast<size_t>(index)];
    EXPECT_EQ(record.calls.load(), index % 2 == 0 ? 1 : 0) << index;
    EXPECT_FALSE(record.timer->isStarted()) << index;
  }
  EXPECT_EQ(LogCapture::countContaining("Fail"), 0u);
  for (TimerRecord& record : records) {
    record.timer.reset();
  }
}

}  // namespace
