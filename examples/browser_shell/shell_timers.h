// Simple timers in the shell:
// - Heartbeat: a CONTINUE timer whose handler prints a progress line at every expiry.
// - EndOfRun: a ONCE timer that ends the run; the shell waits for it.
//
// Simple-timer handlers run on fresh threads, and a handler call may even begin just after
// stop() has returned. So a handler reaches only state it shares through a std::shared_ptr, and
// that state is closed under its mutex when the timer is stopped.
#ifndef BROWSER_SHELL_SHELL_TIMERS_H
#define BROWSER_SHELL_SHELL_TIMERS_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/simple_timer/timer.h"

namespace browser_shell {

class Heartbeat {
 public:
  // progress: called on the timer's handler thread for the text of one progress line.
  Heartbeat(int periodMs, std::function<std::string()> progress);
  ~Heartbeat();

  Heartbeat(const Heartbeat&) = delete;
  Heartbeat& operator=(const Heartbeat&) = delete;

  bool start();
  // Stops the timer; once it returns no further line is printed.
  void stop();
  int expiries() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::unique_ptr<velmora::base::simple_timer::Timer> timer_;
};

class EndOfRun {
 public:
  explicit EndOfRun(double seconds);
  ~EndOfRun();

  EndOfRun(const EndOfRun&) = delete;
  EndOfRun& operator=(const EndOfRun&) = delete;

  bool start();
  // Waits until the timer has fired; false when the limit passed first.
  bool waitForEnd(std::chrono::milliseconds limit);
  int expiries() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::unique_ptr<velmora::base::simple_timer::Timer> timer_;
};

}  // namespace browser_shell

#endif  // BROWSER_SHELL_SHELL_TIMERS_H
