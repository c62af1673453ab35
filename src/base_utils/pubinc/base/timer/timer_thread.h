/// @file
/// TimerThread: one worker thread with its own queue of timer tasks, kept in ascending order of
/// due time. Any thread may post, cancel or query; the worker starts with the first post, sleeps
/// until the front task is due (at most one second at a time while the queue is empty), drops
/// cancelled tasks, puts back tasks it took too early, and runs due tasks one by one with no lock
/// held.
///
///     velmora::base::timer::TimerThread thread;
///     thread.postTask(task, 200);  // due 200 ms from now
///     thread.cancelTaskBySessionId(task->sessionId());
///
/// Deliberate behaviour:
/// - Equal due times run in posting order; a cancelled task stays queued (and counted by
///   taskCount) until it reaches the front, where it is dropped. Cancels do not wake the worker.
/// - If the worker cannot be created, the first post throws std::runtime_error("Thread
///   initialization failed") and every later post only queues its task, which then never runs.
///   A failed allocation (std::bad_alloc) leaves the thread as it was: the next post tries again.
/// - stop() (and the destructor) ends and joins the worker; pending tasks are kept, and a later
///   post starts a new worker. Destroying the thread releases pending tasks without running them.
/// - At most one worker runs the loop at any moment: a worker started by a post that races with
///   stop() begins only once the stopped one has left its loop (the post does not wait for it).
/// - The run() loop and its steps are public for the worker's sake; callers only post, cancel and
///   query.
///
/// Log lines use the tag "B-LOG" and the source name timer_thread.cpp; each message is quoted
/// below with its level and the line number its log line prints. The constructor, destructor,
/// start() and stop() also write "[TRACE] ..." point traces at level 5000.
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

/// The record of one started thread: its owner and its handle. Releasing it stops the owner and
/// joins the thread.
template <typename Owner>
class BasicThread {
 public:
  /// A record for owner; the caller starts the thread with entry() and handle().
  explicit BasicThread(Owner* owner) : owner_(owner), handle_() {}
  /// Calls owner->stop() and joins the thread; the join's result is ignored (a thread that
  /// releases its own record cannot join itself, and goes on).
  ~BasicThread() {
    owner_->stop();
    pthread_join(handle_, nullptr);
  }

  /// Not copyable: the record stands for one thread.
  BasicThread(const BasicThread&) = delete;
  /// Not assignable.
  BasicThread& operator=(const BasicThread&) = delete;

  /// The thread entry for pthread_create: record is the BasicThread; runs owner->run().
  static void* entry(void* record) {
    static_cast<BasicThread*>(record)->owner_->run();
    return nullptr;
  }

  /// Where pthread_create stores the thread's handle.
  pthread_t* handle() { return &handle_; }
  /// The object whose loop the thread runs.
  Owner* owner() const { return owner_; }

 private:
  Owner* owner_;
  pthread_t handle_;
};

}  // namespace Threading

namespace timer {

/// One worker thread with its own due-time-ordered queue of tasks; see the file's description.
/// The queue queries and posts lock with AutoLock, so a lock failure is logged there and the
/// operation goes on.
class VELMORA_BASE_EXPORT TimerThread {
 public:
  /// An empty queue and no worker; the worker starts with the first post.
  TimerThread();
  /// Stops and joins the worker; pending tasks are released without running. Other threads must
  /// have stopped posting and returned from stop() first.
  ~TimerThread();

  /// Not copyable: the worker holds the address.
  TimerThread(const TimerThread&) = delete;
  /// Not assignable.
  TimerThread& operator=(const TimerThread&) = delete;

  /// Creates the worker; throws std::runtime_error("Thread initialization failed") on failure.
  /// A worker already running is replaced: it is told to end and joined, and the new one begins
  /// once it has left. Normally called by the first postTask, not by callers.
  void start();
  /// Ends the worker's loop and joins it; queued tasks stay queued and a later post starts a
  /// new worker. Logs `"Wakeup worker\n"` (level 5000, line 49) when a worker existed. Waits
  /// for the task the worker is running. Called from a task body on the worker itself, it cannot
  /// join: the worker ends after that task and releases itself.
  void stop();

  /// Queues the task behind every task due at the same time or earlier and wakes the worker.
  /// - An empty task is refused with `"Invalid Empty task\n"` (level 1000, line 72).
  /// - A task without a due time is due now, after this line (level 3000, line 79):
  ///   `"Forgot to set Firing Time?default to now(). task id: %d\n"`.
  /// - The first post logs `"Starting Timer Thread %p.\n"` (level 1, line 96) and starts the
  ///   worker; if that fails, the runtime_error leaves this call and later posts only queue
  ///   their tasks, which never run.
  void postTask(std::shared_ptr<TimerTaskBase> task);
  /// Sets the due time to now + delayMs / 1000.0 (a negative delay is in the past) and posts
  /// the task. The task must not be empty: it is used before the check.
  void postTask(std::shared_ptr<TimerTaskBase> task, int delayMs);

  /// Cancels every queued task with this session id by setting its due time to 0.0; the worker
  /// is not woken and drops the task when it reaches the front. A task already running is not
  /// affected. Logs `"CancelTask %d: taskid: %d,firetime:%f(%f)\n"` per task (session id, task
  /// id, now, due time minus now; level 5000, line 137) and `"Canceled Task Count: %d\n"`
  /// (level 5000, line 143).
  void cancelTaskBySessionId(int sessionId);
  /// The same by task id; per task `"CancelTask %d,Session:%d firetime:%f(%f)\n"` (task id,
  /// session id, now, due time minus now; level 5000, line 163), the count at line 169.
  void cancelTaskByTaskId(int taskId);

  /// True when tasks are queued, cancelled ones included.
  bool hasTask();
  /// The number of queued tasks, cancelled ones included.
  int taskCount();
  /// True while the worker is inside a task body.
  bool isBusy();
  /// The worker's kernel thread id, -1 before it has started.
  int threadId() const;

  /// The worker loop; runs on the worker thread only. Logs `"Starting Timer Task Thread\n"`
  /// (level 5000, line 274) and, when stopped, `"Exiting Timer Thread...\n"` (level 1, line
  /// 343). On its way it logs, with the function name "run": `"Task Just Removed?\n"` (level
  /// 1000, line 305) with `"Wait for task: %f s\n"` (307) and `"Task Thread awake.\n"` (309)
  /// at level 5000 when the queue emptied under it; `"Canceled task\n"` (level 5000, line 323)
  /// for a dropped task; `"Put the task back to queue. %f - %f >0 \n"` (level 3000, line 336)
  /// for a task taken before its due time. A lock failure in its waits ends the process.
  void run();
  /// Seconds until the front task is due (zero or negative when overdue); 0.0 for an empty
  /// queue or a cancelled front task, with `"No Task\n"` (level 5000, line 222).
  double getNextFiringInterval();
  /// One timed wait for a post or stop. Returns at once when stopping, logging
  /// `"Request Exit before wait.\n"` (level 3000, line 240), and for a cancelled or due front
  /// task; otherwise after min(time to the front task, seconds) at the latest. The deadline is
  /// taken on the monotonic clock, so a step of the wall clock does not change the wait. A lock
  /// failure throws std::system_error.
  void waitNextTaskWithTimeOut(double seconds);
  /// Removes and returns the front task (empty when the queue is empty).
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
