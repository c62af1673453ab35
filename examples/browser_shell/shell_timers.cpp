#include "shell_timers.h"

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <utility>

namespace browser_shell {

using velmora::base::simple_timer::CONTINUE;
using velmora::base::simple_timer::ONCE;
using velmora::base::simple_timer::TimeoutTime;
using velmora::base::simple_timer::Timer;

namespace {

TimeoutTime timeoutOfMilliseconds(int milliseconds) {
  return TimeoutTime{milliseconds / 1000, milliseconds % 1000, 0};
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Heartbeat

struct Heartbeat::State {
  std::mutex mutex;
  bool closed = false;
  int expiries = 0;
  std::function<std::string()> progress;

  // One expiry, on the timer's handler thread.
  void beat() {
    std::lock_guard<std::mutex> lock(mutex);
    if (closed) {
      return;
    }
    ++expiries;
    std::printf("[heartbeat %d] %s\n", expiries, progress().c_str());
    std::fflush(stdout);
  }

  void close() {
    std::lock_guard<std::mutex> lock(mutex);
    closed = true;
    progress = nullptr;  // it may refer to objects that end with the run
  }
};

Heartbeat::Heartbeat(int periodMs, std::function<std::string()> progress)
    : state_(std::make_shared<State>()) {
  state_->progress = std::move(progress);
  std::shared_ptr<State> state = state_;
  timer_.reset(new Timer(
      "heartbeat", timeoutOfMilliseconds(periodMs), [state](Timer*, void*) { state->beat(); },
      nullptr, CONTINUE));
}

// ~Timer stops the timer, but a handler call may still begin after that: close the state first.
Heartbeat::~Heartbeat() {
  state_->close();
}

bool Heartbeat::start() {
  return timer_->start() == 0;
}

void Heartbeat::stop() {
  timer_->stop();  // waits for a handler call in progress
  state_->close();
}

int Heartbeat::expiries() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->expiries;
}

// ---------------------------------------------------------------------------------------------
// EndOfRun

struct EndOfRun::State {
  std::mutex mutex;
  std::condition_variable fired;
  int expiries = 0;

  void expire() {
    std::lock_guard<std::mutex> lock(mutex);
    ++expiries;
    fired.notify_all();
  }
};

EndOfRun::EndOfRun(double seconds) : state_(std::make_shared<State>()) {
  std::shared_ptr<State> state = state_;
  const int milliseconds = static_cast<int>(std::lround(seconds * 1000.0));
  timer_.reset(new Timer(
      "end-of-run", timeoutOfMilliseconds(milliseconds),
      [state](Timer*, void*) { state->expire(); }, nullptr, ONCE));
}

EndOfRun::~EndOfRun() = default;

bool EndOfRun::start() {
  return timer_->start() == 0;
}

bool EndOfRun::waitForEnd(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  return state_->fired.wait_for(lock, limit, [this] { return state_->expiries > 0; });
}

int EndOfRun::expiries() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->expiries;
}

}  // namespace browser_shell
