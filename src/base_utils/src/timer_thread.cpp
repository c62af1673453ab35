// The timer thread: a due-time ordered task queue served by one lazily started worker.
#include "base/timer/timer_thread.h"

#include <time.h>

#include <chrono>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>

#include "base/logging.h"
#include "base/synchronization/auto_lock.h"
#include "base/utils.h"

namespace velmora {
namespace base {
namespace timer {

namespace {

using ThreadRecord = Threading::BasicThread<TimerThread>;

// Monotonic seconds, or -1.0 when the clock cannot be read.
double monotonicNow() {
  timespec now;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    return -1.0;
  }
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A cancelled task keeps its queue slot until it reaches the front.
bool isCancelled(const std::shared_ptr<TimerTaskBase>& task) {
  return task->getNextFireTime() == 0.0;
}

// Releases a started thread's record: stops the owner and joins the thread.
void releaseRecord(ThreadRecord* record) {
  record->~ThreadRecord();
  ::operator delete(record);
}

}  // namespace

// The lines of the loop's task step are reported as the loop's own.
#define VELMORA_RUN_LOG(level, line, format, ...) \
  VELMORA_LOG_FULL("B-LOG", level, line, "run", format, ##__VA_ARGS__)

TimerThread::TimerThread() : running_(false), threadId_(-1), busy_(false) {
  VELMORA_TRACE_POINT_AT(16);
}

TimerThread::~TimerThread() {
  VELMORA_TRACE_POINT_AT(22);
  running_.store(false, std::memory_order_relaxed);
  stop();
  thread_.reset();
}

void TimerThread::start() {
  VELMORA_TRACE_POINT_AT(31);
  running_.store(true, std::memory_order_relaxed);
  // The record is built in raw storage so that a failed creation can free it without running
  // its destructor, which would stop this thread and join a thread that never existed.
  void* storage = ::operator new(sizeof(ThreadRecord));
  ThreadRecord* record = new (storage) ThreadRecord(this);
  if (pthread_create(record->handle(), nullptr, &ThreadRecord::entry, record) != 0) {
    ::operator delete(storage);
    throw std::runtime_error("Thread initialization failed");
  }
  std::shared_ptr<ThreadRecord> started(record, &releaseRecord);
  std::shared_ptr<ThreadRecord> previous;
  {
    AutoLock<std::mutex> lock(mutex_);
    previous = std::move(thread_);
    thread_ = std::move(started);
  }
  previous.reset();
  VELMORA_TRACE_POINT_AT(34);
}

void TimerThread::stop() {
  VELMORA_TRACE_POINT_AT(39);
  running_.store(false, std::memory_order_relaxed);
  std::shared_ptr<ThreadRecord> thread;
  {
    AutoLock<std::mutex> lock(mutex_);
    thread = std::move(thread_);
  }
  if (thread) {
    VELMORA_LOG_AT(kLogVerbose, 49, "Wakeup worker\n");
    AutoLock<std::mutex> lock(mutex_);
    cond_.notify_one();
  }
  VELMORA_TRACE_POINT_AT(58);
  // Dropping the last reference to the record stops again (a no-op) and joins the worker.
}

void TimerThread::postTask(std::shared_ptr<TimerTaskBase> task) {
  if (!task) {
    VELMORA_LOG_AT(kLogError, 72, "Invalid Empty task\n");
    return;
  }
  if (task->getNextFireTime() == 0.0) {
    VELMORA_LOG_AT(kLogWarning, 79, "Forgot to set Firing Time?default to now(). task id: %d\n",
                   task->taskId());
    task->setNextFireTime(monotonicNow());
  }
  bool startWorker = false;
  {
    AutoLock<std::mutex> lock(mutex_);
    if (!running_.load(std::memory_order_relaxed) && !thread_) {
      running_.store(true, std::memory_order_relaxed);
      startWorker = true;
    }
  }
  if (startWorker) {
    VELMORA_LOG_AT(kLogCritical, 96, "Starting Timer Thread %p.\n", static_cast<void*>(this));
    start();
  }
  AutoLock<std::mutex> lock(mutex_);
  insertTask(std::move(task));
  cond_.notify_one();
}

void TimerThread::postTask(std::shared_ptr<TimerTaskBase> task, int delayMs) {
  task->setNextFireTime(monotonicNow() + delayMs / 1000.0);
  postTask(task);
}

// Inserts before the first live task due strictly later than the new one, walking over
// cancelled tasks: the order a walk from the front gives. Live tasks are always in ascending
// order, so the search runs from the back and stops at the first live task due no later than
// the new one, which makes posts with non-decreasing due times cost O(1) however long the
// queue is.
void TimerThread::insertTask(std::shared_ptr<TimerTaskBase> task) {
  const double due = task->getNextFireTime();
  auto position = tasks_.end();
  for (auto it = tasks_.end(); it != tasks_.begin();) {
    --it;
    if (isCancelled(*it)) {
      continue;
    }
    if ((*it)->getNextFireTime() <= due) {
      break;
    }
    position = it;
  }
  tasks_.insert(position, std::move(task));
}

void TimerThread::cancelTaskBySessionId(int sessionId) {
  int count = 0;
  {
    AutoLock<std::mutex> lock(mutex_);
    for (const std::shared_ptr<TimerTaskBase>& task : tasks_) {
      if (task && task->sessionId() == sessionId) {
        const double due = task->getNextFireTime();
        const double now = monotonicNow();
        VELMORA_LOG_AT(kLogVerbose, 137, "CancelTask %d: taskid: %d,firetime:%f(%f)\n", sessionId,
                       task->taskId(), now, due - now);
        task->setNextFireTime(0.0);
        ++count;
      }
    }
  }
  VELMORA_LOG_AT(kLogVerbose, 143, "Canceled Task Count: %d\n", count);
}

void TimerThread::cancelTaskByTaskId(int taskId) {
  int count = 0;
  {
    AutoLock<std::mutex> lock(mutex_);
    for (const std::shared_ptr<TimerTaskBase>& task : tasks_) {
      if (task && task->taskId() == taskId) {
        const double due = task->getNextFireTime();
        const double now = monotonicNow();
        VELMORA_LOG_AT(kLogVerbose, 163, "CancelTask %d,Session:%d firetime:%f(%f)\n", taskId,
                       task->sessionId(), now, due - now);
        task->setNextFireTime(0.0);
        ++count;
      }
    }
  }
  VELMORA_LOG_AT(kLogVerbose, 169, "Canceled Task Count: %d\n", count);
}

bool TimerThread::hasTask() {
  AutoLock<std::mutex> lock(mutex_);
  return !tasks_.empty();
}

int TimerThread::taskCount() {
  AutoLock<std::mutex> lock(mutex_);
  return static_cast<int>(tasks_.size());
}

bool TimerThread::isBusy() {
  AutoLock<std::mutex> lock(mutex_);
  return busy_.load(std::memory_order_relaxed);
}

int TimerThread::threadId() const {
  return threadId_.load(std::memory_order_acquire);
}

double TimerThread::getNextFiringInterval() {
  double due = 0.0;
  {
    AutoLock<std::mutex> lock(mutex_);
    if (!tasks_.empty()) {
      due = tasks_.front()->getNextFireTime();
    }
  }
  if (due != 0.0) {
    return due - monotonicNow();
  }
  VELMORA_LOG_AT(kLogVerbose, 222, "No Task\n");
  return 0.0;
}

void TimerThread::waitNextTaskWithTimeOut(double seconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!running_.load(std::memory_order_relaxed)) {
    VELMORA_LOG_AT(kLogWarning, 240, "Request Exit before wait.\n");
    return;
  }
  double interval = seconds;
  if (!tasks_.empty()) {
    const double due = tasks_.front()->getNextFireTime();
    if (due == 0.0) {
      return;
    }
    const double untilDue = due - monotonicNow();
    if (untilDue <= 0) {
      return;
    }
    if (untilDue < seconds) {
      interval = untilDue;
    }
  }
  // The deadline is on the monotonic clock, like the due times, so that a step of the wall
  // clock neither stretches nor cuts the wait.
  const auto wait = std::chrono::nanoseconds(static_cast<int64_t>(interval * 1e9));
  cond_.wait_until(lock, std::chrono::steady_clock::now() +
                             std::chrono::duration_cast<std::chrono::steady_clock::duration>(wait));
}

std::shared_ptr<TimerTaskBase> TimerThread::popFirstTask() {
  AutoLock<std::mutex> lock(mutex_);
  if (tasks_.empty()) {
    return nullptr;
  }
  std::shared_ptr<TimerTaskBase> task = std::move(tasks_.front());
  tasks_.pop_front();
  return task;
}

void TimerThread::run() {
  VELMORA_LOG_AT(kLogVerbose, 274, "Starting Timer Task Thread\n");
  threadId_.store(currentThread(), std::memory_order_release);
  for (;;) {
    if (!running_.load(std::memory_order_relaxed)) {
      VELMORA_LOG_AT(kLogCritical, 343, "Exiting Timer Thread...\n");
      return;
    }
    if (!hasTask()) {
      waitNextTaskWithTimeOut(1.0);
      continue;
    }
    const double interval = getNextFiringInterval();
    if (interval > 0) {
      waitNextTaskWithTimeOut(interval);
      continue;
    }
    runFirstTask();
  }
}

// One pass over the front task: drop it if cancelled, put it back if early, else run it with
// no lock held.
void TimerThread::runFirstTask() {
  std::shared_ptr<TimerTaskBase> task = popFirstTask();
  if (!task) {
    VELMORA_RUN_LOG(kLogError, 305, "Task Just Removed?\n");
    VELMORA_RUN_LOG(kLogVerbose, 307, "Wait for task: %f s\n", 1.0);
    waitNextTaskWithTimeOut(1.0);
    VELMORA_RUN_LOG(kLogVerbose, 309, "Task Thread awake.\n");
    return;
  }
  const double due = task->getNextFireTime();
  if (due == 0.0) {
    VELMORA_RUN_LOG(kLogVerbose, 323, "Canceled task\n");
    return;
  }
  const double now = monotonicNow();
  if (due > now) {
    VELMORA_RUN_LOG(kLogWarning, 336, "Put the task back to queue. %f - %f >0 \n", due, now);
    postTask(task);
    return;
  }
  busy_.store(true, std::memory_order_relaxed);
  task->execute();
  busy_.store(false, std::memory_order_relaxed);
}

}  // namespace timer
}  // namespace base
}  // namespace velmora
