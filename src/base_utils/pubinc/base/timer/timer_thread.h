// TimerThread: one worker thread with its own queue of timer tasks, kept in ascending order of
// due time. Any thread may post, cancel or query; the worker starts with the first post, sleeps
// until the front task is due (at most one second at a time while the queue is empty), drops
// cancelled tasks, puts back tasks it took too early, and runs due tasks one by one with no lock
// held.
//
//   velmora::base::timer::TimerThread thread;
//   thread.postTask(task, 200);          // due 200 ms from now
//   thread.cancelTaskBySessionId(task->sessionId());
//
// Deliberate behaviour:
// - Equal due times run in posting order; a cancelled task stays queued (and counted by
//   taskCount) until it reaches the front, where it is dropped. Cancels do not wake the worker.
// - If the worker cannot be created, the first post throws std::runtime_error("Thread
//   initialization failed") and every later post only queues its task, which then never runs.
// - stop() (and the destructor) ends and joins the worker; pending tasks are kept, and a later
//   post starts a new worker. Destroying the thread releases pending tasks without running them.
// - The run() loop and its steps are public for the worker's sake; callers only post, cancel and
//   query.
#ifndef VELMORA_BASE_TIMER_TIMER_THREAD_H
#define VELMORA_BASE_TIMER_TIMER_THREAD_H

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

#include "base/export.h"
#include "base/timer/timer_task.h"

namespace velmora {
namespace base {
namespace Threading {

// The record of one started thread: its owner and its handle. Releasing it stops the owner and
// joins the thread.
template <typename Owner>
class BasicThread {
 public:
  explicit BasicThread(Owner* owner) : owner_(owner), handle_() {}
  ~BasicThread() {
    owner_->stop();
    pthread_join(handle_, nullptr);
  }

  BasicThread(const BasicThread&) = delete;
  BasicThread& operator=(const BasicThread&) = delete;

  // The thread entry: record is the BasicThread; runs the owner's loop.
  static void* entry(void* record) {
    static_cast<BasicThread*>(record)->owner_->run();
    return nullptr;
  }

  pthread_t* handle() { return &handle_; }

 private:
  Owner* owner_;
  pthread_t handle_;
};

}  // namespace Threading

namespace timer {

class VELMORA_BASE_EXPORT TimerThread {
 public:
  TimerThread();
  // Stops and joins the worker; pending tasks are released without running.
  ~TimerThread();

  TimerThread(const TimerThread&) = delete;
  TimerThread& operator=(const TimerThread&) = delete;

  // Creates the worker; throws std::runtime_error("Thread initialization failed") on failure.
  void start();
  // Ends the worker's loop and joins it; queued tasks stay queued.
  void stop();

  // Queues the task behind every task due at the same time or earlier; a task without a due
  // time is due now. An empty task is refused. Starts the worker on the first post.
  void postTask(std::shared_ptr<TimerTaskBase> task);
  // Sets the due time to now + delayMs / 1000.0 and posts the task (which must not be empty).
  void postTask(std::shared_ptr<TimerTaskBase> task, int delayMs);

  // Cancels every queued task with this session id (or task id); the worker is not woken.
  void cancelTaskBySessionId(int sessionId);
  void cancelTaskByTaskId(int taskId);

  // Queued tasks, cancelled ones included.
  bool hasTask();
  int taskCount();
  // True while the worker is inside a task body.
  bool isBusy();
  // The worker's kernel thread id, -1 before it has started.
  int threadId() const { return threadId_.load(std::memory_order_acquire); }

  // The worker loop; runs on the worker thread only.
  void run();
  // Seconds until the front task is due (0.0 for an empty queue or a cancelled front task).
  double getNextFiringInterval();
  // One timed wait for a post or stop: returns at once when stopping, for a cancelled or due
  // front task, and otherwise after min(time to the front task, seconds) at the latest.
  void waitNextTaskWithTimeOut(double seconds);
  // Removes and returns the front task (empty when the queue is empty).
  std::shared_ptr<TimerTaskBase> popFirstTask();

 private:
  void insertTask(std::shared_ptr<TimerTaskBase> task);
  void runFirstTask();

  std::deque<std::shared_ptr<TimerTaskBase>> tasks_;
  std::atomic<bool> running_;
  std::atomic<int> threadId_;
  std::mutex mutex_;
  std::condition_variable cond_;
  std::shared_ptr<Threading::BasicThread<TimerThread>> thread_;
  std::atomic<bool> busy_;
};

}  // namespace timer
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_TIMER_TIMER_THREAD_H
