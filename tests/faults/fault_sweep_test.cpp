// The fault-injection harness itself: a sweep finds exactly the fault points an operation has,
// counts every thread, and turns a hang, an abort, a leaked descriptor or a swallowed fault into
// a failure of the test case.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "fault_injection.h"

namespace {

using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::sweepFaults;

// Makes a block escape, so that the optimiser cannot leave out its allocation.
template <typename T>
T* kept(T* block) {
  asm volatile("" : : "g"(block) : "memory");
  return block;
}

// One allocation, freed again.
void allocateOnce() {
  delete kept(new int(1));
}

// Three allocations, the second on another thread, whose own state is one more: a failure on the
// worker is carried back to the caller.
void threeAllocations() {
  std::unique_ptr<int> first(kept(new int(1)));
  std::unique_ptr<int> second;
  std::exception_ptr worker_error;
  std::thread worker([&] {
    try {
      second.reset(kept(new int(2)));
    } catch (const std::bad_alloc&) {
      worker_error = std::current_exception();
    }
  });
  worker.join();
  if (worker_error) {
    std::rethrow_exception(worker_error);
  }
  std::unique_ptr<int[]> third(kept(new int[4]));
}

TEST(FaultSweepHarness, FindsEveryAllocationOnEveryThread) {
  threeAllocations();  // the first thread's one-time set-up is no part of the operation
  velmora::testing::armFault(FaultKind::kAllocation, std::numeric_limits<long>::max());
  threeAllocations();
  velmora::testing::disarmFaults();
  const long allocations = velmora::testing::faultCallsCounted(FaultKind::kAllocation);
  EXPECT_GE(allocations, 4);

  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    const bool threw = run.throws<std::bad_alloc>(threeAllocations);
    EXPECT_EQ(threw, run.injected());
  });
  EXPECT_EQ(report.points, allocations);
}

TEST(FaultSweepHarness, NothrowAndAlignedFormsFailToo) {
  struct alignas(64) Wide {
    char bytes[64];
  };
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    int* plain = nullptr;
    const bool threw = run.throws<std::bad_alloc>([&] {
      plain = kept(new (std::nothrow) int(3));
      delete kept(new Wide());
    });
    EXPECT_EQ(run.injected(), threw || plain == nullptr);
    delete plain;
  });
  EXPECT_EQ(report.points, 2);
}

TEST(FaultSweepHarness, FindsEveryThreadCreation) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) {
    int started = 0;
    const bool threw = run.throws<std::system_error>([&] {
      for (int i = 0; i < 3; ++i) {
        std::thread([] {}).join();
        ++started;
      }
    });
    EXPECT_EQ(threw, run.injected());
    EXPECT_EQ(started, run.injected() ? run.nth() - 1 : 3);
  });
  EXPECT_EQ(report.points, 3);
}

TEST(FaultSweepHarness, AHangFailsTheCase) {
  velmora::testing::SweepOptions options;
  options.watchdog_seconds = 1;
  EXPECT_NONFATAL_FAILURE(sweepFaults(
                              FaultKind::kAllocation,
                              [](FaultRun& run) {
                                run.throws<std::bad_alloc>(allocateOnce);
                                if (run.injected()) {
                                  pause();
                                }
                              },
                              options),
                          "hung");
}

TEST(FaultSweepHarness, AnAbortFailsTheCase) {
  EXPECT_NONFATAL_FAILURE(sweepFaults(FaultKind::kAllocation,
                                      [](FaultRun& run) {
                                        run.throws<std::bad_alloc>(allocateOnce);
                                        if (run.injected()) {
                                          abort();
                                        }
                                      }),
                          "aborted");
}

TEST(FaultSweepHarness, ALeakedDescriptorFailsTheCase) {
  EXPECT_NONFATAL_FAILURE(sweepFaults(FaultKind::kAllocation,
                                      [](FaultRun& run) {
                                        run.throws<std::bad_alloc>(allocateOnce);
                                        if (run.injected()) {
                                          open("/dev/null", O_RDONLY);
                                        }
                                      }),
                          "descriptors open before and after");
}

TEST(FaultSweepHarness, AnEscapingExceptionFailsTheCase) {
  EXPECT_NONFATAL_FAILURE(
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { run.armed(allocateOnce); }),
      "the run failed");
}

}  // namespace

TEST(FaultSweepHarness, ATerminationByDesignCountsOnlyAfterTheFault) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) {
    run.terminationAllowedAfterFault();
    const bool threw = run.throws<std::system_error>([] {
      // A failure on the inner thread is uncaught there: the designed end of such a run.
      std::thread([] { std::thread([] {}).join(); }).join();
    });
    EXPECT_EQ(threw, run.injected());
  });
  EXPECT_EQ(report.points, 2);
  EXPECT_NONFATAL_FAILURE(sweepFaults(FaultKind::kAllocation,
                                      [](FaultRun& run) {
                                        run.terminationAllowedAfterFault();
                                        if (run.nth() == 1) {
                                          abort();  // before any fault: not by design
                                        }
                                      }),
                          "aborted");
}

TEST(FaultSweepHarness, RandomFaultsStrikeOnlyInsideAScope) {
  velmora::testing::startRandomFaults(2, 2, 7);
  long outside_failures = 0;
  long inside_failures = 0;
  long inside_injected = 0;
  for (int i = 0; i < 200; ++i) {
    try {
      delete kept(new int(i));
    } catch (const std::bad_alloc&) {
      ++outside_failures;
    }
    velmora::testing::RandomFaultScope scope;
    try {
      delete kept(new int(i));
    } catch (const std::bad_alloc&) {
      ++inside_failures;
    }
    inside_injected += scope.injected(FaultKind::kAllocation);
  }
  velmora::testing::disarmFaults();
  EXPECT_EQ(outside_failures, 0);
  EXPECT_EQ(inside_failures, inside_injected);
  EXPECT_EQ(velmora::testing::randomFaultsInjected(FaultKind::kAllocation), inside_injected);
  // One in two, over 200 draws: far from none and far from all.
  EXPECT_GT(inside_failures, 40);
  EXPECT_LT(inside_failures, 160);
}
