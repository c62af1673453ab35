// TimerThreadPool: the process-wide set of task threads. Three named TimerThreads (main,
// foreground, background) take tasks for their role; independent tasks go to a group of worker
// TimerThreads that grows on demand up to a limit (2 unless init() says otherwise). Every thread
// starts with its first task and runs until the process ends.
//
//   using velmora::base::timer::TimerThreadPool;
//   TimerThreadPool::postBackgroundTask(task);
//   if (TimerThreadPool::isMainThread()) { ... }
//
// postWorkerTask picks the first worker with an empty queue (a worker still running its last
// task counts as idle), otherwise creates a worker while below the limit, otherwise the worker
// with the smallest load (queued tasks, plus one while running a task; the lowest index wins
// ties). With a limit of 0 or less and no worker, the task is dropped with an error line.
// Lock order: the pool's mutex, then a thread's queue mutex.
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

class VELMORA_BASE_EXPORT TimerThreadPool {
 public:
  // Named threads without workers, limit 2. Throws std::runtime_error when the mutex cannot be
  // initialised. Use GetInstance(); the process-wide instance is never destroyed.
  TimerThreadPool();
  ~TimerThreadPool();

  TimerThreadPool(const TimerThreadPool&) = delete;
  TimerThreadPool& operator=(const TimerThreadPool&) = delete;

  static TimerThreadPool* GetInstance();
  static TimerThreadPool* getInstance();

  // Sets the worker limit; existing workers stay, a lower limit only stops further growth.
  static void init(int maxWorkers);

  // Whether the calling thread is the named thread (false until that thread has started).
  static bool isMainThread();
  static bool isForegroundThread();
  static bool isBackgroundThread();

  static void postMainThreadTask(std::shared_ptr<TimerTaskBase> task);
  static void postForegroundTask(std::shared_ptr<TimerTaskBase> task);
  static void postBackgroundTask(std::shared_ptr<TimerTaskBase> task);
  // Hands the task to an idle, a new or the least-loaded worker.
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
