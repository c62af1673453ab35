// Timer tasks and the liveness record of their owners.
#include "base/timer/timer_task.h"

#include <atomic>

namespace velmora {
namespace base {
namespace timer {

namespace {

// The process-wide session counter: incremented first, so the first task gets 1.
std::atomic<int> g_lastSessionId{0};

int nextSessionId() {
  return g_lastSessionId.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

TimerTaskBase::TimerTaskBase() : nextFireTime_(0.0), sessionId_(nextSessionId()), taskId_(0) {}

TimerTaskBase::~TimerTaskBase() = default;

void TimerTaskBase::setNextFireTime(double seconds) {
  nextFireTime_ = seconds;
}

double TimerTaskBase::getNextFireTime() const {
  return nextFireTime_;
}

int TimerTaskBase::sessionId() const {
  return sessionId_;
}

int TimerTaskBase::taskId() const {
  return taskId_;
}

TimerExecutionContext::TimerExecutionContext(TimerExecutable* executable)
    : magic_(kAliveMagic), executable_(executable) {}

TimerExecutionContext::~TimerExecutionContext() {}

void TimerExecutionContext::markAsDead() {
  magic_ = 0;
}

}  // namespace timer
}  // namespace base
}  // namespace velmora
