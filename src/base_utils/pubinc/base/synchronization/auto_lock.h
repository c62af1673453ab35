/// @file
/// Checked POSIX mutex and condition-variable wrappers and the scoped lock AutoLock.
///
/// Every failing POSIX call becomes a std::runtime_error whose text is a fixed prefix followed by
/// strerror(errno), with errno set to the error the pthread call returned. AutoLock catches such an
/// error from lock or unlock, logs it at level 1000 and carries on as if the lock had been taken,
/// so a guarded scope is never left by that exception. ConditionVariable errors are thrown to the
/// caller. AutoLock works on Mutex and std::mutex:
///
///   velmora::base::Mutex mutex;
///   {
///     velmora::base::AutoLock<velmora::base::Mutex> lock(mutex);
///     ...
///   }
///
/// None of the locks is recursive.
#ifndef VELMORA_BASE_SYNCHRONIZATION_AUTO_LOCK_H
#define VELMORA_BASE_SYNCHRONIZATION_AUTO_LOCK_H

#include <errno.h>
#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "base/logging.h"

namespace velmora {
namespace base {

class UniqueLock;

namespace internal {

/// The failure of a checked primitive: a std::runtime_error whose text is the prefix followed by
/// strerror(errno). The text is kept inside the object, so that reporting a failure never needs
/// the heap: with memory exhausted, a text built on the heap would come out cut short, or its
/// std::bad_alloc would escape a scoped lock, from its destructor ending the process.
class PrimitiveError : public std::runtime_error {
 public:
  /// The prefix (ending in ": ") and strerror of the current errno.
  explicit PrimitiveError(const char* prefix) : std::runtime_error("") {
    snprintf(text_, sizeof(text_), "%s%s", prefix, strerror(errno));
  }

  /// The prefix and the strerror text.
  const char* what() const noexcept override { return text_; }

 private:
  // The longest prefix and the longest strerror text fit with room to spare.
  char text_[128];
};

/// Throws the failure of a pthread call. Those calls return their error and leave errno as it
/// was, so errno is set to the returned error first: the text names the real reason, and errno
/// holds it for the caller as well.
[[noreturn]] inline void throwPthreadError(const char* prefix, int result) {
  errno = result;
  throw PrimitiveError(prefix);
}

}  // namespace internal

/// A default (non-recursive, non-checking) POSIX mutex. Not copyable.
class Mutex {
 public:
  /// Throws std::runtime_error("Mutex init error: ...") when the mutex cannot be initialised.
  Mutex() {
    const int result = pthread_mutex_init(&mutex_, nullptr);
    if (result != 0) {
      internal::throwPthreadError("Mutex init error: ", result);
    }
  }
  ~Mutex() { pthread_mutex_destroy(&mutex_); }

  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  /// Throws std::runtime_error("Mutex lock error: ...") on failure.
  void lock() {
    const int result = pthread_mutex_lock(&mutex_);
    if (result != 0) {
      internal::throwPthreadError("Mutex lock error: ", result);
    }
  }

  /// Throws std::runtime_error("Mutex unlock error: ...") on failure.
  void unlock() {
    const int result = pthread_mutex_unlock(&mutex_);
    if (result != 0) {
      internal::throwPthreadError("Mutex unlock error: ", result);
    }
  }

  /// The wrapped POSIX mutex, for waits on a condition variable.
  pthread_mutex_t* native() { return &mutex_; }

 private:
  pthread_mutex_t mutex_;
};

/// A POSIX condition variable with default attributes; waits are untimed. Callers loop on their
/// own predicate around wait().
class ConditionVariable {
 public:
  /// Throws std::runtime_error("ConditionVariable init error: ...") on failure.
  ConditionVariable() {
    const int result = pthread_cond_init(&cond_, nullptr);
    if (result != 0) {
      internal::throwPthreadError("ConditionVariable init error: ", result);
    }
  }
  ~ConditionVariable() { pthread_cond_destroy(&cond_); }

  ConditionVariable(const ConditionVariable&) = delete;
  ConditionVariable& operator=(const ConditionVariable&) = delete;

  /// Throws std::runtime_error("ConditionVariable notify_one error: ...") on failure.
  void notify_one() {
    const int result = pthread_cond_signal(&cond_);
    if (result != 0) {
      internal::throwPthreadError("ConditionVariable notify_one error: ", result);
    }
  }

  /// Waits on the lock's mutex (defined in unique_lock.h). Throws "ConditionVariable wait error: "
  /// for a lock without a mutex and "ConditionVariable cond_wait error: " when the wait fails.
  void wait(UniqueLock& lock);

 private:
  pthread_cond_t cond_;
};

/// Locks M for one scope; lock and unlock failures are logged at level 1000 and swallowed.
template <typename M>
class AutoLock {
 public:
  /// Locks mutex. A std::runtime_error from the lock is logged at level 1000 as
  /// "An runtime_error has been caught:<what>." (auto_lock.h line 31, function "AutoLock") and the
  /// scope runs on; other exception types pass through.
  explicit AutoLock(M& mutex) : mutex_(mutex) {
    try {
      mutex_.lock();
    } catch (const std::runtime_error& error) {
      VELMORA_LOG_FULL("B-LOG", kLogError, 31, "AutoLock", "An runtime_error has been caught:%s.\n",
                       error.what());
    }
  }

  /// Unlocks; a std::runtime_error is logged the same way (line 44, function "~AutoLock").
  ~AutoLock() {
    try {
      mutex_.unlock();
    } catch (const std::runtime_error& error) {
      VELMORA_LOG_FULL("B-LOG", kLogError, 44, "~AutoLock",
                       "An runtime_error has been caught:%s.\n", error.what());
    }
  }

  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;

 private:
  M& mutex_;
};

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_SYNCHRONIZATION_AUTO_LOCK_H
