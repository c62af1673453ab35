/// @file
/// UniqueLock: a scoped lock on a Mutex that a ConditionVariable can wait on.
///
///   velmora::base::UniqueLock lock(&mutex);
///   while (!ready) condition.wait(lock);
///
/// Lock and unlock failures, and a null mutex, are logged at level 1000 and swallowed; the
/// scope runs on as if the lock had been taken.
#ifndef VELMORA_BASE_SYNCHRONIZATION_UNIQUE_LOCK_H
#define VELMORA_BASE_SYNCHRONIZATION_UNIQUE_LOCK_H

#include "base/synchronization/auto_lock.h"

namespace velmora {
namespace base {

/// A scoped lock on a Mutex that ConditionVariable::wait can use.
class UniqueLock {
 public:
  /// Locks mutex. A null mutex ("UniqueLock lock error: ") or a failing lock ("Mutex lock error: ")
  /// is logged at level 1000 as "An runtime_error has been caught:<what>." (unique_lock.h line
  /// 33, function "UniqueLock") and the constructor returns normally.
  explicit UniqueLock(Mutex* mutex) : mutex_(mutex) {
    try {
      if (mutex_ == nullptr) {
        throw internal::PrimitiveError("UniqueLock lock error: ");
      }
      mutex_->lock();
    } catch (const std::runtime_error& error) {
      VELMORA_LOG_FULL("B-LOG", kLogError, 33, "UniqueLock",
                       "An runtime_error has been caught:%s.\n", error.what());
    }
  }

  /// Unlocks; a failure is logged the same way (line 47, function "~UniqueLock"). A lock built on
  /// a null mutex unlocks nothing.
  ~UniqueLock() {
    try {
      unlockMutex();
    } catch (const std::runtime_error& error) {
      VELMORA_LOG_FULL("B-LOG", kLogError, 47, "~UniqueLock",
                       "An runtime_error has been caught:%s.\n", error.what());
    }
  }

  UniqueLock(const UniqueLock&) = delete;
  UniqueLock& operator=(const UniqueLock&) = delete;

  /// The locked mutex; null only when the lock was built on a null mutex.
  Mutex* mutex() const { return mutex_; }

 private:
  void unlockMutex() {
    if (mutex_ != nullptr) {
      mutex_->unlock();
    }
  }

  Mutex* mutex_;
};

inline void ConditionVariable::wait(UniqueLock& lock) {
  if (lock.mutex() == nullptr) {
    throw internal::PrimitiveError("ConditionVariable wait error: ");
  }
  const int result = pthread_cond_wait(&cond_, lock.mutex()->native());
  if (result != 0) {
    internal::throwPthreadError("ConditionVariable cond_wait error: ", result);
  }
}

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_SYNCHRONIZATION_UNIQUE_LOCK_H
