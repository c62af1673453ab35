// The interposers define the C library's own symbols, so the inline wrappers that
// _FORTIFY_SOURCE declares for some of them (ppoll, read) must not be in scope here.
#undef _FORTIFY_SOURCE
#include "timer_interpose.h"

#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>

#include <gtest/gtest.h>

namespace velmora {
namespace testing {

Fault g_pipeFault;
Fault g_ppollFault;

namespace {

std::atomic<int> g_pipeCalls{0};
std::atomic<int> g_pipeReadEnd{-1};
std::atomic<int> g_pipeWriteEnd{-1};
std::atomic<int> g_firstThreadTid{0};
std::atomic<int> g_clockFailTid{0};
thread_local bool t_clockFrozen = false;
thread_local timespec t_frozenTime = {0, 0};
thread_local bool t_failNothrowNew = false;

Counter& createdThreads() {
  static Counter* created = new Counter();
  return *created;
}
Counter& finishedThreads() {
  static Counter* finished = new Counter();
  return *finished;
}

bool calledFromLibrary(void* returnAddress) {
  Dl_info info;
  return dladdr(returnAddress, &info) != 0 && info.dli_fname != nullptr &&
         strstr(info.dli_fname, "libbase_utils") != nullptr;
}

struct ClockHold {
  std::mutex mutex;
  std::condition_variable released;
  int tid = 0;
};

ClockHold& clockHold() {
  static ClockHold* instance = new ClockHold();
  return *instance;
}

void waitWhileClockHeld() {
  ClockHold& hold = clockHold();
  const int self = currentThreadId();
  {
    std::lock_guard<std::mutex> lock(hold.mutex);
    if (hold.tid != self) {
      return;
    }
  }
  // Counted outside the hold's lock: the counter's waiters read the clock.
  heldClockCalls().increment();
  std::unique_lock<std::mutex> lock(hold.mutex);
  hold.released.wait(lock, [&] { return hold.tid != self; });
}

struct ThreadGate {
  std::mutex mutex;
  std::condition_variable opened;
  bool held = false;
};

ThreadGate& gate() {
  static ThreadGate* instance = new ThreadGate();
  return *instance;
}

struct ThreadStart {
  void* (*body)(void*);
  void* argument;
};

void* trackedThreadBody(void* start) {
  int none = 0;
  g_firstThreadTid.compare_exchange_strong(none, currentThreadId());
  const ThreadStart thread = *static_cast<ThreadStart*>(start);
  delete static_cast<ThreadStart*>(start);
  {
    ThreadGate& threadGate = gate();
    std::unique_lock<std::mutex> lock(threadGate.mutex);
    threadGate.opened.wait(lock, [&] { return !threadGate.held; });
  }
  void* result = thread.body(thread.argument);
  finishedThreads().increment();
  return result;
}

}  // namespace

int pipeCalls() {
  return g_pipeCalls.load();
}
int lastPipeReadEnd() {
  return g_pipeReadEnd.load();
}
int lastPipeWriteEnd() {
  return g_pipeWriteEnd.load();
}
Counter& ppollCalls() {
  static Counter* calls = new Counter();
  return *calls;
}
void holdClockOnThread(int tid) {
  std::lock_guard<std::mutex> lock(clockHold().mutex);
  clockHold().tid = tid;
}

void releaseClock() {
  {
    std::lock_guard<std::mutex> lock(clockHold().mutex);
    clockHold().tid = 0;
  }
  clockHold().released.notify_all();
}

Counter& heldClockCalls() {
  static Counter* calls = new Counter();
  return *calls;
}

int firstThreadId() {
  return g_firstThreadTid.load();
}
void failClockOnThread(int tid) {
  g_clockFailTid.store(tid);
}
void freezeClockOnThisThread(const timespec& time) {
  t_frozenTime = time;
  t_clockFrozen = true;
}
void unfreezeClockOnThisThread() {
  t_clockFrozen = false;
}
void failNextNothrowNewOnThisThread() {
  t_failNothrowNew = true;
}
int threadsCreated() {
  return createdThreads().value();
}
int threadsFinished() {
  return finishedThreads().value();
}

bool waitForThreadsCreated(int count, std::chrono::milliseconds timeout) {
  return createdThreads().waitAtLeast(count, timeout);
}

bool waitForThreadsToFinish(int remaining, std::chrono::milliseconds timeout) {
  return finishedThreads().waitAtLeast(threadsCreated() - remaining, timeout);
}

HandlerThreadDrain::~HandlerThreadDrain() {
  // Everything but the engine thread ends.
  EXPECT_TRUE(waitForThreadsToFinish(1, std::chrono::seconds(30)));
}

void holdNewThreads() {
  std::lock_guard<std::mutex> lock(gate().mutex);
  gate().held = true;
}

void releaseNewThreads() {
  {
    std::lock_guard<std::mutex> lock(gate().mutex);
    gate().held = false;
  }
  gate().opened.notify_all();
}

int currentThreadId() {
  return static_cast<int>(syscall(SYS_gettid));
}

}  // namespace testing
}  // namespace velmora

using velmora::testing::g_pipeFault;
using velmora::testing::g_ppollFault;

extern "C" {

VELMORA_TEST_INTERPOSER int pipe(int fds[2]) {
  // Only the library's pipe counts: sanitizer runtimes make pipes of their own.
  if (!velmora::testing::calledFromLibrary(__builtin_return_address(0))) {
    return VELMORA_REAL(pipe)(fds);
  }
  velmora::testing::g_pipeCalls.fetch_add(1);
  if (g_pipeFault.shouldFail()) {
    errno = EMFILE;
    return -1;
  }
  const int result = VELMORA_REAL(pipe)(fds);
  if (result == 0) {
    velmora::testing::g_pipeReadEnd.store(fds[0]);
    velmora::testing::g_pipeWriteEnd.store(fds[1]);
  }
  return result;
}

VELMORA_TEST_INTERPOSER int ppoll(struct pollfd* fds, nfds_t count, const struct timespec* timeout,
                                  const sigset_t* mask) {
  // The fault is decided before the call is counted, so a fault armed after a call was
  // counted applies to a later call.
  const bool fail = g_ppollFault.shouldFail();
  velmora::testing::ppollCalls().increment();
  if (fail) {
    errno = EINTR;
    return -1;
  }
  return VELMORA_REAL(ppoll)(fds, count, timeout, mask);
}

VELMORA_TEST_INTERPOSER int clock_gettime(clockid_t clock, struct timespec* time) {
  if (velmora::testing::t_clockFrozen) {
    *time = velmora::testing::t_frozenTime;
    return 0;
  }
  velmora::testing::waitWhileClockHeld();
  const int failing = velmora::testing::g_clockFailTid.load();
  if (failing != 0 && failing == velmora::testing::currentThreadId()) {
    errno = EINVAL;
    return -1;
  }
  return VELMORA_REAL(clock_gettime)(clock, time);
}

VELMORA_TEST_INTERPOSER int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                           void* (*body)(void*), void* argument) {
  auto* start = new velmora::testing::ThreadStart{body, argument};
  velmora::testing::createdThreads().add(1);
  const int result =
      VELMORA_REAL(pthread_create)(thread, attributes, velmora::testing::trackedThreadBody, start);
  if (result != 0) {
    velmora::testing::createdThreads().add(-1);
    delete start;
  }
  return result;
}

}  // extern "C"

VELMORA_TEST_INTERPOSER void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (velmora::testing::t_failNothrowNew) {
    velmora::testing::t_failNothrowNew = false;
    return nullptr;
  }
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
