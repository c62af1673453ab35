// Simple timers: named one-shot (ONCE) or repeating (CONTINUE) countdowns whose handler runs on a
// thread of its own when the countdown expires. All timers of a process share one engine thread,
// started by the first Timer, that sleeps until the earliest expiry or the next command.
//
//   using namespace velmora::base::simple_timer;
//   Timer timer("poll", TimeoutTime{0, 500, 0},
//               [](Timer* self, void* data) { ... if (self->needStop()) return; ... },
//               nullptr, CONTINUE);
//   timer.start();  // first expiry 500 ms from now, then every 500 ms from each handling
//   timer.stop();   // returns once no handler call of this timer is in progress
//
// Every operation returns 0 on success and -1 on a refusal, which is logged, never thrown.
//
// Quirks kept on purpose:
// - stop(), restart() and ~Timer wait for a running handler call of their timer, so called from
//   inside that timer's own handler they never return; a handler stops its own timer with
//   stopNoBlock().
// - A handler thread launched just before stop() may begin its call after stop() has returned;
//   such a call sees needStop() true. Do not change the handler in that window.
// - A CONTINUE timer is re-armed from the moment its expiry is handled, so lateness accumulates;
//   a handler that runs longer than the period overlaps with the next call on another thread.
// - setProperty() accepts an empty handler: the timer then starts, and its first expiry throws
//   std::bad_function_call on the handler thread, which ends the process.
// - The Timer pointer passed to the handler is the owning Timer; a handler must not use it once
//   the Timer may have been destroyed.
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

// A relative timeout. {0, 0, 0} expires at once: allowed for ONCE timers, not for CONTINUE ones.
struct TimeoutTime {
  int32_t sec;
  int32_t msec;
  int32_t usec;
};

// ONCE fires once and then stops by itself; CONTINUE re-arms until stopped. The engine treats
// every non-zero value as CONTINUE.
enum TimerType_e : int32_t {
  ONCE = 0,
  CONTINUE = 1,
};

class Timer;

// Called on a fresh thread with the owning Timer and the user data given with the handler.
using TimerHandler = std::function<void(Timer*, void*)>;

class TimerImpl;

class VELMORA_BASE_EXPORT Timer {
 public:
  // Starts the shared engine on first use and creates the timer stopped. An empty handler, or
  // CONTINUE with {0, 0, 0}, makes it invalid: start() is refused until setProperty() succeeds.
  Timer(std::string name, TimeoutTime timeout, std::function<void(Timer*, void*)> handler,
        void* userData, TimerType_e type);
  // Takes the timer off the engine and waits for a running handler call.
  ~Timer();

  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Arms the timer with its full timeout from now; a started timer is left as it is (0).
  int start();
  // Disarms the timer and waits until no handler call of it is in progress.
  int stop();
  // Disarms the timer and asks a running handler to end (needStop()), without waiting; the only
  // stop a handler may call on its own timer.
  int stopNoBlock();
  // stop() then start(): the full timeout counts again from now.
  int restart();

  // The property setters are refused while the timer is started.
  int setProperty(const TimeoutTime& timeout, std::function<void(Timer*, void*)> handler,
                  void* userData, TimerType_e type);
  // Neither changeTimeout nor changeType makes an invalid timer valid; only setProperty does.
  int changeTimeout(const TimeoutTime& timeout);
  int changeType(TimerType_e type);
  int changeHandler(std::function<void(Timer*, void*)> handler, void* userData);

  bool isStarted();
  // True once a stop was requested, until the next start; long-running handlers poll it.
  bool needStop();
  std::string name();

 private:
  std::shared_ptr<TimerImpl> m_impl;
};

// The state of one timer, shared by its Timer, the engine's list and running handler threads.
class VELMORA_BASE_EXPORT TimerImpl {
 public:
  // An absolute expiry on the monotonic clock.
  struct ExpiredTime {
    int32_t sec;
    int32_t nsec;
  };

  // An invalid timer: everything zero or empty until setProperty() succeeds.
  TimerImpl(Timer* owner, std::string name);
  TimerImpl(Timer* owner, std::string name, const TimeoutTime& timeout,
            std::function<void(Timer*, void*)> handler, void* userData, TimerType_e type);

  TimerImpl(const TimerImpl&) = delete;
  TimerImpl& operator=(const TimerImpl&) = delete;

  // Replaces every property and makes the timer valid, unless CONTINUE with {0, 0, 0}.
  int setProperty(const TimeoutTime& timeout, std::function<void(Timer*, void*)> handler,
                  void* userData, TimerType_e type);
  int changeTimeout(const TimeoutTime& timeout);
  int changeType(TimerType_e type);
  int changeHandler(std::function<void(Timer*, void*)> handler, void* userData);

  // Computes the expiry from now and clears the stop request and the handler-running flag.
  int start();
  // Requests a stop and waits until no handler call is in progress; always 0.
  int stop();
  // Requests a stop without waiting; always 0.
  int stopNoBlock();

  // Expiry = monotonic now + timeout; on a clock failure the old expiry stays and -1 is returned.
  int caculateExpiredTime();
  void clearExpiredTime();
  // Normalises the timeout in signed 32-bit truncating arithmetic: {1, 1500, 2500} becomes
  // {2, 502, 500}; negative fields keep their sign.
  void caculateTimeout();

  // The normalised timeout.
  TimeoutTime timeout() const { return m_timeout; }
  ExpiredTime expiredTime() const { return m_expiredTime; }
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
