/// @file
/// The lock-free, lazily created, never destroyed process-wide instance behind the library's
/// static accessors (TimerThreadPool::GetInstance, EventDispatcher::GetInstance).
///
/// The instance word holds 0 (not created), 1 (being created by some thread) or the address of
/// the instance. The first caller claims it with a compare-and-swap and constructs the object;
/// concurrent callers yield until the address is published.
///
/// Deliberate behaviour: if T's constructor throws, the exception reaches the first caller but
/// the word stays at 1, so every later call spins in WaitForInstance for ever. T's constructor
/// must not call its own accessor for the same reason.
#ifndef VELMORA_BASE_SINGLETON_H
#define VELMORA_BASE_SINGLETON_H

#include <cstdint>

#include "base/export.h"

namespace velmora {
namespace base {
namespace internal {

constexpr intptr_t kSingletonNotCreated = 0;
constexpr intptr_t kSingletonBeingCreated = 1;

/// Yields the processor until *instance is no longer the creation marker 1, then returns it.
VELMORA_BASE_EXPORT intptr_t WaitForInstance(intptr_t* instance);

}  // namespace internal

/// Creation policy: plain new T(), never deleted (no at-exit hook).
template <typename T>
struct DefaultSingletonTraits {
  /// Creates the instance with its default constructor.
  static T* New() { return new T(); }
};

/// The one lazily created instance of T; see the file's description.
template <typename T, typename Traits = DefaultSingletonTraits<T>, typename DifferentiatingType = T>
class Singleton {
 public:
  /// Returns the one instance, creating it on the first call.
  static T* get() {
    intptr_t value = __atomic_load_n(&instance_, __ATOMIC_ACQUIRE);
    if (static_cast<uintptr_t>(value) > static_cast<uintptr_t>(internal::kSingletonBeingCreated)) {
      return reinterpret_cast<T*>(value);
    }
    intptr_t expected = internal::kSingletonNotCreated;
    if (__atomic_compare_exchange_n(&instance_, &expected, internal::kSingletonBeingCreated, false,
                                    __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
      T* created = Traits::New();
      __atomic_store_n(&instance_, reinterpret_cast<intptr_t>(created), __ATOMIC_RELEASE);
      return created;
    }
    return reinterpret_cast<T*>(internal::WaitForInstance(&instance_));
  }

  /// The instance word: 0, the marker 1, or the instance's address.
  static intptr_t instance_;
};

template <typename T, typename Traits, typename DifferentiatingType>
intptr_t Singleton<T, Traits, DifferentiatingType>::instance_ = 0;

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_SINGLETON_H
