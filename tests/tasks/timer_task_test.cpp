// Timer tasks: session numbering, fresh fields, the liveness marker.
#include "base/timer/timer_task.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include "task_support.h"

namespace {

using velmora::base::timer::TimerExecutable;
using velmora::base::timer::TimerExecutionContext;
using velmora::testing::FunctionTask;

TEST(TimerTaskTest, FirstTaskOfTheProcessHasSessionOneAndTheNextTwo) {
  FunctionTask first;
  FunctionTask second;
  EXPECT_EQ(first.sessionId(), 1);
  EXPECT_EQ(second.sessionId(), 2);
}

TEST(TimerTaskTest, TasksConstructedOneAfterAnotherHaveConsecutiveSessionIds) {
  auto first = std::make_shared<FunctionTask>();
  auto second = std::make_shared<FunctionTask>();
  auto third = std::make_shared<FunctionTask>();
  EXPECT_EQ(second->sessionId(), first->sessionId() + 1);
  EXPECT_EQ(third->sessionId(), second->sessionId() + 1);
}

TEST(TimerTaskTest, FreshTaskHasNoFireTimeAndTaskIdZero) {
  FunctionTask task;
  EXPECT_EQ(task.getNextFireTime(), 0.0);
  EXPECT_EQ(task.taskId(), 0);
}

TEST(TimerTaskTest, FireTimeIsStoredAsGivenAndTaskIdIsSetByTheDerivedClass) {
  FunctionTask task;
  task.setNextFireTime(1234.5625);
  task.setTaskId(17);
  EXPECT_EQ(task.getNextFireTime(), 1234.5625);
  EXPECT_EQ(task.taskId(), 17);
}

TEST(TimerTaskTest, ConcurrentConstructionGivesEveryTaskADistinctSessionId) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2000;
  std::vector<std::vector<int>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&seen, t] {
      for (int i = 0; i < kPerThread; ++i) {
        seen[t].push_back(FunctionTask().sessionId());
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  std::vector<int> all;
  for (const auto& ids : seen) {
    all.insert(all.end(), ids.begin(), ids.end());
  }
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), static_cast<size_t>(kThreads * kPerThread));
  for (size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[i], static_cast<int>(i) + 1);
  }
}

TEST(TimerExecutionContextTest, NewContextIsAliveAndPointsToItsOwner) {
  TimerExecutable owner;
  TimerExecutionContext context(&owner);
  EXPECT_EQ(context.magic(), 0xADDECEFAu);
  EXPECT_EQ(context.magic(), TimerExecutionContext::kAliveMagic);
  EXPECT_EQ(context.executable(), &owner);
}

TEST(TimerExecutionContextTest, MarkAsDeadClearsOnlyTheMarker) {
  TimerExecutable owner;
  TimerExecutionContext context(&owner);
  context.markAsDead();
  EXPECT_EQ(context.magic(), 0u);
  EXPECT_EQ(context.executable(), &owner);
}

}  // namespace
