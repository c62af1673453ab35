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

// The name start() prints in its traces, also when a post launches the worker itself.
constexpr char kStartFunction[] = "void velmora::base::timer::TimerThread::start()";

// The record of one launched worker. A post after stop() sets running_ again, so a worker that
// stop() has ended cannot go by running_: it goes by the stop request in its own record, which
// stop() sets when it takes the record out of thread_.
class WorkerRecord : public ThreadRecord {
 public:
  explicit WorkerRecord(TimerThread* owner) : ThreadRecord(owner) {}

  // Set by stop() under the owner's mutex_; the worker's loop ends when it finds it set.
  std::atomic<bool> stopRequested{false};
  // Whether pthread_create made the thread; written before the record is shared.
  bool launched = false;
  // Released on its own worker, which cannot join itself: the worker frees the record when it
  // leaves. Written and read on the worker's thread only.
  bool orphaned = false;
  // The next younger launched worker (guarded by g_launchedMutex).
  WorkerRecord* nextLaunched = nullptr;
};

// The workers launched and not yet out of run(), oldest first, of every timer thread. A worker
// begins its loop only once it is the oldest of its timer thread's, that is once the worker it
// replaces has left: a timer thread never runs two loops at once, and the waiting is done by the
// new worker, never by a post. Lock order: a timer thread's mutex_, then g_launchedMutex, which
// guards the list and nothing else. Statically initialised and never destroyed, since the pool's
// workers outlive the program's static destructors.
pthread_mutex_t g_launchedMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_workerLeft = PTHREAD_COND_INITIALIZER;
WorkerRecord* g_oldestLaunched = nullptr;

// Holds g_launchedMutex for one scope.
class LaunchedListLock {
 public:
  LaunchedListLock() { pthread_mutex_lock(&g_launchedMutex); }
  ~LaunchedListLock() { pthread_mutex_unlock(&g_launchedMutex); }
  LaunchedListLock(const LaunchedListLock&) = delete;
  LaunchedListLock& operator=(const LaunchedListLock&) = delete;
};

void addLaunched(WorkerRecord* record) {
  LaunchedListLock lock;
  WorkerRecord** link = &g_oldestLaunched;
  while (*link != nullptr) {
    link = &(*link)->nextLaunched;
  }
  *link = record;
}

void removeLaunched(WorkerRecord* record) {
  LaunchedListLock lock;
  for (WorkerRecord** link = &g_oldestLaunched; *link != nullptr; link = &(*link)->nextLaunched) {
    if (*link == record) {
      *link = record->nextLaunched;
      break;
    }
  }
  pthread_cond_broadcast(&g_workerLeft);
}

// Whether a worker of the same timer thread was launched before record and is still in its
// loop; g_launchedMutex held.
bool hasEarlierWorkerLocked(const WorkerRecord* record) {
  for (const WorkerRecord* other = g_oldestLaunched; other != record; other = other->nextLaunched) {
    if (other->owner() == record->owner()) {
      return true;
    }
  }
  return false;
}

// Whether a worker of owner other than calling is still in its loop; g_launchedMutex held.
bool hasOtherWorkerLocked(const TimerThread* owner, const WorkerRecord* calling) {
  for (const WorkerRecord* other = g_oldestLaunched; other != nullptr;
       other = other->nextLaunched) {
    if (other != calling && other->owner() == owner) {
      return true;
    }
  }
  return false;
}

// Waits until every worker of the same timer thread launched before record has left its loop.
void waitForEarlierWorkers(const WorkerRecord* record) {
  LaunchedListLock lock;
  while (hasEarlierWorkerLocked(record)) {
    pthread_cond_wait(&g_workerLeft, &g_launchedMutex);
  }
}

// Waits until every worker of owner other than calling has left its loop.
void waitForOtherWorkers(const TimerThread* owner, const WorkerRecord* calling) {
  LaunchedListLock lock;
  while (hasOtherWorkerLocked(owner, calling)) {
    pthread_cond_wait(&g_workerLeft, &g_launchedMutex);
  }
}

// The record of the worker running on this thread, if it is one.
thread_local WorkerRecord* t_worker = nullptr;
// The timer thread whose worker record this thread is releasing. The release stops the owner
// once more, which is meant to be a no-op and must not end a worker that a post has started
// since the record was taken out of thread_.
thread_local const TimerThread* t_releasingRecordOf = nullptr;

WorkerRecord* workerOf(const TimerThread* owner) {
  return t_worker != nullptr && t_worker->owner() == owner ? t_worker : nullptr;
}

// Whether the loop of owner running on this thread is to end: a worker ends on its own stop
// request; any other caller of the loop's steps goes by running.
bool loopMustEnd(const TimerThread* owner, const std::atomic<bool>& running) {
  const WorkerRecord* worker = workerOf(owner);
  if (worker != nullptr) {
    return worker->stopRequested.load(std::memory_order_acquire);
  }
  return !running.load(std::memory_order_relaxed);
}

void requestStop(const std::shared_ptr<ThreadRecord>& record) {
  static_cast<WorkerRecord*>(record.get())->stopRequested.store(true, std::memory_order_release);
}

// The deleter of a worker record: stops the owner (a no-op by now) and joins the worker. A record
// whose thread was never made is only freed; one released on its own worker is left to it.
void releaseRecord(ThreadRecord* released) {
  WorkerRecord* record = static_cast<WorkerRecord*>(released);
  if (!record->launched) {
    ::operator delete(record);
    return;
  }
  t_releasingRecordOf = record->owner();
  if (record == t_worker) {
    record->owner()->stop();
    record->orphaned = true;
  } else {
    record->~WorkerRecord();
    ::operator delete(record);
  }
  t_releasingRecordOf = nullptr;
}

// The thread entry: the owner's loop, then off the launched list. A worker whose record was
// released on it detaches, since nobody joins it, and frees the record.
void* runWorker(void* argument) {
  WorkerRecord* record = static_cast<WorkerRecord*>(argument);
  t_worker = record;
  record->owner()->run();
  t_worker = nullptr;
  const bool orphaned = record->orphaned;
  removeLaunched(record);
  if (orphaned) {
    pthread_detach(pthread_self());
    ::operator delete(record);
  }
  return nullptr;
}

// A record for a new worker of owner, not launched. Both allocations it needs come before any
// change, so that a failure leaves the timer thread as it was and the next post tries again.
std::shared_ptr<ThreadRecord> newWorkerRecord(TimerThread* owner) {
  WorkerRecord* record = new (::operator new(sizeof(WorkerRecord))) WorkerRecord(owner);
  return std::shared_ptr<ThreadRecord>(record, &releaseRecord);
}

// Launches the worker of record and puts the record in slot; called with the owner's mutex_
// held, so that no stop() or other post comes between the decision to start and the record in
// thread_. Returns the record it replaces, told to end; the caller releases it (which joins its
// worker) after unlocking. Throws std::runtime_error("Thread initialization failed") when the
// thread cannot be created, leaving running set and slot as it was.
std::shared_ptr<ThreadRecord> launchWorkerLocked(const std::shared_ptr<ThreadRecord>& record,
                                                 std::atomic<bool>& running,
                                                 std::shared_ptr<ThreadRecord>& slot,
                                                 std::condition_variable& cond) {
  VELMORA_TRACE_POINT_FULL(31, kStartFunction);
  running.store(true, std::memory_order_relaxed);
  WorkerRecord* worker = static_cast<WorkerRecord*>(record.get());
  addLaunched(worker);
  if (pthread_create(worker->handle(), nullptr, &runWorker, worker) != 0) {
    removeLaunched(worker);
    throw std::runtime_error("Thread initialization failed");
  }
  worker->launched = true;
  std::shared_ptr<ThreadRecord> previous = std::exchange(slot, record);
  if (previous) {
    requestStop(previous);
    cond.notify_one();
  }
  return previous;
}

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
  // A worker that stopped its own thread from a task was not joined: it must be gone before
  // the queue and the mutex it uses are.
  waitForOtherWorkers(this, workerOf(this));
}

void TimerThread::start() {
  std::shared_ptr<ThreadRecord> record = newWorkerRecord(this);
  std::shared_ptr<ThreadRecord> previous;
  {
    AutoLock<std::mutex> lock(mutex_);
    previous = launchWorkerLocked(record, running_, thread_, cond_);
  }
  // Joins the replaced worker; the new one begins once that one has left its loop.
  previous.reset();
  VELMORA_TRACE_POINT_AT(34);
}

void TimerThread::stop() {
  VELMORA_TRACE_POINT_AT(39);
  std::shared_ptr<ThreadRecord> thread;
  if (t_releasingRecordOf != this) {
    AutoLock<std::mutex> lock(mutex_);
    running_.store(false, std::memory_order_relaxed);
    thread = std::move(thread_);
    if (thread) {
      requestStop(thread);
    }
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
  {
    AutoLock<std::mutex> lock(mutex_);
    if (!running_.load(std::memory_order_relaxed) && !thread_) {
      std::shared_ptr<ThreadRecord> record = newWorkerRecord(this);
      running_.store(true, std::memory_order_relaxed);
      VELMORA_LOG_AT(kLogCritical, 96, "Starting Timer Thread %p.\n", static_cast<void*>(this));
      // thread_ is empty, so no record is replaced (and none released under the lock).
      launchWorkerLocked(record, running_, thread_, cond_);
      VELMORA_TRACE_POINT_FULL(34, kStartFunction);
    }
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
  if (loopMustEnd(this, running_)) {
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
  if (const WorkerRecord* worker = workerOf(this)) {
    waitForEarlierWorkers(worker);
  }
  threadId_.store(currentThread(), std::memory_order_release);
  for (;;) {
    if (loopMustEnd(this, running_)) {
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
