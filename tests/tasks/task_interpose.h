// System calls interposed by the task-scheduling test executables (task_interpose.cpp):
// pthread_create fails on demand and counts its calls; pthread_mutex_init fails on demand; a kernel
// thread's next monotonic clock read can be shifted; pthread_cond_signal calls are counted per
// thread; a watched thread's timed waits are recorded with their clock and the interval they ask
// for.
#ifndef VELMORA_TESTS_TASKS_TASK_INTERPOSE_H
#define VELMORA_TESTS_TASKS_TASK_INTERPOSE_H

#include <time.h>

#include <chrono>
#include <vector>

#include "interpose.h"

namespace velmora {
namespace testing {

extern Fault g_pthreadCreateFault;
// pthread_mutex_init fails with ENOMEM.
extern Fault g_mutexInitFault;
int pthreadCreateCalls();

// The next CLOCK_MONOTONIC read made on kernel thread tid returns a time seconds later.
void shiftNextMonotonicRead(int tid, double seconds);

// pthread_cond_signal calls made so far on the calling thread.
int condSignalsOnThisThread();

// One timed condition-variable wait: the clock its deadline is on, and the interval it asks for
// (deadline minus that clock's now, seconds).
struct TimedWait {
  clockid_t clock;
  double interval;
};

// Records the timed waits of kernel thread tid (pthread_cond_timedwait, whose deadline is on the
// realtime clock, and pthread_cond_clockwait, which names its clock).
void watchTimedWaits(int tid);
// Waits until count timed waits have been recorded; returns the waits recorded by then.
std::vector<TimedWait> waitForTimedWaits(size_t count, std::chrono::milliseconds timeout);

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_TASKS_TASK_INTERPOSE_H
