// Allocation sweeps of failure-atomic operations, on top of the fault-injection harness: an
// operation either completes, or lets std::bad_alloc reach its caller with the state it works on
// exactly as it was before the call, and then works when repeated.
//
//   TEST(ValueFaultSweep, Copy) {
//     sweepAllocations([](FaultRun& run) {
//       CommonValue value(std::string("a long enough text to allocate"));
//       const CommonValue copy = completesOrKeepsState(
//           run, [&] { return describe(value); }, [&] { return CommonValue(value); });
//       EXPECT_EQ(describe(copy), describe(value));
//     });
//   }
#ifndef VELMORA_TESTS_SUPPORT_ATOMIC_SWEEP_H
#define VELMORA_TESTS_SUPPORT_ATOMIC_SWEEP_H

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "fault_injection.h"

namespace velmora {
namespace testing {

// Runs operation with this run's allocation fault armed. When the fault fired, operation must
// have thrown std::bad_alloc and state() must read as it did before the call; operation is then
// repeated disarmed. When it did not fire, operation must have completed. Returns what the call
// that completed returned (nothing for a void operation), for the caller to check.
template <typename State, typename Operation>
auto completesOrKeepsState(FaultRun& run, State state, Operation operation) {
  using Result = decltype(operation());
  const auto before = state();
  if constexpr (std::is_void_v<Result>) {
    const bool threw = run.throws<std::bad_alloc>(operation);
    EXPECT_EQ(threw, run.injected()) << "fault " << run.nth() << " was not reported";
    if (threw) {
      EXPECT_EQ(state(), before) << "fault " << run.nth() << " changed the state";
      operation();
    }
  } else {
    std::optional<Result> result;
    const bool threw = run.throws<std::bad_alloc>([&] { result.emplace(operation()); });
    EXPECT_EQ(threw, run.injected()) << "fault " << run.nth() << " was not reported";
    if (threw) {
      EXPECT_EQ(state(), before) << "fault " << run.nth() << " changed the state";
    }
    if (!result.has_value()) {
      result.emplace(operation());
    }
    return std::move(*result);
  }
}

// For operations that touch no state of their own (queries, pure functions, constructors whose
// object never comes to exist when they throw).
inline int noState() {
  return 0;
}

// Sweeps scenario over every allocation point (a child process per point) and returns their
// number, which is also printed as "[  SWEEP   ] N allocation points".
inline long sweepAllocations(const std::function<void(FaultRun&)>& scenario) {
  return sweepFaults(FaultKind::kAllocation, scenario).points;
}

// sweepAllocations for one entry of a table of sweeps: a name is printed before the count and
// attached to every failure of the sweep.
inline long sweepAllocationsOf(const std::string& name,
                               const std::function<void(FaultRun&)>& scenario) {
  if (name.empty()) {
    return sweepAllocations(scenario);
  }
  SCOPED_TRACE(name);
  printf("%s:\n", name.c_str());
  return sweepAllocations(scenario);
}

// A folder of its own for one run of a scenario, made before arming and removed with all it
// holds at the end of the scenario (the end of the run's child process).
class ScratchFolder {
 public:
  ScratchFolder() {
    char pattern[] = "/tmp/velmora-sweep-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      ADD_FAILURE() << "mkdtemp failed";
    }
    path_ = pattern;
  }
  ~ScratchFolder() {
    nftw(
        path_.c_str(),
        [](const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }, 8,
        FTW_DEPTH | FTW_PHYS);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }
  // The path of name inside the folder.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_ATOMIC_SWEEP_H
