// Runnable: a pausable periodic thread body. run() sleeps interval milliseconds, then does one
// cycle (runOnce(), supplied by the derived class), and repeats until stop(). It creates no
// thread: the owner calls run() on a thread of its own and pause(), resume(), stop() and
// running() from any other thread.
//
//   class Poller : public velmora::base::Threading::Runnable {
//    public:
//     Poller() : Runnable(100) {}
//     void runOnce() override { ... }
//   };
//   std::thread worker([&] { poller.run(); });
//   ...
//   poller.stop();
//   worker.join();
//
// Deliberate behaviour:
// - Every cycle is preceded by a full interval (a pause between cycles, not a period); an
//   interval of 0 or below does not pause at all.
// - pause() takes effect after the current cycle and the following sleep; stop() ends the loop
//   after at most one more sleep and never interrupts a cycle; stop() on a paused body clears
//   the pause and wakes it, and it returns without another cycle.
// - Stopped is final: resume() does not revive it, and a run() on a stopped body sleeps once and
//   returns; if pause() came after stop(), that run() first waits for resume().
// - The destructor neither stops nor waits for run(): end the loop and join its thread first.
#ifndef VELMORA_BASE_THREADING_RUNNABLE_H
#define VELMORA_BASE_THREADING_RUNNABLE_H

#include "base/export.h"
#include "base/synchronization/auto_lock.h"

namespace velmora {
namespace base {
namespace Threading {

class VELMORA_BASE_EXPORT Runnable {
 public:
  // interval: milliseconds slept before each cycle. Throws std::runtime_error when the mutex or
  // the condition variable cannot be initialised.
  explicit Runnable(int interval);
  virtual ~Runnable();

  Runnable(const Runnable&) = delete;
  Runnable& operator=(const Runnable&) = delete;

  // The loop; returns only after stop().
  virtual void run();
  // Ends the loop after at most one more sleep; clears a pause. Does not wait for run().
  virtual void stop();
  // Holds the loop before its next cycle until resume() or stop().
  virtual void pause();
  virtual void resume();
  // One cycle of work, called by run() with no lock held.
  virtual void runOnce() = 0;

  // True when neither paused nor stopped.
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
