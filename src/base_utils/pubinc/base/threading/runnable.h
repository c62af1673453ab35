/// @file
/// Runnable: a pausable periodic thread body. run() sleeps interval milliseconds, then does one
/// cycle (runOnce(), supplied by the derived class), and repeats until stop(). It creates no
/// thread: the owner calls run() on a thread of its own and pause(), resume(), stop() and
/// running() from any other thread.
///
///     class Poller : public velmora::base::Threading::Runnable {
///      public:
///       Poller() : Runnable(100) {}
///       void runOnce() override { ... }
///     };
///     std::thread worker([&] { poller.run(); });
///     ...
///     poller.stop();
///     worker.join();
///
/// Deliberate behaviour:
/// - Every cycle is preceded by a full interval (a pause between cycles, not a period); an
///   interval of 0 or below does not pause at all.
/// - pause() takes effect after the current cycle and the following sleep; stop() ends the loop
///   after at most one more sleep and never interrupts a cycle; stop() on a paused body clears
///   the pause and wakes it, and it returns without another cycle.
/// - Stopped is final: resume() does not revive it, and a run() on a stopped body sleeps once and
///   returns; if pause() came after stop(), that run() first waits for resume().
/// - The destructor neither stops nor waits for run(): end the loop and join its thread first.
///
/// Log lines use the tag "B-LOG" and the source name runnable.cpp; each message is quoted below
/// with its level and the line number its log line prints. Lock and unlock failures are logged
/// by UniqueLock and swallowed.
#ifndef VELMORA_BASE_THREADING_RUNNABLE_H
#define VELMORA_BASE_THREADING_RUNNABLE_H

#include "base/export.h"
#include "base/synchronization/auto_lock.h"

namespace velmora {
namespace base {
namespace Threading {

/// A pausable periodic thread body; see the file's description. Derive from it and implement
/// runOnce().
class VELMORA_BASE_EXPORT Runnable {
 public:
  /// interval: milliseconds slept before each cycle, used unchanged (0 or below: no pause).
  /// Logs `"called, interval: %d\n\n"` (level 4000, line 9). Throws std::runtime_error when
  /// the mutex or the condition variable cannot be initialised.
  explicit Runnable(int interval);
  /// Logs `"called\n\n"` (level 4000, line 13). Neither stops nor waits for run().
  virtual ~Runnable();

  /// Not copyable: it holds a mutex and a condition variable.
  Runnable(const Runnable&) = delete;
  /// Not assignable.
  Runnable& operator=(const Runnable&) = delete;

  /// The loop: sleep the interval, wait while paused, return if stopped, else runOnce(); it
  /// returns only after stop(). Logs `"called\n\n"` (level 4000, line 21) on entry. An
  /// exception from runOnce() leaves run(); a failing condition-variable wait throws
  /// std::runtime_error.
  virtual void run();
  /// Ends the loop after at most one more sleep; clears a pause and wakes a paused run(). Does
  /// not wait for run(). Logs `"called\n\n"` (level 4000, line 36).
  virtual void stop();
  /// Holds the loop before its next cycle until resume() or stop(); sends no wake-up. Logs
  /// `"called\n\n"` (level 4000, line 46).
  virtual void pause();
  /// Clears the pause and wakes a paused run(), whether or not it was paused; does not undo a
  /// stop(). Logs `"called\n\n"` (level 4000, line 52).
  virtual void resume();
  /// One cycle of work, called by run() with no lock held.
  virtual void runOnce() = 0;

  /// True when neither paused nor stopped. Logs nothing.
  bool running();

 private:
  void sleepInterval() const;
  // Waits out a pause; true when the loop is to end.
  bool waitWhilePausedThenCheckStopped();

  int interval_ = 10;
  Mutex mutex_;
  bool stopped_;
  bool paused_;
  ConditionVariable cond_;
};

}  // namespace Threading
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_THREADING_RUNNABLE_H
