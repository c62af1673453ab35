/// @file
/// Timer tasks: the unit of work that a TimerThread (directly or through the TimerThreadPool)
/// runs once its due time has come, plus the liveness record by which an owner of posted tasks
/// tells them that it is gone.
///
/// Derive from TimerTaskBase, implement execute(), set the due time (absolute seconds on the
/// monotonic clock) or post with a delay, and hand the task over as a std::shared_ptr:
///
///     class Refresh : public velmora::base::timer::TimerTaskBase {
///       void execute() override { ... }
///     };
///     thread.postTask(std::make_shared<Refresh>(), 500);
///
/// A due time of 0.0 means "not set" before posting and "cancelled" after posting. Every task
/// gets a session id from a process-wide counter (the first task of a process gets 1); a derived
/// class may set the protected taskId_ to become cancellable by task id. A task's fields belong
/// to its poster until it is posted, and to the timer thread (under its queue lock) afterwards;
/// a task must not be posted again while it is still queued.
///
/// None of these operations takes a lock: a task's fields are only touched by its poster or,
/// once posted, by its timer thread under its queue lock. Session ids are drawn atomically, so
/// tasks constructed on several threads at once still get distinct ids.
#ifndef VELMORA_BASE_TIMER_TIMER_TASK_H
#define VELMORA_BASE_TIMER_TIMER_TASK_H

#include <cstdint>

#include "base/export.h"

namespace velmora {
namespace base {
namespace timer {

/// The abstract task: a due time and the two keys by which pending tasks are cancelled, in
/// groups (session id) or singly (task id). Held by std::shared_ptr; run at most once.
class VELMORA_BASE_EXPORT TimerTaskBase {
 public:
  /// Due time 0.0 (unset), the next session id of the process, task id 0.
  TimerTaskBase();
  /// Virtual, so that the timer thread can release a task of any derived type.
  virtual ~TimerTaskBase();

  /// Not copyable: a task is shared by pointer.
  TimerTaskBase(const TimerTaskBase&) = delete;
  /// Not assignable.
  TimerTaskBase& operator=(const TimerTaskBase&) = delete;

  /// The task body; the timer thread calls it once, when the task is due, with no lock held.
  /// An exception thrown here is not caught by the timer thread.
  virtual void execute() = 0;

  /// Sets the absolute due time in monotonic seconds (0.0 means unset or cancelled).
  void setNextFireTime(double seconds);
  /// The absolute due time in monotonic seconds; 0.0 when unset or cancelled.
  double getNextFireTime() const;
  /// The group key of TimerThread::cancelTaskBySessionId.
  int sessionId() const;
  /// The key of TimerThread::cancelTaskByTaskId; 0 unless a derived class sets it.
  int taskId() const;

 protected:
  double nextFireTime_;  ///< due time, absolute monotonic seconds; 0.0 unset or cancelled
  int sessionId_;        ///< from the process-wide counter; the first task of a process gets 1
  int taskId_;           ///< 0 after construction; set it to become cancellable by task id
};

/// The owner type a TimerExecutionContext points to; the library only stores its address.
class TimerExecutable {};

/// Liveness marker of a TimerExecutable: tasks holding the context compare magic() with
/// kAliveMagic when they run to find out whether their owner still lives. How a task reacts to
/// a dead owner is up to the task; the library defines only the marker.
class VELMORA_BASE_EXPORT TimerExecutionContext {
 public:
  /// The marker's value while the owner lives.
  static constexpr uint32_t kAliveMagic = 0xADDECEFAu;

  /// Sets the marker to kAliveMagic and stores the owner (not owned).
  explicit TimerExecutionContext(TimerExecutable* executable);
  /// Leaves the marker as it is.
  ~TimerExecutionContext();

  /// Clears the marker to 0; the executable pointer is kept.
  void markAsDead();

  /// kAliveMagic while the owner lives, 0 once marked dead.
  uint32_t magic() const { return magic_; }
  /// The owner given at construction, also after markAsDead().
  TimerExecutable* executable() const { return executable_; }

 private:
  uint32_t magic_;
  TimerExecutable* executable_;
};

}  // namespace timer
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_TIMER_TIMER_TASK_H
