// The process-wide pool of named timer threads and workers.
#include "base/timer/timer_thread_pool.h"

#include <new>
#include <utility>

#include "base/logging.h"
#include "base/utils.h"

namespace velmora {
namespace base {

template class Singleton<timer::TimerThreadPool, DefaultSingletonTraits<timer::TimerThreadPool>,
                         timer::TimerThreadPool>;

namespace timer {

namespace {

// A load no worker reaches; the least-loaded search starts from it.
constexpr int kNoLoad = 99999;

bool isThread(const TimerThread& thread) {
  return thread.threadId() == currentThread();
}

// Appends a new worker and posts the task to it; called with the pool's mutex held. An
// allocation failure on the way leaves the workers as they were, so that the next post creates
// the worker again; a thread that cannot be created leaves the worker in the pool without a
// thread, as the runtime_error it throws says.
void postToNewWorker(std::vector<std::shared_ptr<TimerThread>>& workers,
                     std::shared_ptr<TimerTaskBase> task) {
  workers.reserve(workers.size() + 1);
  VELMORA_LOG_FULL("B-LOG", kLogCritical, 158, "postWorkerTask", "Crate Worker Thread: %d\n",
                   static_cast<int>(workers.size()));
  workers.push_back(std::make_shared<TimerThread>());
  try {
    workers.back()->postTask(std::move(task));
  } catch (const std::bad_alloc&) {
    workers.pop_back();
    throw;
  }
}

}  // namespace

TimerThreadPool::TimerThreadPool() : maxWorkers_(2) {}

TimerThreadPool::~TimerThreadPool() = default;

TimerThreadPool* TimerThreadPool::GetInstance() {
  return Singleton<TimerThreadPool, DefaultSingletonTraits<TimerThreadPool>,
                   TimerThreadPool>::get();
}

TimerThreadPool* TimerThreadPool::getInstance() {
  return GetInstance();
}

void TimerThreadPool::init(int maxWorkers) {
  GetInstance()->maxWorkers_.store(maxWorkers, std::memory_order_relaxed);
}

bool TimerThreadPool::isMainThread() {
  return isThread(GetInstance()->mainThread_);
}

bool TimerThreadPool::isForegroundThread() {
  return isThread(GetInstance()->foregroundThread_);
}

bool TimerThreadPool::isBackgroundThread() {
  return isThread(GetInstance()->backgroundThread_);
}

void TimerThreadPool::postMainThreadTask(std::shared_ptr<TimerTaskBase> task) {
  GetInstance()->mainThread_.postTask(std::move(task));
}

void TimerThreadPool::postForegroundTask(std::shared_ptr<TimerTaskBase> task) {
  GetInstance()->foregroundThread_.postTask(std::move(task));
}

void TimerThreadPool::postBackgroundTask(std::shared_ptr<TimerTaskBase> task) {
  GetInstance()->backgroundThread_.postTask(std::move(task));
}

void TimerThreadPool::postWorkerTask(std::shared_ptr<TimerTaskBase> task) {
  VELMORA_TRACE_SCOPE_AT(142);
  TimerThreadPool* pool = GetInstance();
  AutoLock<Mutex> lock(pool->mutex_);
  pool->postToWorker(std::move(task));
}

// The worker choice; runs under mutex_.
void TimerThreadPool::postToWorker(std::shared_ptr<TimerTaskBase> task) {
  if (postToIdleWorker(task)) {
    return;
  }
  const int count = static_cast<int>(workers_.size());
  if (count < maxWorkers_.load(std::memory_order_relaxed)) {
    postToNewWorker(workers_, std::move(task));
    return;
  }
  VELMORA_LOG_FULL("B-LOG", kLogInfo, 166, "postWorkerTask", "Worker Count: %d\n", count);
  if (count == 0) {
    VELMORA_LOG_FULL("B-LOG", kLogError, 168, "postWorkerTask",
                     "No worker threads available. ignore task.\n");
    return;
  }
  postToLeastLoadedWorker(task);
}

// Idleness is an empty queue: a worker running its last task counts as idle.
bool TimerThreadPool::postToIdleWorker(const std::shared_ptr<TimerTaskBase>& task) {
  for (const std::shared_ptr<TimerThread>& worker : workers_) {
    if (worker && !worker->hasTask()) {
      worker->postTask(task);
      return true;
    }
  }
  return false;
}

// Load is the queue length plus one while busy; only a strictly smaller load replaces the
// current choice, so the lowest index wins ties.
void TimerThreadPool::postToLeastLoadedWorker(const std::shared_ptr<TimerTaskBase>& task) {
  int best = 0;
  int bestLoad = kNoLoad;
  for (size_t index = 0; index < workers_.size(); ++index) {
    const std::shared_ptr<TimerThread>& worker = workers_[index];
    if (!worker) {
      continue;
    }
    const int load = worker->taskCount() + (worker->isBusy() ? 1 : 0);
    if (load < bestLoad) {
      bestLoad = load;
      best = static_cast<int>(index);
    }
  }
  VELMORA_LOG_FULL("B-LOG", kLogInfo, 185, "postWorkerTask", "Post To Worker %d : taskcount: %d\n",
                   best, bestLoad);
  workers_[best]->postTask(task);
}

}  // namespace timer
}  // namespace base
}  // namespace velmora
