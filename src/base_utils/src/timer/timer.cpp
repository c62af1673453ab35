// Simple timers and the engine behind them: one list of started timers sorted by expiry, one
// lock for it, one pipe carrying wake-up commands, and one detached engine thread that sleeps on
// the pipe until the earliest expiry or the next command. Each expiry runs its timer's handler on
// a fresh detached thread, so a slow handler delays neither the engine nor other timers.
#include "base/simple_timer/timer.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "base/logging.h"

namespace velmora {
namespace base {
namespace simple_timer {

// The engine's view of a TimerImpl: what it reads and writes while a timer is in its list, and
// the hand-shake of a handler call.
struct TimerImplAccess {
  static const std::string& name(const TimerImpl& timer) { return timer.m_name; }
  static TimerImpl::ExpiredTime expiry(const TimerImpl& timer) { return timer.m_expiredTime; }
  static bool isOnce(const TimerImpl& timer) { return timer.m_type == ONCE; }
  static void markStarted(TimerImpl& timer) {
    timer.m_started.store(true, std::memory_order_relaxed);
  }
  static void markStopped(TimerImpl& timer) {
    timer.m_started.store(false, std::memory_order_release);
  }

  // Runs one handler call with m_handlerRunning set around it, then wakes every stop() waiting.
  static void runHandler(TimerImpl& timer) {
    {
      std::lock_guard<std::mutex> lock(timer.m_mutex);
      timer.m_handlerRunning = true;
    }
    timer.m_handler(timer.m_owner, timer.m_userData);
    {
      std::lock_guard<std::mutex> lock(timer.m_mutex);
      timer.m_handlerRunning = false;
      timer.m_cond.notify_all();
    }
  }
};

namespace {

// Commands on the pipe. The engine only logs the value: any command makes it look at the list
// again.
constexpr int CMD_START = 1;
constexpr int CMD_RESCHEDULE = 2;

// A list of timers. A timer joins s_timerList as a one-entry list made beforehand and spliced
// in, since splicing moves list nodes without allocating: once that entry exists, no step of
// starting or re-arming a timer can fail for want of memory.
using TimerList = std::list<std::shared_ptr<TimerImpl>>;

// The started timers in ascending order of expiry. Guarded by s_timerListMutex.
TimerList s_timerList;
std::mutex s_timerListMutex;
int s_cmdPipe[2] = {0, 0};

// After an expiry found no memory for its handler thread, the engine waits this long before it
// tries again, rather than spinning on a timer that stays due.
constexpr timeval kRetryAfterNoMemory = {0, 10000};

// The engine loop is split into helpers; its lines carry the loop's own name.
#define ENGINE_LOG(level, format, ...) \
  VELMORA_LOG_FULL("B-LOG", level, __LINE__, "HandleTimerThread", format, ##__VA_ARGS__)

// Deletes a TimerImpl. A file-local deleter (and file-local thread bodies) keep the shared-owner
// and thread machinery instantiated for TimerImpl out of the library's exported symbols.
struct TimerImplDeleter {
  void operator()(TimerImpl* timer) const { delete timer; }
};

// Signed 32-bit arithmetic that wraps on overflow instead of being undefined.
int32_t wrappingAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
int32_t wrappingMultiply(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

bool isZero(const TimeoutTime& timeout) {
  return timeout.sec == 0 && timeout.msec == 0 && timeout.usec == 0;
}

bool isEarlier(const TimerImpl::ExpiredTime& a, const TimerImpl::ExpiredTime& b) {
  return a.sec < b.sec || (a.sec == b.sec && a.nsec < b.nsec);
}

bool isDue(const TimerImpl::ExpiredTime& expiry, const timespec& now) {
  return now.tv_sec > expiry.sec || (now.tv_sec == expiry.sec && now.tv_nsec >= expiry.nsec);
}

void SendCmd(int cmd) {
  errno = 0;
  if (write(s_cmdPipe[1], &cmd, sizeof(cmd)) == -1) {
    VELMORA_LOG(kLogError, "Fail to wrtie data, errno(%d):'%s'.\n", errno, strerror(errno));
  }
}

// Reads one command; 0 when nothing could be read.
int ReadCmd() {
  int cmd = 0;
  if (read(s_cmdPipe[0], &cmd, sizeof(cmd)) != static_cast<ssize_t>(sizeof(cmd))) {
    return 0;
  }
  return cmd;
}

// Moves the one timer of entry into s_timerList, behind every timer with an equal or earlier
// expiry. The caller holds s_timerListMutex.
void InsterTimer(TimerList& entry, bool sendCommand) {
  const std::shared_ptr<TimerImpl>& timer = entry.front();
  const std::string& name = TimerImplAccess::name(*timer);
  VELMORA_LOG(kLogVerbose, "Begin inster timer:'%s'.\n", name.c_str());
  if (s_timerList.empty()) {
    VELMORA_LOG(kLogVerbose, "Has no timer yet, insert timer:'%s' to head.\n", name.c_str());
    s_timerList.splice(s_timerList.begin(), entry);
    if (sendCommand) {
      VELMORA_LOG(kLogVerbose, "Send CMD_START(%d) because of timer('%s').\n", CMD_START,
                  name.c_str());
      SendCmd(CMD_START);
    }
    return;
  }
  const TimerImpl::ExpiredTime expiry = TimerImplAccess::expiry(*timer);
  if (isEarlier(expiry, TimerImplAccess::expiry(*s_timerList.front()))) {
    VELMORA_LOG(kLogVerbose, "Insert timer:'%s' to head.\n", name.c_str());
    s_timerList.splice(s_timerList.begin(), entry);
    if (sendCommand) {
      VELMORA_LOG(kLogVerbose, "Send CMD_RESCHEDULE(%d) because of timer('%s').\n", CMD_RESCHEDULE,
                  name.c_str());
      SendCmd(CMD_RESCHEDULE);
    }
    return;
  }
  auto position = s_timerList.begin();
  while (position != s_timerList.end() && !isEarlier(expiry, TimerImplAccess::expiry(**position))) {
    ++position;
  }
  VELMORA_LOG(kLogVerbose, "Insert timer:'%s' to normal position.\n", name.c_str());
  s_timerList.splice(position, entry);
}

void RemoveTimer(const std::shared_ptr<TimerImpl>& timer) {
  VELMORA_TRACE_SCOPE();
  const std::string& name = TimerImplAccess::name(*timer);
  VELMORA_LOG(kLogInfo, "Will remove timer('%s').\n", name.c_str());
  std::lock_guard<std::mutex> lock(s_timerListMutex);
  if (s_timerList.empty()) {
    return;
  }
  if (s_timerList.front() == timer) {
    s_timerList.pop_front();
    VELMORA_LOG(kLogVerbose, "Remove timer('%s') from head, send CMD_RESCHEDULE(%d).\n",
                name.c_str(), CMD_RESCHEDULE);
    SendCmd(CMD_RESCHEDULE);
    return;
  }
  for (auto entry = std::next(s_timerList.begin()); entry != s_timerList.end(); ++entry) {
    if (*entry == timer) {
      s_timerList.erase(entry);
      return;
    }
  }
}

// The body of each handler thread; its shared owner keeps the timer alive for the call.
void RunTimerHandler(std::shared_ptr<TimerImpl> timer) {
  TimerImplAccess::runHandler(*timer);
}

// What a handler thread is given: a shared owner of its timer, taken while the timer is still
// in the list, so that a concurrent ~Timer cannot destroy the timer before the call.
struct HandlerThreadStart {
  std::shared_ptr<TimerImpl> timer;
};

// An exception from the handler (an empty one throws std::bad_function_call) ends the process.
void* RunHandlerThread(void* start) noexcept {
  std::unique_ptr<HandlerThreadStart> owned(static_cast<HandlerThreadStart*>(start));
  RunTimerHandler(std::move(owned->timer));
  return nullptr;
}

// Starts a detached handler thread, which then owns start. The record is allocated apart from
// the thread (std::thread would do both in one step), so that an expiry short of memory fails
// before it has changed anything. A failure to create the thread throws std::system_error, as
// std::thread does; the engine does not catch it.
void StartHandlerThread(std::unique_ptr<HandlerThreadStart> start) {
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, RunHandlerThread, start.get());
  if (error != 0) {
    throw std::system_error(error, std::generic_category());
  }
  start.release();
  pthread_detach(thread);
}

// How long to wait for the head's expiry; microseconds truncated, so the engine may wake up to
// 999 ns early and then finds nothing due.
timeval CaculateSelectTimeout(const TimerImpl::ExpiredTime& expiry) {
  timespec now = {0, 0};
  errno = 0;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    VELMORA_LOG(kLogError, "Fail to get now time, errorno(%d):'%s', timeout is 0.\n", errno,
                strerror(errno));
    return timeval{0, 0};
  }
  if (now.tv_sec > expiry.sec) {
    return timeval{0, 0};
  }
  if (now.tv_sec == expiry.sec) {
    if (expiry.nsec < now.tv_nsec) {
      return timeval{0, 0};
    }
    return timeval{0, (expiry.nsec - now.tv_nsec) / 1000};
  }
  if (expiry.nsec < now.tv_nsec) {
    return timeval{expiry.sec - now.tv_sec - 1, (expiry.nsec + 1000000000L - now.tv_nsec) / 1000};
  }
  return timeval{expiry.sec - now.tv_sec, (expiry.nsec - now.tv_nsec) / 1000};
}

// Takes every due timer off the list, re-arms CONTINUE timers from now, stops ONCE timers, and
// starts one handler thread per expiry. Returns false when there was no memory for a handler
// thread: that timer is left due at the head of the list, untouched, for a later pass.
bool HandleTimeout() {
  timespec now = {0, 0};
  errno = 0;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    VELMORA_LOG(kLogError, "Fail to get now time, errorno(%d):'%s'.\n", errno, strerror(errno));
    return true;
  }
  std::lock_guard<std::mutex> lock(s_timerListMutex);
  while (!s_timerList.empty() && isDue(TimerImplAccess::expiry(*s_timerList.front()), now)) {
    std::unique_ptr<HandlerThreadStart> start;
    try {
      start.reset(new HandlerThreadStart{s_timerList.front()});
    } catch (const std::bad_alloc&) {
      VELMORA_LOG(kLogError, "Fail to start handler of timer:'%s', no memory, retry later.\n",
                  TimerImplAccess::name(*s_timerList.front()).c_str());
      return false;
    }
    TimerList entry;
    entry.splice(entry.begin(), s_timerList, s_timerList.begin());
    TimerImpl& timer = *entry.front();
    const char* name = TimerImplAccess::name(timer).c_str();
    if (TimerImplAccess::isOnce(timer)) {
      VELMORA_LOG(kLogVerbose, "Timer:'%s' type is ONCE, stop now.\n", name);
      TimerImplAccess::markStopped(timer);
    } else {
      VELMORA_LOG(kLogVerbose, "Timer:'%s' type is CONTINUE, reschedule it.\n", name);
      timer.caculateExpiredTime();
      InsterTimer(entry, false);
    }
    StartHandlerThread(std::move(start));
  }
  return true;
}

// Waits for the pipe to become readable: for ever (null wait) or for the given time. The result
// is that of select: -1 on failure, 0 when the time ran out, 1 when a command is waiting.
int WaitOnPipe(const timeval* wait) {
  pollfd readEnd = {s_cmdPipe[0], POLLIN, 0};
  timespec waitTime = {0, 0};
  if (wait != nullptr) {
    waitTime.tv_sec = wait->tv_sec;
    waitTime.tv_nsec = wait->tv_usec * 1000L;
  }
  errno = 0;
  return ppoll(&readEnd, 1, wait != nullptr ? &waitTime : nullptr, nullptr);
}

// The idle wait: returns once a command has woken the engine.
void WaitForFirstTimer() {
  for (;;) {
    ENGINE_LOG(kLogInfo, "No timer, wait for ever.\n");
    if (WaitOnPipe(nullptr) != -1) {
      break;
    }
    ENGINE_LOG(kLogError, "Fail to select, errno(%d):'%s'.\n", errno, strerror(errno));
  }
  ENGINE_LOG(kLogInfo, "Has new timer, begin work.\n");
  ENGINE_LOG(kLogInfo, "cmd:%d.\n", ReadCmd());
}

// The armed loop: waits for the head's expiry or a command until the list is empty.
void ServeTimers() {
  bool shortOfMemory = false;
  for (;;) {
    TimerImpl::ExpiredTime expiry = {0, 0};
    {
      std::lock_guard<std::mutex> lock(s_timerListMutex);
      if (s_timerList.empty()) {
        ENGINE_LOG(kLogVerbose, "No timer need handle.\n");
        return;
      }
      const TimerImpl& head = *s_timerList.front();
      expiry = TimerImplAccess::expiry(head);
      ENGINE_LOG(kLogVerbose, "Waiting for timer('%s') expired, expiredTime(sec:%ld, nsec:%ld).\n",
                 TimerImplAccess::name(head).c_str(), static_cast<long>(expiry.sec),
                 static_cast<long>(expiry.nsec));
    }
    timeval wait = CaculateSelectTimeout(expiry);
    if (shortOfMemory && timercmp(&wait, &kRetryAfterNoMemory, <)) {
      wait = kRetryAfterNoMemory;
    }
    const int result = WaitOnPipe(&wait);
    if (result == -1) {
      ENGINE_LOG(kLogError, "Fail to select, errno(%d):'%s'.\n", errno, strerror(errno));
    } else if (result > 0) {
      ReadCmd();
      ENGINE_LOG(kLogVerbose, "Need reschedule, continue.\n");
    } else {
      ENGINE_LOG(kLogVerbose, "Timeout.\n");
      shortOfMemory = !HandleTimeout();
    }
  }
}

[[noreturn]] void HandleTimerThread() {
  for (;;) {
    WaitForFirstTimer();
    ServeTimers();
  }
}

// Commands are written with the list lock held, and the engine needs that lock before it reads
// the next command. Were writes to block on a full pipe, a flood of starts and stops faster than
// the engine reads would stop both for good. A full pipe already holds a pending wake-up, so a
// write that fails instead (EAGAIN, logged like any failed write) loses nothing.
void MakeWritesNonBlocking() {
  const int flags = fcntl(s_cmdPipe[1], F_GETFL);
  if (flags != -1) {
    fcntl(s_cmdPipe[1], F_SETFL, flags | O_NONBLOCK);
  }
}

void ClosePipe() {
  close(s_cmdPipe[0]);
  close(s_cmdPipe[1]);
  s_cmdPipe[0] = -1;
  s_cmdPipe[1] = -1;
}

void StartTimerThreadOnce() {
  VELMORA_TRACE_SCOPE();
  errno = 0;
  if (pipe(s_cmdPipe) != 0) {
    VELMORA_LOG(kLogError, "Fail to create pipe, errno(%d):'%s'.\n", errno, strerror(errno));
    return;
  }
  MakeWritesNonBlocking();
  try {
    std::thread(HandleTimerThread).detach();
  } catch (...) {
    // The failure (std::bad_alloc or std::system_error) reaches the Timer constructor and the
    // next Timer tries again with a pipe of its own: this one must not leak.
    ClosePipe();
    throw;
  }
}

// Starts the engine for the first Timer of the process. A failed pipe is final (logged; timers
// then never fire). A failure to start the engine thread leaves the constructor and no trace, so
// the next Timer tries again: a function-local static, unlike a once-control, is initialised
// again after its initialisation threw, on every platform and under every sanitizer.
void EnsureEngineStarted() {
  static const bool started = (StartTimerThreadOnce(), true);
  (void)started;
}

// Timer::start once the timer exists and is stopped: entry holds the timer's list entry, made
// before anything changed, so that no step after TimerImpl::start can fail. It logs as start().
#define START_LOG(level, format, ...) \
  VELMORA_LOG_FULL("B-LOG", level, __LINE__, "start", format, ##__VA_ARGS__)
int StartTimer(TimerList& entry) {
  TimerImpl& timer = *entry.front();
  const char* name = TimerImplAccess::name(timer).c_str();
  if (!timer.propertyValid()) {
    START_LOG(kLogError, "Property of timer('%s') is invalid, cannot start.\n", name);
    return -1;
  }
  if (timer.start() != 0) {
    START_LOG(kLogError, "Fail to start timer:'%s'.\n", name);
    return -1;
  }
  TimerImplAccess::markStarted(timer);
  std::lock_guard<std::mutex> lock(s_timerListMutex);
  InsterTimer(entry, true);
  return 0;
}
#undef START_LOG

#undef ENGINE_LOG

}  // namespace

// --- TimerImpl ---

TimerImpl::TimerImpl(Timer* owner, std::string name)
    : m_owner(owner),
      m_name(std::move(name)),
      m_timeout{0, 0, 0},
      m_userData(nullptr),
      m_type(ONCE),
      m_expiredTime{0, 0},
      m_propertyValid(false),
      m_started(false),
      m_handlerRunning(false),
      m_needStop(false) {}

TimerImpl::TimerImpl(Timer* owner, std::string name, const TimeoutTime& timeout,
                     std::function<void(Timer*, void*)> handler, void* userData, TimerType_e type)
    : m_owner(owner),
      m_name(std::move(name)),
      m_timeout(timeout),
      m_handler(std::move(handler)),
      m_userData(userData),
      m_type(type),
      m_expiredTime{0, 0},
      m_propertyValid(true),
      m_started(false),
      m_handlerRunning(false),
      m_needStop(false) {
  if (m_type == CONTINUE && isZero(m_timeout)) {
    VELMORA_LOG(kLogError, "When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n");
    m_propertyValid = false;
    return;
  }
  if (!m_handler) {
    m_propertyValid = false;
  }
  caculateTimeout();
}

int TimerImpl::setProperty(const TimeoutTime& timeout, std::function<void(Timer*, void*)> handler,
                           void* userData, TimerType_e type) {
  if (type == CONTINUE && isZero(timeout)) {
    VELMORA_LOG(kLogError, "When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n");
    m_propertyValid = false;
    return -1;
  }
  m_timeout = timeout;
  caculateTimeout();
  m_handler.swap(handler);
  m_userData = userData;
  m_type = type;
  m_propertyValid = true;
  return 0;
}

int TimerImpl::changeTimeout(const TimeoutTime& timeout) {
  if (m_type == CONTINUE && isZero(timeout)) {
    VELMORA_LOG(kLogError, "When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n");
    return -1;
  }
  m_timeout = timeout;
  caculateTimeout();
  return 0;
}

int TimerImpl::changeType(TimerType_e type) {
  if (type == CONTINUE && isZero(m_timeout)) {
    VELMORA_LOG(kLogError, "When the timeout is {0, 0, 0}, you cannot change type to CONTINUE.\n");
    return -1;
  }
  m_type = type;
  return 0;
}

int TimerImpl::changeHandler(std::function<void(Timer*, void*)> handler, void* userData) {
  m_handler.swap(handler);
  m_userData = userData;
  return 0;
}

int TimerImpl::start() {
  VELMORA_TRACE_SCOPE();
  if (caculateExpiredTime() != 0) {
    VELMORA_LOG(kLogError, "Fail to start timer:'%s'.\n", m_name.c_str());
    return -1;
  }
  m_needStop.store(false, std::memory_order_relaxed);
  std::lock_guard<std::mutex> lock(m_mutex);
  m_handlerRunning = false;
  return 0;
}

int TimerImpl::stop() {
  VELMORA_LOG(kLogVerbose, "Will stop timer:'%s'.\n", m_name.c_str());
  m_needStop.store(true, std::memory_order_relaxed);
  std::unique_lock<std::mutex> lock(m_mutex);
  VELMORA_LOG(kLogCritical, "Before wait timer:'%s' stop.\n", m_name.c_str());
  m_cond.wait(lock, [this] { return !m_handlerRunning; });
  VELMORA_LOG(kLogCritical, "After wait timer:'%s' stop.\n", m_name.c_str());
  return 0;
}

int TimerImpl::stopNoBlock() {
  m_needStop.store(true, std::memory_order_relaxed);
  return 0;
}

int TimerImpl::caculateExpiredTime() {
  timespec now = {0, 0};
  errno = 0;
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    VELMORA_LOG(kLogError, "Fail to get now time, errorno(%d):'%s'.\n", errno, strerror(errno));
    return -1;
  }
  const int32_t nsec = wrappingAdd(
      wrappingAdd(static_cast<int32_t>(now.tv_nsec), wrappingMultiply(1000000, m_timeout.msec)),
      wrappingMultiply(1000, m_timeout.usec));
  m_expiredTime.sec =
      wrappingAdd(wrappingAdd(static_cast<int32_t>(now.tv_sec), m_timeout.sec), nsec / 1000000000);
  m_expiredTime.nsec = nsec % 1000000000;
  return 0;
}

void TimerImpl::clearExpiredTime() {
  m_expiredTime.sec = 0;
  m_expiredTime.nsec = 0;
}

void TimerImpl::caculateTimeout() {
  const int32_t carryMsec = wrappingAdd(m_timeout.usec / 1000, m_timeout.msec);
  m_timeout.sec = wrappingAdd(m_timeout.sec, carryMsec / 1000);
  m_timeout.msec = carryMsec % 1000;
  m_timeout.usec = m_timeout.usec % 1000;
}

// --- Timer ---

Timer::Timer(std::string name, TimeoutTime timeout, std::function<void(Timer*, void*)> handler,
             void* userData, TimerType_e type) {
  EnsureEngineStarted();
  TimerImpl* impl = new (std::nothrow)
      TimerImpl(this, std::move(name), timeout, std::move(handler), userData, type);
  if (impl != nullptr) {
    try {
      m_impl.reset(impl, TimerImplDeleter());
    } catch (const std::bad_alloc&) {
      // No shared owner could be made; reset() has deleted impl. Reported below.
    }
  }
  if (!m_impl) {
    VELMORA_LOG(kLogError, "Fail to create TimerImpl.\n");
  }
}

Timer::~Timer() {
  VELMORA_TRACE_SCOPE();
  if (!m_impl) {
    return;
  }
  VELMORA_LOG(kLogVerbose, "Destroy timer:'%s'.\n", m_impl->m_name.c_str());
  if (m_impl->m_started.load(std::memory_order_acquire)) {
    RemoveTimer(std::shared_ptr<TimerImpl>(m_impl));
  }
  m_impl->stop();
  m_impl.reset();
}

int Timer::start() {
  if (!m_impl) {
    VELMORA_LOG(kLogError, "m_impl is NULL.\n");
    return -1;
  }
  if (m_impl->m_started.load(std::memory_order_acquire)) {
    return 0;
  }
  TimerList entry(1, m_impl);  // std::bad_alloc here leaves the timer as it was
  return StartTimer(entry);
}

int Timer::stop() {
  if (!m_impl) {
    VELMORA_LOG(kLogError, "m_impl is NULL.\n");
    return -1;
  }
  VELMORA_LOG(kLogVerbose, "Stop timer:'%s'.\n", m_impl->m_name.c_str());
  if (m_impl->m_started.load(std::memory_order_acquire)) {
    RemoveTimer(std::shared_ptr<TimerImpl>(m_impl));
    m_impl->m_started.store(false, std::memory_order_relaxed);
  }
  return m_impl->stop();
}

int Timer::stopNoBlock() {
  VELMORA_TRACE_SCOPE();
  if (!m_impl) {
    VELMORA_LOG(kLogError, "m_impl is NULL.\n");
    return -1;
  }
  VELMORA_LOG(kLogInfo, "m_impl is not NULL.\n");
  if (m_impl->m_started.load(std::memory_order_acquire)) {
    RemoveTimer(std::shared_ptr<TimerImpl>(m_impl));
    m_impl->m_started.store(false, std::memory_order_relaxed);
  }
  return m_impl->stopNoBlock();
}

int Timer::restart() {
  if (!m_impl) {
    VELMORA_LOG(kLogError, "m_impl is NULL.\n");
    return -1;
  }
  // Made before the stop, so that a restart short of memory leaves the timer running as it was.
  TimerList entry(1, m_impl);
  if (stop() != 0) {
    VELMORA_LOG(kLogError, "Fail to stop timer:'%s'.\n", m_impl->m_name.c_str());
    return -1;
  }
  if (StartTimer(entry) != 0) {
    VELMORA_LOG(kLogError, "Fail to start timer:'%s'.\n", m_impl->m_name.c_str());
    return -1;
  }
  return 0;
}

// The guard shared by the property setters: a timer must exist and be stopped.
#define VELMORA_TIMER_PROPERTY_GUARD()                                           \
  do {                                                                           \
    if (!m_impl) {                                                               \
      VELMORA_LOG(kLogError, "m_impl is NULL.\n");                               \
      return -1;                                                                 \
    }                                                                            \
    if (m_impl->m_started.load(std::memory_order_acquire)) {                     \
      VELMORA_LOG(kLogError, "Must stop timer before changing its property.\n"); \
      return -1;                                                                 \
    }                                                                            \
  } while (0)

int Timer::setProperty(const TimeoutTime& timeout, std::function<void(Timer*, void*)> handler,
                       void* userData, TimerType_e type) {
  VELMORA_TIMER_PROPERTY_GUARD();
  return m_impl->setProperty(timeout, std::move(handler), userData, type);
}

int Timer::changeTimeout(const TimeoutTime& timeout) {
  VELMORA_TIMER_PROPERTY_GUARD();
  return m_impl->changeTimeout(timeout);
}

int Timer::changeType(TimerType_e type) {
  VELMORA_TIMER_PROPERTY_GUARD();
  return m_impl->changeType(type);
}

int Timer::changeHandler(std::function<void(Timer*, void*)> handler, void* userData) {
  VELMORA_TIMER_PROPERTY_GUARD();
  return m_impl->changeHandler(std::move(handler), userData);
}

#undef VELMORA_TIMER_PROPERTY_GUARD

bool Timer::isStarted() {
  if (!m_impl) {
    VELMORA_LOG(kLogError, "m_impl is NULL.\n");
    return false;
  }
  return m_impl->m_started.load(std::memory_order_acquire);
}

bool Timer::needStop() {
  if (!m_impl) {
    VELMORA_LOG(kLogError, "m_impl is NULL.\n");
    return true;
  }
  return m_impl->m_needStop.load(std::memory_order_relaxed);
}

std::string Timer::name() {
  if (!m_impl) {
    VELMORA_LOG(kLogError, "m_impl is NULL.\n");
    return std::string();
  }
  return m_impl->m_name;
}

}  // namespace simple_timer
}  // namespace base
}  // namespace velmora
