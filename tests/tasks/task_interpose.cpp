#include "task_interpose.h"

#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace velmora {
namespace testing {

Fault g_pthreadCreateFault;
Fault g_mutexInitFault;

namespace {

std::atomic<int> g_createCalls{0};
std::atomic<int> g_shiftTid{0};
std::atomic<double> g_shiftSeconds{0.0};
thread_local int t_condSignals = 0;

std::atomic<int> g_watchedTid{0};
std::mutex g_waitsMutex;
std::condition_variable g_waitsCond;
std::vector<TimedWait> g_waits;

int kernelTid() {
  return static_cast<int>(syscall(SYS_gettid));
}

double seconds(const timespec& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Records the wait when the calling thread is the watched one.
void recordTimedWait(clockid_t clock, const timespec* deadline) {
  const int watched = g_watchedTid.load();
  if (watched == 0 || watched != kernelTid()) {
    return;
  }
  timespec now;
  VELMORA_REAL(clock_gettime)(clock, &now);
  std::lock_guard<std::mutex> lock(g_waitsMutex);
  g_waits.push_back(TimedWait{clock, seconds(*deadline) - seconds(now)});
  g_waitsCond.notify_all();
}

}  // namespace

int pthreadCreateCalls() {
  return g_createCalls.load();
}

void shiftNextMonotonicRead(int tid, double seconds) {
  g_shiftSeconds.store(seconds);
  g_shiftTid.store(tid);
}

int condSignalsOnThisThread() {
  return t_condSignals;
}

void watchTimedWaits(int tid) {
  g_watchedTid.store(tid);
}

std::vector<TimedWait> waitForTimedWaits(size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(g_waitsMutex);
  g_waitsCond.wait_for(lock, timeout, [&] { return g_waits.size() >= count; });
  return g_waits;
}

}  // namespace testing
}  // namespace velmora

using velmora::testing::g_pthreadCreateFault;

extern "C" {

VELMORA_TEST_INTERPOSER int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                           void* (*entry)(void*), void* argument) {
  velmora::testing::g_createCalls.fetch_add(1);
  if (g_pthreadCreateFault.shouldFail()) {
    return EAGAIN;
  }
  return VELMORA_REAL(pthread_create)(thread, attributes, entry, argument);
}

VELMORA_TEST_INTERPOSER int pthread_mutex_init(pthread_mutex_t* mutex,
                                               const pthread_mutexattr_t* attributes) {
  if (velmora::testing::g_mutexInitFault.shouldFail()) {
    errno = ENOMEM;
    return ENOMEM;
  }
  return VELMORA_REAL(pthread_mutex_init)(mutex, attributes);
}

VELMORA_TEST_INTERPOSER int clock_gettime(clockid_t clock, timespec* time) {
  const int result = VELMORA_REAL(clock_gettime)(clock, time);
  if (clock == CLOCK_MONOTONIC && result == 0 && velmora::testing::g_shiftTid.load() != 0 &&
      velmora::testing::g_shiftTid.load() == velmora::testing::kernelTid()) {
    velmora::testing::g_shiftTid.store(0);
    const double shift = velmora::testing::g_shiftSeconds.load();
    const long long nanoseconds = static_cast<long long>(time->tv_sec) * 1000000000LL +
                                  time->tv_nsec + static_cast<long long>(shift * 1e9);
    time->tv_sec = static_cast<time_t>(nanoseconds / 1000000000LL);
    time->tv_nsec = static_cast<long>(nanoseconds % 1000000000LL);
  }
  return result;
}

VELMORA_TEST_INTERPOSER int pthread_cond_signal(pthread_cond_t* cond) {
  ++velmora::testing::t_condSignals;
  return VELMORA_REAL(pthread_cond_signal)(cond);
}

VELMORA_TEST_INTERPOSER int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                                   const timespec* deadline) {
  velmora::testing::recordTimedWait(CLOCK_REALTIME, deadline);
  return VELMORA_REAL(pthread_cond_timedwait)(cond, mutex, deadline);
}

VELMORA_TEST_INTERPOSER int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                                   clockid_t clock, const timespec* deadline) {
  velmora::testing::recordTimedWait(clock, deadline);
  return VELMORA_REAL(pthread_cond_clockwait)(cond, mutex, clock, deadline);
}
}
