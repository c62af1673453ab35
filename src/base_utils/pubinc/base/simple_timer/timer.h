/// @file
/// Simple timers: named one-shot (ONCE) or repeating (CONTINUE) countdowns whose handler runs on a
/// thread of its own when the countdown expires. All timers of a process share one engine thread,
/// started by the first Timer, that sleeps until the earliest expiry or the next command.
///
///     using namespace velmora::base::simple_timer;
///     Timer timer("poll", TimeoutTime{0, 500, 0},
///                 [](Timer* self, void* data) { ... if (self->needStop()) return; ... },
///                 nullptr, CONTINUE);
///     timer.start();  // first expiry 500 ms from now, then every 500 ms from each handling
///     timer.stop();   // returns once no handler call of this timer is in progress
///
/// Every operation returns 0 on success and -1 on a refusal, which is logged, never thrown. Short
/// of memory, an operation either throws std::bad_alloc and leaves the timer as it was, or says
/// below what it does instead.
///
/// Quirks kept on purpose:
/// - stop(), restart() and ~Timer wait for a running handler call of their timer, so called from
///   inside that timer's own handler they never return; a handler stops its own timer with
///   stopNoBlock().
/// - A handler thread launched just before stop() may begin its call after stop() has returned;
///   such a call sees needStop() true. Do not change the handler in that window.
/// - A CONTINUE timer is re-armed from the moment its expiry is handled, so lateness accumulates;
///   a handler that runs longer than the period overlaps with the next call on another thread.
/// - An expiry that finds no memory for its handler thread is logged
///   (`"Fail to start handler of timer:'%s', no memory, retry later.\n"`, level 1000) and
///   handled again 10 ms later: the handler runs late, but once. A failure to create the
///   handler thread itself ends the process (std::system_error on the engine thread).
/// - setProperty() accepts an empty handler: the timer then starts, and its first expiry throws
///   std::bad_function_call on the handler thread, which ends the process.
/// - The Timer pointer passed to the handler is the owning Timer; a handler must not use it once
///   the Timer may have been destroyed.
///
/// Log lines use the tag "B-LOG" and the source name timer.cpp; messages naming a timer quote
/// its name in single quotes as shown. Of a timer's state only the handler-running flag is
/// locked: one Timer is not meant to be used from two threads at once.
#ifndef VELMORA_BASE_SIMPLE_TIMER_TIMER_H
#define VELMORA_BASE_SIMPLE_TIMER_TIMER_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "base/export.h"

namespace velmora {
namespace base {
namespace simple_timer {

/// A relative timeout. {0, 0, 0} expires at once: allowed for ONCE timers, not for CONTINUE ones.
/// A timer keeps it normalised (TimerImpl::caculateTimeout): {0, 2500, 0} is stored as
/// {2, 500, 0}.
struct TimeoutTime {
  int32_t sec;   ///< whole seconds
  int32_t msec;  ///< milliseconds
  int32_t usec;  ///< microseconds
};

/// ONCE fires once and then stops by itself; CONTINUE re-arms until stopped. The engine treats
/// every non-zero value as CONTINUE; the validity checks compare with exactly CONTINUE.
enum TimerType_e : int32_t {
  ONCE = 0,      ///< fire once; the timer is stopped before its handler runs
  CONTINUE = 1,  ///< fire, then re-arm with the same timeout from the moment of handling
};

class Timer;

/// Called on a fresh thread with the owning Timer and the user data given with the handler.
using TimerHandler = std::function<void(Timer*, void*)>;

class TimerImpl;

/// A named simple timer; see the file's description. Its refusals are logged at level 1000; a
/// Timer whose implementation could not be created logs `"m_impl is NULL.\n"` (level 1000)
/// from every operation.
class VELMORA_BASE_EXPORT Timer {
 public:
  /// Starts the shared engine on first use and creates the timer stopped. An empty handler, or
  /// CONTINUE with {0, 0, 0} (`"When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n"`,
  /// level 1000), makes it invalid: start() is refused until setProperty() succeeds. If no
  /// implementation results (no memory for it), logs `"Fail to create TimerImpl.\n"` (level
  /// 1000) and every later call refuses. Throws std::system_error or std::bad_alloc when the
  /// engine thread cannot be started; the next Timer then tries again.
  Timer(std::string name, TimeoutTime timeout, std::function<void(Timer*, void*)> handler,
        void* userData, TimerType_e type);
  /// Takes the timer off the engine and waits for a running handler call (so it must not run
  /// inside this timer's own handler). Logs `"Destroy timer:'%s'.\n"` (level 5000).
  ~Timer();

  /// Not copyable: two Timers would control one timer.
  Timer(const Timer&) = delete;
  /// Not assignable.
  Timer& operator=(const Timer&) = delete;

  /// Arms the timer with its full timeout from now: 0. A started timer is left as it is (0, the
  /// countdown is not restarted). Returns -1 for an invalid timer
  /// (`"Property of timer('%s') is invalid, cannot start.\n"`, level 1000) and when the clock
  /// cannot be read (TimerImpl::start's lines, then `"Fail to start timer:'%s'.\n"` again).
  /// std::bad_alloc leaves the timer stopped, its stop request standing.
  int start();
  /// Disarms the timer and waits until no handler call of it is in progress: 0. Logs
  /// `"Stop timer:'%s'.\n"` (level 5000). Never returns when called from this timer's own
  /// handler.
  int stop();
  /// Disarms the timer and asks a running handler to end (needStop()), without waiting: 0. The
  /// only stop a handler may call on its own timer. Logs `"m_impl is not NULL.\n"` (level 4000).
  int stopNoBlock();
  /// stop() then start(): the full timeout counts again from now. 0, or -1 with
  /// `"Fail to stop timer:'%s'.\n"` or `"Fail to start timer:'%s'.\n"` (level 1000).
  /// std::bad_alloc comes before the stop: the timer runs on as it was.
  int restart();

  /// Replaces timeout, handler, user data and type, and makes the timer valid: 0. Returns -1
  /// for CONTINUE with {0, 0, 0} (`"When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n"`,
  /// the timer becomes invalid). An empty handler is accepted here: the timer starts and its
  /// first expiry ends the process. Like every property setter, refused with -1 while the
  /// timer is started (`"Must stop timer before changing its property.\n"`, level 1000).
  int setProperty(const TimeoutTime& timeout, std::function<void(Timer*, void*)> handler,
                  void* userData, TimerType_e type);
  /// Replaces the timeout: 0, or -1 for {0, 0, 0} on a CONTINUE timer
  /// (`"When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n"`). Neither changeTimeout
  /// nor changeType makes an invalid timer valid; only setProperty does.
  int changeTimeout(const TimeoutTime& timeout);
  /// Replaces the type: 0, or -1 for CONTINUE while the timeout is {0, 0, 0}
  /// (`"When the timeout is {0, 0, 0}, you cannot change type to CONTINUE.\n"`).
  int changeType(TimerType_e type);
  /// Replaces handler and user data without checks: 0 (-1 while started, as above).
  int changeHandler(std::function<void(Timer*, void*)> handler, void* userData);

  /// Whether the timer is armed; false again once a ONCE timer has fired.
  bool isStarted();
  /// True once a stop was requested, until the next start; long-running handlers poll it.
  /// True without an implementation.
  bool needStop();
  /// The timer's name ("" without an implementation).
  std::string name();

 private:
  std::shared_ptr<TimerImpl> m_impl;
};

/// The state of one timer, shared by its Timer, the engine's list and running handler threads.
/// Callers use Timer; the operations below check properties but not whether the timer is
/// started.
class VELMORA_BASE_EXPORT TimerImpl {
 public:
  /// An absolute expiry on the monotonic clock.
  struct ExpiredTime {
    int32_t sec;   ///< seconds
    int32_t nsec;  ///< nanoseconds, 0 to 999999999 once computed
  };

  /// An invalid timer: everything zero or empty until setProperty() succeeds.
  TimerImpl(Timer* owner, std::string name);
  /// Stores the properties and normalises the timeout. CONTINUE with {0, 0, 0} logs
  /// `"When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n"` (level 1000) and leaves the
  /// timer invalid; an empty handler leaves it invalid silently.
  TimerImpl(Timer* owner, std::string name, const TimeoutTime& timeout,
            std::function<void(Timer*, void*)> handler, void* userData, TimerType_e type);

  /// Not copyable: handler threads share it by pointer.
  TimerImpl(const TimerImpl&) = delete;
  /// Not assignable.
  TimerImpl& operator=(const TimerImpl&) = delete;

  /// Replaces every property and makes the timer valid: 0. CONTINUE with {0, 0, 0} is refused
  /// with -1 and `"When type is CONTINUE, the timeout cannot be {0, 0, 0}.\n"` (level 1000), and
  /// makes the timer invalid. An empty handler is not checked here.
  int setProperty(const TimeoutTime& timeout, std::function<void(Timer*, void*)> handler,
                  void* userData, TimerType_e type);
  /// Timer::changeTimeout without the started check.
  int changeTimeout(const TimeoutTime& timeout);
  /// Timer::changeType without the started check.
  int changeType(TimerType_e type);
  /// Replaces handler and user data: always 0.
  int changeHandler(std::function<void(Timer*, void*)> handler, void* userData);

  /// Computes the expiry from now and clears the stop request and the handler-running flag: 0,
  /// or -1 with `"Fail to start timer:'%s'.\n"` (level 1000) when the clock cannot be read.
  int start();
  /// Requests a stop and waits until no handler call is in progress; always 0. Logs
  /// `"Will stop timer:'%s'.\n"` (level 5000), then `"Before wait timer:'%s' stop.\n"` and
  /// `"After wait timer:'%s' stop.\n"` (level 1).
  int stop();
  /// Requests a stop without waiting; always 0.
  int stopNoBlock();

  /// Expiry = monotonic now + timeout: 0. On a clock failure logs
  /// `"Fail to get now time, errorno(%d):'%s'.\n"` (level 1000), keeps the old expiry and
  /// returns -1.
  int caculateExpiredTime();
  /// Sets both expiry fields to 0.
  void clearExpiredTime();
  /// Normalises the timeout in signed 32-bit truncating arithmetic: {1, 1500, 2500} becomes
  /// {2, 502, 500}; negative fields keep their sign.
  void caculateTimeout();

  /// The normalised timeout.
  TimeoutTime timeout() const { return m_timeout; }
  /// The expiry last computed (zero before the first start).
  ExpiredTime expiredTime() const { return m_expiredTime; }
  /// Whether the properties passed the checks (start() is refused while false).
  bool propertyValid() const { return m_propertyValid; }

 private:
  friend class Timer;
  friend struct TimerImplAccess;

  std::mutex m_mutex;
  std::condition_variable m_cond;
  Timer* m_owner;
  std::string m_name;
  TimeoutTime m_timeout;
  TimerHandler m_handler;
  void* m_userData;
  TimerType_e m_type;
  ExpiredTime m_expiredTime;
  bool m_propertyValid;
  // Written by the engine for an expired ONCE timer, read by the owner's thread.
  std::atomic<bool> m_started;
  bool m_handlerRunning;
  // Set by a stop on the owner's thread, read by handler threads.
  std::atomic<bool> m_needStop;
};

}  // namespace simple_timer
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_SIMPLE_TIMER_TIMER_H
