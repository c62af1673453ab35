// The pausable periodic thread body.
#include "base/threading/runnable.h"

#include <time.h>

#include "base/logging.h"
#include "base/synchronization/unique_lock.h"

namespace velmora {
namespace base {
namespace Threading {

Runnable::Runnable(int interval) : mutex_(), stopped_(false), paused_(false), cond_() {
  VELMORA_LOG_AT(kLogInfo, 9, "called, interval: %d\n\n", interval);
  interval_ = interval;
}

Runnable::~Runnable() {
  VELMORA_LOG_AT(kLogInfo, 13, "called\n\n");
}

void Runnable::run() {
  VELMORA_LOG_AT(kLogInfo, 21, "called\n\n");
  for (;;) {
    sleepInterval();
    if (waitWhilePausedThenCheckStopped()) {
      return;
    }
    runOnce();
  }
}

// The result is ignored: a sleep cut short by a signal ends early, and a negative interval is
// refused at once.
void Runnable::sleepInterval() const {
  timespec request;
  request.tv_sec = interval_ / 1000;
  request.tv_nsec = (interval_ % 1000) * 1000000L;
  nanosleep(&request, nullptr);
}

bool Runnable::waitWhilePausedThenCheckStopped() {
  UniqueLock lock(&mutex_);
  while (paused_) {
    cond_.wait(lock);
  }
  return stopped_;
}

void Runnable::stop() {
  VELMORA_LOG_AT(kLogInfo, 36, "called\n\n");
  UniqueLock lock(&mutex_);
  if (paused_) {
    paused_ = false;
    cond_.notify_one();
  }
  stopped_ = true;
}

bool Runnable::running() {
  UniqueLock lock(&mutex_);
  return !paused_ && !stopped_;
}

void Runnable::pause() {
  VELMORA_LOG_AT(kLogInfo, 46, "called\n\n");
  UniqueLock lock(&mutex_);
  paused_ = true;
}

void Runnable::resume() {
  VELMORA_LOG_AT(kLogInfo, 52, "called\n\n");
  UniqueLock lock(&mutex_);
  paused_ = false;
  cond_.notify_one();
}

}  // namespace Threading
}  // namespace base
}  // namespace velmora
