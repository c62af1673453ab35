// Timer tasks: the unit of work that a TimerThread (directly or through the TimerThreadPool)
// runs once its due time has come, plus the liveness record by which an owner of posted tasks
// tells them that it is gone.
//
// Derive from TimerTaskBase, implement execute(), set the due time (absolute seconds on the
// monotonic clock) or post with a delay, and hand the task over as a std::shared_ptr:
//
//   class Refresh : public velmora::base::timer::TimerTaskBase {
//     void execute() override { ... }
//   };
//   thread.postTask(std::make_shared<Refresh>(), 500);
//
// A due time of 0.0 means "not set" before posting and "cancelled" after posting. Every task
// gets a session id from a process-wide counter (the first task of a process gets 1); a derived
// class may set the protected taskId_ to become cancellable by task id. A task's fields belong
// to its poster until it is posted, and to the timer thread (under its queue lock) afterwards;
// a task must not be posted again while it is still queued.
#ifndef VELMORA_BASE_TIMER_TIMER_TASK_H
#define VELMORA_BASE_TIMER_TIMER_TASK_H

#include <cstdint>

#include "base/export.h"

namespace velmora {
namespace base {
namespace timer {

class VELMORA_BASE_EXPORT TimerTaskBase {
 public:
  // Due time 0.0 (unset), the next session id of the process, task id 0.
  TimerTaskBase();
  virtual ~TimerTaskBase();

  TimerTaskBase(const TimerTaskBase&) = delete;
  TimerTaskBase& operator=(const TimerTaskBase&) = delete;

  // The task body; the timer thread calls it once, when the task is due.
  virtual void execute() = 0;

  // Sets the absolute due time in monotonic seconds (0.0 means unset or cancelled).
  void setNextFireTime(double seconds) { nextFireTime_ = seconds; }
  double getNextFireTime() const { return nextFireTime_; }
  // The group key of cancelTaskBySessionId.
  int sessionId() const { return sessionId_; }
  // The key of cancelTaskByTaskId; 0 unless a derived class sets it.
  int taskId() const { return taskId_; }

 protected:
  double nextFireTime_;
  int sessionId_;
  int taskId_;
};

// The owner type a TimerExecutionContext points to; the library only stores its address.
class TimerExecutable {};

// Liveness marker of a TimerExecutable: tasks holding the context compare magic() with
// kAliveMagic when they run to find out whether their owner still lives.
class VELMORA_BASE_EXPORT TimerExecutionContext {
 public:
  static constexpr uint32_t kAliveMagic = 0xADDECEFAu;

  explicit TimerExecutionContext(TimerExecutable* executable);
  // Leaves the marker as it is.
  ~TimerExecutionContext();

  // Clears the marker to 0; the executable pointer is kept.
  void markAsDead();

  uint32_t magic() const { return magic_; }
  TimerExecutable* executable() const { return executable_; }

 private:
  uint32_t magic_;
  TimerExecutable* executable_;
};

}  // namespace timer
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_TIMER_TIMER_TASK_H
