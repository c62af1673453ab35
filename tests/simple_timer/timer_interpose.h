// System calls interposed by the simple-timer tests. Every call forwards to the real one unless a
// test arms a fault; the engine thread is recognised as the thread that waits in ppoll.
#ifndef VELMORA_TESTS_SIMPLE_TIMER_TIMER_INTERPOSE_H
#define VELMORA_TESTS_SIMPLE_TIMER_TIMER_INTERPOSE_H

#include <time.h>

#include <chrono>

#include "interpose.h"
#include "timer_test_support.h"

namespace velmora {
namespace testing {

// pipe fails with EMFILE while armed; ppoll fails with EINTR while armed.
extern Fault g_pipeFault;
extern Fault g_ppollFault;

int pipeCalls();
// The descriptors of the last pipe created.
int lastPipeReadEnd();
int lastPipeWriteEnd();

// The calls of ppoll made so far (the engine is the only caller).
Counter& ppollCalls();

// The kernel id of the first thread the process created (the engine in these tests), 0 until
// that thread runs.
int firstThreadId();

// clock_gettime fails with EINVAL on the given thread (0: on none).
void failClockOnThread(int tid);
// clock_gettime on the given thread waits until released (0: on none).
void holdClockOnThread(int tid);
void releaseClock();
// The number of calls waiting in a held clock_gettime.
Counter& heldClockCalls();
// clock_gettime on the calling thread returns this time until unfrozen.
void freezeClockOnThisThread(const timespec& time);
void unfreezeClockOnThisThread();

// The next nothrow operator new on the calling thread returns null.
void failNextNothrowNewOnThisThread();

// Threads created since the start of the process, and those whose body has returned.
int threadsCreated();
int threadsFinished();
// Waits until at least count threads have been created.
bool waitForThreadsCreated(int count, std::chrono::milliseconds timeout);
// Waits until every thread created so far but `remaining` has returned from its body.
bool waitForThreadsToFinish(int remaining, std::chrono::milliseconds timeout);

// Declared after the state a test's handlers use and before its timers, so that on leaving the
// test the timers stop first, then every handler thread still in flight (a CONTINUE expiry taken
// just before stop) ends, and only then the state goes.
class HandlerThreadDrain {
 public:
  HandlerThreadDrain() = default;
  ~HandlerThreadDrain();
  HandlerThreadDrain(const HandlerThreadDrain&) = delete;
  HandlerThreadDrain& operator=(const HandlerThreadDrain&) = delete;
};
// While held, new threads wait before running their body.
void holdNewThreads();
void releaseNewThreads();

int currentThreadId();

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_SIMPLE_TIMER_TIMER_INTERPOSE_H
