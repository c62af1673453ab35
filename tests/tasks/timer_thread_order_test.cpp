// The queue order of the timer thread against a straightforward model: a new task goes before
// the first live task due strictly later, walking over cancelled ones from the front.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "base/timer/timer_thread.h"
#include "log_capture.h"
#include "task_interpose.h"
#include "task_support.h"

namespace {

using velmora::base::timer::TimerThread;
using velmora::testing::FunctionTask;
using velmora::testing::Latch;
using velmora::testing::LogCapture;
using velmora::testing::monotonicNow;
using velmora::testing::Recorder;

using TaskPtr = std::shared_ptr<FunctionTask>;

// The queue as the walk from the front builds it; every slot keeps the due time the model
// expects the task to have.
class QueueModel {
 public:
  struct Slot {
    TaskPtr task;
    double due;
  };

  void post(const TaskPtr& task) {
    const double due = task->getNextFireTime();
    size_t position = 0;
    while (position < slots_.size() &&
           (slots_[position].due == 0.0 || !(slots_[position].due > due))) {
      ++position;
    }
    slots_.insert(slots_.begin() + static_cast<long>(position), Slot{task, due});
  }
  int cancelBySession(int session) {
    return cancelWhere([session](const Slot& slot) { return slot.task->sessionId() == session; });
  }
  int cancelByTaskId(int taskId) {
    return cancelWhere([taskId](const Slot& slot) { return slot.task->taskId() == taskId; });
  }
  TaskPtr popFront() {
    if (slots_.empty()) {
      return nullptr;
    }
    TaskPtr task = slots_.front().task;
    slots_.erase(slots_.begin());
    return task;
  }
  bool contains(const TaskPtr& task) const {
    for (const Slot& slot : slots_) {
      if (slot.task == task) {
        return true;
      }
    }
    return false;
  }
  const std::vector<Slot>& slots() const { return slots_; }

 private:
  template <typename Match>
  int cancelWhere(Match match) {
    int count = 0;
    for (Slot& slot : slots_) {
      if (match(slot)) {
        slot.due = 0.0;
        ++count;
      }
    }
    return count;
  }

  std::vector<Slot> slots_;
};

// Every queued task carries the due time the model expects.
::testing::AssertionResult dueTimesMatch(const QueueModel& model) {
  for (size_t i = 0; i < model.slots().size(); ++i) {
    const auto& slot = model.slots()[i];
    if (slot.task->getNextFireTime() != slot.due) {
      return ::testing::AssertionFailure()
             << "slot " << i << " has due time " << slot.task->getNextFireTime() << ", expected "
             << slot.due;
    }
  }
  return ::testing::AssertionSuccess();
}

class TimerThreadOrderTest : public velmora::testing::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    // Only errors are kept: thousands of operations would otherwise fill the capture.
    LogCapture::setThreshold(1000);
  }
};

// No worker runs (its creation fails), so the test pops the queue itself and sees the exact
// queue order, cancelled tasks included.
TEST_F(TimerThreadOrderTest, RandomPostsCancelsPopsAndRepostsKeepTheOrderOfTheWalkFromTheFront) {
  for (unsigned seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    TimerThread thread;
    velmora::testing::g_pthreadCreateFault.failNext(1);
    ASSERT_THROW(thread.postTask(std::make_shared<FunctionTask>()), std::runtime_error);

    QueueModel model;
    std::vector<TaskPtr> outside;  // popped tasks, free to be posted again
    const double base = monotonicNow() + 1000.0;
    auto pick = [&random](int limit) {
      return std::uniform_int_distribution<int>(0, limit - 1)(random);
    };
    auto postOne = [&](const TaskPtr& task) {
      const int how = pick(10);
      if (how < 7) {
        // Few distinct due times: many tasks share one.
        task->setNextFireTime(base + pick(12) * 0.5);
        thread.postTask(task);
      } else if (how < 9) {
        const double before = monotonicNow();
        const int delay = pick(40) - 10;
        thread.postTask(task, delay);
        ASSERT_GE(task->getNextFireTime(), before + delay / 1000.0);
      } else {
        task->setNextFireTime(0.0);
        thread.postTask(task);
      }
      model.post(task);
    };

    for (int step = 0; step < 1500; ++step) {
      const int operation = pick(100);
      if (operation < 45) {
        auto task = std::make_shared<FunctionTask>();
        task->setSessionId(pick(8));
        task->setTaskId(pick(8));
        postOne(task);
      } else if (operation < 55 && !outside.empty()) {
        const size_t index = static_cast<size_t>(pick(static_cast<int>(outside.size())));
        TaskPtr task = outside[index];
        outside.erase(outside.begin() + static_cast<long>(index));
        postOne(task);
      } else if (operation < 62) {
        const int session = pick(8);
        model.cancelBySession(session);
        thread.cancelTaskBySessionId(session);
      } else if (operation < 69) {
        const int taskId = pick(8);
        model.cancelByTaskId(taskId);
        thread.cancelTaskByTaskId(taskId);
      } else {
        TaskPtr expected = model.popFront();
        std::shared_ptr<velmora::base::timer::TimerTaskBase> popped = thread.popFirstTask();
        ASSERT_EQ(popped, expected) << "step " << step;
        if (expected) {
          expected->setNextFireTime(0.0);
          outside.push_back(expected);
        }
      }
      ASSERT_EQ(thread.taskCount(), static_cast<int>(model.slots().size())) << "step " << step;
      ASSERT_TRUE(dueTimesMatch(model)) << "step " << step;
    }
    while (TaskPtr expected = model.popFront()) {
      ASSERT_EQ(thread.popFirstTask(), expected);
    }
    EXPECT_EQ(thread.popFirstTask(), nullptr);
  }
}

// With a running worker: the worker is held while random posts and cancels fill the queue with
// due tasks; released, it runs exactly the live tasks in model order. A second round posts
// tasks of the first again.
TEST_F(TimerThreadOrderTest, RunOrderIsTheModelOrderWithoutTheCancelledTasks) {
  std::mt19937 random(20261122);
  auto pick = [&random](int limit) {
    return std::uniform_int_distribution<int>(0, limit - 1)(random);
  };
  TimerThread thread;
  Recorder order;
  std::vector<TaskPtr> all;
  for (int id = 0; id < 600; ++id) {
    all.push_back(std::make_shared<FunctionTask>([&order, id] { order.add(id); }));
    all.back()->setSessionId(pick(10));
    all.back()->setTaskId(pick(10));
  }
  size_t expectedRuns = 0;
  size_t expectedDrops = 0;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    Latch started;
    Latch release;
    auto gate = std::make_shared<FunctionTask>([&] {
      started.countDown();
      release.wait(std::chrono::seconds(30));
    });
    gate->setNextFireTime(monotonicNow());
    thread.postTask(gate);
    ASSERT_TRUE(started.wait());

    QueueModel model;
    const double base = monotonicNow() - 5.0;
    // Round 0 posts the first 400 tasks, round 1 every second task of them and the last 200.
    std::vector<TaskPtr> toPost;
    for (int id = 0; id < 600; ++id) {
      if ((round == 0 && id < 400) || (round == 1 && (id >= 400 || id % 2 == 0))) {
        toPost.push_back(all[static_cast<size_t>(id)]);
      }
    }
    std::shuffle(toPost.begin(), toPost.end(), random);
    for (const TaskPtr& task : toPost) {
      task->setNextFireTime(base + pick(15) * 0.001);
      thread.postTask(task);
      model.post(task);
      if (pick(10) == 0) {
        const int session = pick(10);
        model.cancelBySession(session);
        thread.cancelTaskBySessionId(session);
      } else if (pick(10) == 0) {
        const int taskId = pick(10);
        model.cancelByTaskId(taskId);
        thread.cancelTaskByTaskId(taskId);
      }
    }
    ASSERT_TRUE(dueTimesMatch(model));
    ASSERT_EQ(thread.taskCount(), static_cast<int>(model.slots().size()));
    std::vector<int> expected = order.values();
    for (const auto& slot : model.slots()) {
      if (slot.due != 0.0) {
        for (size_t id = 0; id < all.size(); ++id) {
          if (all[id] == slot.task) {
            expected.push_back(static_cast<int>(id));
          }
        }
        ++expectedRuns;
      } else {
        ++expectedDrops;
      }
    }
    release.countDown();
    ASSERT_TRUE(order.waitForSize(expectedRuns));
    // A final task shows that the worker has gone through the whole queue.
    Latch end;
    auto last = std::make_shared<FunctionTask>([&] { end.countDown(); });
    last->setNextFireTime(monotonicNow());
    thread.postTask(last);
    ASSERT_TRUE(end.wait());
    EXPECT_EQ(order.values(), expected);
    EXPECT_EQ(thread.taskCount(), 0);
  }
  EXPECT_GT(expectedDrops, 10u);
}

}  // namespace
