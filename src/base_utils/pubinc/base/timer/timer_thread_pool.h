/// @file
/// TimerThreadPool: the process-wide set of task threads. Three named TimerThreads (main,
/// foreground, background) take tasks for their role; independent tasks go to a group of worker
/// TimerThreads that grows on demand up to a limit (2 unless init() says otherwise). Every thread
/// starts with its first task and runs until the process ends.
///
///     using velmora::base::timer::TimerThreadPool;
///     TimerThreadPool::postBackgroundTask(task);
///     if (TimerThreadPool::isMainThread()) { ... }
///
/// postWorkerTask picks the first worker with an empty queue (a worker still running its last
/// task counts as idle), otherwise creates a worker while below the limit, otherwise the worker
/// with the smallest load (queued tasks, plus one while running a task; the lowest index wins
/// ties). With a limit of 0 or less and no worker, the task is dropped with an error line.
/// Lock order: the pool's mutex, then a thread's queue mutex.
///
/// Log lines use the tag "B-LOG" and the source name timer_thread_pool.cpp; each message is
/// quoted below with its level and the line number its log line prints.
#ifndef VELMORA_BASE_TIMER_TIMER_THREAD_POOL_H
#define VELMORA_BASE_TIMER_TIMER_THREAD_POOL_H

#include <atomic>
#include <memory>
#include <vector>

#include "base/export.h"
#include "base/singleton.h"
#include "base/synchronization/auto_lock.h"
#include "base/timer/timer_task.h"
#include "base/timer/timer_thread.h"

namespace velmora {
namespace base {
namespace timer {

/// The process-wide pool of task threads; see the file's description. Its interface is static
/// and reaches the one instance through GetInstance().
class VELMORA_BASE_EXPORT TimerThreadPool {
 public:
  /// Named threads without workers, limit 2. Throws std::runtime_error ("Mutex init error: "
  /// and the system's reason) when the mutex cannot be initialised; GetInstance() then never
  /// succeeds again. Use GetInstance(); the process-wide instance is never destroyed.
  TimerThreadPool();
  /// Releases the workers, then the background, foreground and main threads, each stopped and
  /// joined. Never called for the process-wide instance.
  ~TimerThreadPool();

  /// Not copyable: there is one instance.
  TimerThreadPool(const TimerThreadPool&) = delete;
  /// Not assignable.
  TimerThreadPool& operator=(const TimerThreadPool&) = delete;

  /// The one instance, created by the first caller (concurrent first callers wait for it).
  static TimerThreadPool* GetInstance();
  /// The same as GetInstance(); both names are part of the interface.
  static TimerThreadPool* getInstance();

  /// Sets the worker limit; existing workers stay, a lower limit only stops further growth.
  /// May be called at any time; with 0 or less before any worker exists, postWorkerTask drops
  /// its tasks.
  static void init(int maxWorkers);

  /// Whether the calling thread is the main thread (false until that thread has started).
  static bool isMainThread();
  /// Whether the calling thread is the foreground thread (false until it has started).
  static bool isForegroundThread();
  /// Whether the calling thread is the background thread (false until it has started).
  static bool isBackgroundThread();

  /// Posts the task to the main thread (TimerThread::postTask: ordered by due time, thread
  /// started by its first task, an empty task refused with `"Invalid Empty task\n"`).
  static void postMainThreadTask(std::shared_ptr<TimerTaskBase> task);
  /// Posts the task to the foreground thread, as postMainThreadTask does to the main thread.
  static void postForegroundTask(std::shared_ptr<TimerTaskBase> task);
  /// Posts the task to the background thread, as postMainThreadTask does to the main thread.
  static void postBackgroundTask(std::shared_ptr<TimerTaskBase> task);
  /// Hands the task to an idle, a new or the least-loaded worker, under the pool's mutex (the
  /// function name in its lines is "postWorkerTask"; a scope trace at line 142, level 5000,
  /// surrounds it):
  /// - the first worker with an empty queue, even if it is still running its last task;
  /// - otherwise, below the limit, a new worker: `"Crate Worker Thread: %d\n"` with its index
  ///   (level 1, line 158);
  /// - otherwise `"Worker Count: %d\n"` (level 4000, line 166) and the worker with the smallest
  ///   load (queued tasks plus one while busy; the lowest index wins ties), logged as
  ///   `"Post To Worker %d : taskcount: %d\n"` (level 4000, line 185);
  /// - with no worker at all (limit 0 or less) the task is dropped with
  ///   `"No worker threads available. ignore task.\n"` (level 1000, line 168).
  ///
  /// If a new worker cannot be started, std::runtime_error("Thread initialization failed")
  /// passes through and the worker stays in the pool. A failed allocation (std::bad_alloc)
  /// leaves the pool and its workers as they were: the next post tries again.
  static void postWorkerTask(std::shared_ptr<TimerTaskBase> task);

 private:
  void postToWorker(std::shared_ptr<TimerTaskBase> task);
  bool postToIdleWorker(const std::shared_ptr<TimerTaskBase>& task);
  void postToLeastLoadedWorker(const std::shared_ptr<TimerTaskBase>& task);

  TimerThread mainThread_;
  TimerThread foregroundThread_;
  TimerThread backgroundThread_;
  std::vector<std::shared_ptr<TimerThread>> workers_;
  Mutex mutex_;
  std::atomic<int> maxWorkers_;
};

}  // namespace timer

extern template class VELMORA_BASE_EXPORT Singleton<
    timer::TimerThreadPool, DefaultSingletonTraits<timer::TimerThreadPool>, timer::TimerThreadPool>;

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_TIMER_TIMER_THREAD_POOL_H
