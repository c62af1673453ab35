// Fault injection for tests: a program linked with this support replaces every global operator
// new and delete (plain, array, nothrow, aligned, sized) and interposes pthread_create, which
// std::thread goes through too. Armed, the n-th allocation or thread creation from then on, on
// any thread, fails: operator new throws std::bad_alloc (the nothrow forms return null) and
// pthread_create returns EAGAIN. Disarmed, both forward and only count.
//
// A sweep runs a scenario once for each n = 1, 2, ... in a fresh child process, until a run in
// which the armed fault never fired: that run did the whole operation, so n - 1 is the number of
// fault points the operation has. The child is watched: a hang (the watchdog's alarm), an abort
// or std::terminate, a leaked descriptor, a leak that LeakSanitizer finds, an uncaught exception
// or a failed assertion fails the test case with the n that caused it.
//
//   TEST(TimerThreadFaultSweep, FirstPost) {
//     const auto report = velmora::testing::sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
//       velmora::base::timer::TimerThread thread;
//       const bool threw = run.throws<std::bad_alloc>([&] { thread.postTask(task); });
//       EXPECT_EQ(threw, run.injected());
//       ... then, disarmed, the object must work as before ...
//     });
//     EXPECT_GT(report.points, 0);
//   }
//
// Only calls made between arming and disarming count, so a scenario builds its fixtures before
// arming and checks its outcome after. Allocations made inside the log capture's platform calls
// never count or fail: the device's debug-output library does not allocate through operator new.
#ifndef VELMORA_TESTS_SUPPORT_FAULT_INJECTION_H
#define VELMORA_TESTS_SUPPORT_FAULT_INJECTION_H

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <string>
#include <typeinfo>
#include <utility>

namespace velmora {
namespace testing {

enum class FaultKind { kAllocation, kThreadCreation };

// Makes the nth call of that kind from now on fail, on whatever thread it happens (1: the next).
void armFault(FaultKind kind, long nth);
// Stops failing and counting; the record of whether the fault fired stays until the next arming.
void disarmFaults();
// Whether the fault armed last has fired.
bool faultFired(FaultKind kind);
// Calls of that kind counted since the last arming.
long faultCallsCounted(FaultKind kind);

// From now until disarmFaults(), fails each allocation with probability 1 / allocation_one_in
// and each thread creation with probability 1 / thread_one_in (0: never), made by a thread
// inside a RandomFaultScope: a soak wraps each call into the library in one, so that its own
// bookkeeping never fails and each fault can be traced to the call it struck.
void startRandomFaults(unsigned allocation_one_in, unsigned thread_one_in, unsigned seed);
// Faults injected at random since startRandomFaults, on every thread.
long randomFaultsInjected(FaultKind kind);

// Lets random faults strike the calls this thread makes while the scope lives.
class RandomFaultScope {
 public:
  // thread_creations false: only allocations fail, for calls whose failed thread creation
  // would leave a thread dead for good by design.
  explicit RandomFaultScope(bool thread_creations = true);
  ~RandomFaultScope();
  RandomFaultScope(const RandomFaultScope&) = delete;
  RandomFaultScope& operator=(const RandomFaultScope&) = delete;

  // Faults of that kind injected on this thread since the scope began.
  long injected(FaultKind kind) const;

 private:
  long allocations_before_;
  long threads_before_;
  bool thread_creations_before_;
};

// Blocks and bytes allocated through operator new and not yet deleted.
long long liveHeapBlocks();
long long liveHeapBytes();

// Entries of a folder other than "." and "..", or -1 when it cannot be listed.
int countFolderEntries(const char* path);

// Open descriptors of this process, as /proc/self/fd lists them.
int openDescriptorCount();

// One run of a sweep: the scenario arms the fault around the operation it tests.
class FaultRun {
 public:
  FaultRun(FaultKind kind, long nth) : kind_(kind), nth_(nth) {}

  long nth() const { return nth_; }
  FaultKind kind() const { return kind_; }
  // Whether the fault fired during an armed call of this run.
  bool injected() const { return injected_; }

  // Runs operation with the fault armed; exceptions pass through, the fault disarmed.
  template <typename Operation>
  void armed(Operation&& operation) {
    armFault(kind_, nth_);
    try {
      operation();
    } catch (...) {
      noteDisarmed();
      throw;
    }
    noteDisarmed();
  }

  // Runs operation armed; true if it threw Expected. Any other exception fails the run.
  template <typename Expected, typename Operation>
  bool throws(Operation&& operation) {
    try {
      armed(std::forward<Operation>(operation));
    } catch (const Expected&) {
      return true;
    } catch (const std::exception& other) {
      ADD_FAILURE() << "fault " << nth_ << ": unexpected " << typeid(other).name() << ": "
                    << other.what();
    } catch (...) {
      ADD_FAILURE() << "fault " << nth_ << ": an exception of unknown type";
    }
    return false;
  }

  // Declares, before arming, that a fault of this run may end the process through
  // std::terminate by design (an uncaught failure on a thread the library starts). A run that
  // aborts after its fault fired then counts as a fault point handled as designed.
  void terminationAllowedAfterFault();

  // The operation creates a process-wide object that keeps descriptors open for good (the
  // simple-timer engine's pipe): the descriptor count is then not compared at the end.
  void descriptorsMayStayOpen() { check_descriptors_ = false; }
  bool checksDescriptors() const { return check_descriptors_; }

 private:
  void noteDisarmed() {
    injected_ = injected_ || faultFired(kind_);
    disarmFaults();
  }

  FaultKind kind_;
  long nth_;
  bool injected_ = false;
  bool check_descriptors_ = true;
};

struct SweepReport {
  // Runs in which the fault fired: the fault points of the operation.
  long points = 0;
};

struct SweepOptions {
  // A run that takes longer is taken for a hang and fails the sweep.
  unsigned watchdog_seconds = 60;
  // A sweep that has not ended by then fails: an operation with unbounded fault points.
  long max_points = 5000;
};

// Runs scenario in a fresh child process for n = 1, 2, ... until a run injects no fault, and
// fails the current test for each run that ended otherwise than cleanly.
SweepReport sweepFaults(FaultKind kind, const std::function<void(FaultRun&)>& scenario,
                        const SweepOptions& options = SweepOptions());

}  // namespace testing
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_FAULT_INJECTION_H
