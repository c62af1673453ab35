#include <errno.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/synchronization/auto_lock.h"
#include "base/synchronization/unique_lock.h"
#include "interpose.h"
#include "log_capture.h"

using velmora::testing::Fault;

namespace {
Fault g_mutex_init;
Fault g_mutex_lock;
Fault g_mutex_unlock;
// Unlocks that only report success: they pair with an injected lock failure, so that the
// scope's unlock of a mutex that was never taken does not reach the real call.
Fault g_mutex_unlock_skipped;
Fault g_cond_init;
Fault g_cond_signal;
Fault g_cond_wait;

// pthread functions report their error as the result and leave errno as it was; so do these.
int failWith(int error) {
  return error;
}

// A value errno holds before a failing call, unlike any error the interposers return: a text
// that names it names a stale reason.
constexpr int kStaleErrno = ESRCH;

// Makes the next call through fault fail, with errno holding the stale value until then.
void failNextWithStaleErrno(Fault& fault) {
  fault.failNext();
  errno = kStaleErrno;
}
}  // namespace

extern "C" {
int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  return g_mutex_init.shouldFail() ? failWith(ENOMEM)
                                   : VELMORA_REAL(pthread_mutex_init)(mutex, attributes);
}
int pthread_mutex_lock(pthread_mutex_t* mutex) {
  return g_mutex_lock.shouldFail() ? failWith(EDEADLK) : VELMORA_REAL(pthread_mutex_lock)(mutex);
}
int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  if (g_mutex_unlock_skipped.shouldFail()) {
    return 0;
  }
  return g_mutex_unlock.shouldFail() ? failWith(EPERM) : VELMORA_REAL(pthread_mutex_unlock)(mutex);
}
int pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attributes) {
  return g_cond_init.shouldFail() ? failWith(EAGAIN)
                                  : VELMORA_REAL(pthread_cond_init)(cond, attributes);
}
int pthread_cond_signal(pthread_cond_t* cond) {
  return g_cond_signal.shouldFail() ? failWith(EINVAL) : VELMORA_REAL(pthread_cond_signal)(cond);
}
int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  return g_cond_wait.shouldFail() ? failWith(EINVAL) : VELMORA_REAL(pthread_cond_wait)(cond, mutex);
}
}

namespace {

using velmora::base::AutoLock;
using velmora::base::ConditionVariable;
using velmora::base::Mutex;
using velmora::base::UniqueLock;
using velmora::testing::LogCapture;
using velmora::testing::LogCaptureTest;
using velmora::testing::LoggedOnce;

class SynchronizationTest : public LogCaptureTest {};

std::string caughtLine(const char* file, int line, const char* function, const std::string& what) {
  return std::string("[B-LOG] ") + file + ":" + std::to_string(line) + ":" + function +
         "(): An runtime_error has been caught:" + what + ".\n";
}

// Whether the mutex is free: a trylock from another thread succeeds.
bool isFree(Mutex& mutex) {
  bool free = false;
  std::thread probe([&] {
    if (pthread_mutex_trylock(mutex.native()) == 0) {
      free = true;
      VELMORA_REAL(pthread_mutex_unlock)(mutex.native());
    }
  });
  probe.join();
  return free;
}

TEST_F(SynchronizationTest, AutoLockHoldsTheMutexForItsScope) {
  Mutex mutex;
  {
    AutoLock<Mutex> lock(mutex);
    EXPECT_FALSE(isFree(mutex));
  }
  EXPECT_TRUE(isFree(mutex));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(SynchronizationTest, UniqueLockHoldsTheMutexForItsScope) {
  Mutex mutex;
  {
    UniqueLock lock(&mutex);
    EXPECT_EQ(lock.mutex(), &mutex);
    EXPECT_FALSE(isFree(mutex));
  }
  EXPECT_TRUE(isFree(mutex));
}

TEST_F(SynchronizationTest, UniqueLockOnNullMutexLogsAndDoesNotThrow) {
  errno = ENOENT;
  const std::string text = std::string("UniqueLock lock error: ") + strerror(ENOENT);
  EXPECT_NO_THROW({ UniqueLock lock(nullptr); });
  EXPECT_TRUE(LoggedOnce(1000, caughtLine("unique_lock.h", 33, "UniqueLock", text)));
  EXPECT_EQ(LogCapture::entries().size(), 1u);
}

TEST_F(SynchronizationTest, FailingMutexInitThrowsWithStrerrorText) {
  failNextWithStaleErrno(g_mutex_init);
  try {
    Mutex mutex;
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    const int error_number = errno;
    EXPECT_EQ(std::string(error.what()), std::string("Mutex init error: ") + strerror(ENOMEM));
    EXPECT_EQ(error_number, ENOMEM);
  }
}

// An owner of a mutex and a condition variable, built the way the library's classes are.
struct Guarded {
  Mutex mutex;
  ConditionVariable condition;
};

TEST_F(SynchronizationTest, FailingConditionInitThrowsAndOwnerConstructionFails) {
  failNextWithStaleErrno(g_cond_init);
  try {
    Guarded guarded;
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string("ConditionVariable init error: ") + strerror(EAGAIN));
  }
}

TEST_F(SynchronizationTest, FailingLockInAutoLockIsLoggedAndTheScopeRuns) {
  Mutex mutex;
  failNextWithStaleErrno(g_mutex_lock);
  bool scope_ran = false;
  {
    AutoLock<Mutex> lock(mutex);
    g_mutex_unlock_skipped.failNext();
    scope_ran = true;
  }
  EXPECT_TRUE(scope_ran);
  EXPECT_EQ(g_mutex_unlock_skipped.failures(), 1);
  EXPECT_TRUE(LoggedOnce(1000, caughtLine("auto_lock.h", 31, "AutoLock",
                                          std::string("Mutex lock error: ") + strerror(EDEADLK))));
}

TEST_F(SynchronizationTest, FailingUnlockInAutoLockIsLogged) {
  Mutex mutex;
  {
    AutoLock<Mutex> lock(mutex);
    failNextWithStaleErrno(g_mutex_unlock);
  }
  EXPECT_TRUE(LoggedOnce(1000, caughtLine("auto_lock.h", 44, "~AutoLock",
                                          std::string("Mutex unlock error: ") + strerror(EPERM))));
  VELMORA_REAL(pthread_mutex_unlock)(mutex.native());
}

TEST_F(SynchronizationTest, FailingStdMutexLockInAutoLockIsLogged) {
  std::mutex mutex;
  failNextWithStaleErrno(g_mutex_lock);
  {
    AutoLock<std::mutex> lock(mutex);
    g_mutex_unlock_skipped.failNext();
  }
  EXPECT_EQ(g_mutex_unlock_skipped.failures(), 1);
  const std::string what = std::system_error(EDEADLK, std::generic_category()).what();
  EXPECT_TRUE(LoggedOnce(1000, caughtLine("auto_lock.h", 31, "AutoLock", what)));
}

TEST_F(SynchronizationTest, FailingLockInUniqueLockIsLogged) {
  Mutex mutex;
  failNextWithStaleErrno(g_mutex_lock);
  EXPECT_NO_THROW({
    UniqueLock lock(&mutex);
    g_mutex_unlock_skipped.failNext();
  });
  EXPECT_EQ(g_mutex_unlock_skipped.failures(), 1);
  EXPECT_TRUE(LoggedOnce(1000, caughtLine("unique_lock.h", 33, "UniqueLock",
                                          std::string("Mutex lock error: ") + strerror(EDEADLK))));
}

TEST_F(SynchronizationTest, FailingUnlockInUniqueLockIsLogged) {
  Mutex mutex;
  {
    UniqueLock lock(&mutex);
    failNextWithStaleErrno(g_mutex_unlock);
  }
  EXPECT_TRUE(LoggedOnce(1000, caughtLine("unique_lock.h", 47, "~UniqueLock",
                                          std::string("Mutex unlock error: ") + strerror(EPERM))));
  VELMORA_REAL(pthread_mutex_unlock)(mutex.native());
}

TEST_F(SynchronizationTest, FailingSignalThrowsAndTheLockStillUnlocks) {
  Guarded guarded;
  failNextWithStaleErrno(g_cond_signal);
  try {
    UniqueLock lock(&guarded.mutex);
    guarded.condition.notify_one();
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string("ConditionVariable notify_one error: ") + strerror(EINVAL));
  }
  EXPECT_TRUE(isFree(guarded.mutex));
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(SynchronizationTest, FailingWaitThrows) {
  Guarded guarded;
  failNextWithStaleErrno(g_cond_wait);
  UniqueLock lock(&guarded.mutex);
  try {
    guarded.condition.wait(lock);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string("ConditionVariable cond_wait error: ") + strerror(EINVAL));
  }
}

TEST_F(SynchronizationTest, WaitOnLockWithoutMutexThrowsBeforeWaiting) {
  ConditionVariable condition;
  UniqueLock lock(nullptr);
  errno = EBADF;
  try {
    condition.wait(lock);
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string("ConditionVariable wait error: ") + strerror(EBADF));
  }
}

TEST_F(SynchronizationTest, WaitReturnsAfterNotify) {
  Guarded guarded;
  bool ready = false;
  std::thread notifier([&] {
    UniqueLock lock(&guarded.mutex);
    ready = true;
    guarded.condition.notify_one();
  });
  {
    UniqueLock lock(&guarded.mutex);
    while (!ready) {
      guarded.condition.wait(lock);
    }
  }
  notifier.join();
  EXPECT_TRUE(ready);
}

// A lockable whose lock throws something other than std::runtime_error.
struct LogicFailingMutex {
  void lock() { throw std::logic_error("not a runtime error"); }
  void unlock() {}
};

TEST_F(SynchronizationTest, OtherExceptionTypesPassThroughAutoLock) {
  LogicFailingMutex mutex;
  EXPECT_THROW({ AutoLock<LogicFailingMutex> lock(mutex); }, std::logic_error);
  EXPECT_TRUE(LogCapture::entries().empty());
}

TEST_F(SynchronizationTest, ContendedAutoLockKeepsCountsExact) {
  Mutex mutex;
  long counter = 0;
  constexpr int kThreads = 4;
  constexpr int kIncrements = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kIncrements; ++i) {
        AutoLock<Mutex> lock(mutex);
        ++counter;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter, static_cast<long>(kThreads) * kIncrements);
}

}  // namespace
