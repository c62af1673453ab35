#include "fault_injection.h"

#include <dirent.h>
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "interpose.h"

#include <gtest/gtest-spi.h>

// LeakSanitizer's check, present when the program runs under AddressSanitizer.
extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace velmora {
namespace testing {

// Defined by the log capture, when the program has it: allocations inside the platform's calls
// belong to the platform, not to the code under test.
bool insidePlatformCall() __attribute__((weak));

namespace {

enum class Mode { kCounting, kNth, kRandom };

// One kind of fault: how it is armed, what it has counted and whether it fired.
struct FaultState {
  std::atomic<Mode> mode{Mode::kCounting};
  std::atomic<long> target{0};
  std::atomic<long> counted{0};
  std::atomic<bool> fired{false};
  std::atomic<unsigned> one_in{0};
  std::atomic<long> random_injected{0};
};

FaultState g_allocation;
// A sweep's child reports to its parent through this descriptor (-1 elsewhere).
std::atomic<int> g_report_fd{-1};
constexpr char kFiredMarker[] =
    "\x01"
    "fault-fired\n";
constexpr char kTerminationMarker[] =
    "\x01"
    "termination-allowed\n";

// Tells the parent of a sweep's child at once, since the child may not live to say it later.
void reportMarker(const char* marker) {
  const int fd = g_report_fd.load();
  if (fd >= 0) {
    const ssize_t written = write(fd, marker, strlen(marker));
    (void)written;
  }
}
FaultState g_thread_creation;
std::atomic<unsigned> g_seed{1};
std::atomic<long long> g_live_blocks{0};
std::atomic<long long> g_live_bytes{0};

FaultState& stateOf(FaultKind kind) {
  return kind == FaultKind::kAllocation ? g_allocation : g_thread_creation;
}

// Random faults strike only inside a RandomFaultScope; what they struck is counted per thread.
thread_local int t_random_scope_depth = 0;
thread_local bool t_random_thread_creations = true;
thread_local long t_random_allocation_faults = 0;
thread_local long t_random_thread_faults = 0;

// A cheap per-thread generator for the random mode, seeded from the run's seed and the thread.
bool randomDraw(unsigned one_in) {
  thread_local unsigned x = 0;
  if (x == 0) {
    x = (g_seed.load(std::memory_order_relaxed) * 2654435761u) ^
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(&x) >> 4);
    x = x == 0 ? 1 : x;
  }
  x ^= x << 13;
  x ^= x >> 17;
  x ^= x << 5;
  return x % one_in == 0;
}

// True when this call is to fail.
bool shouldFail(FaultState& fault) {
  switch (fault.mode.load(std::memory_order_acquire)) {
    case Mode::kCounting:
      return false;
    case Mode::kNth:
      if (fault.counted.fetch_add(1) + 1 == fault.target.load()) {
        fault.fired.store(true);
        reportMarker(kFiredMarker);
        return true;
      }
      return false;
    case Mode::kRandom: {
      const unsigned one_in = fault.one_in.load(std::memory_order_relaxed);
      const bool in_scope =
          t_random_scope_depth > 0 && (&fault == &g_allocation || t_random_thread_creations);
      if (!in_scope || one_in == 0 || !randomDraw(one_in)) {
        return false;
      }
      fault.random_injected.fetch_add(1);
      ++(&fault == &g_allocation ? t_random_allocation_faults : t_random_thread_faults);
      return true;
    }
  }
  return false;
}

// The C library's pthread_create, looked up before main: the look-up allocates, and must not
// count as an allocation of the first operation that starts a thread.
using PthreadCreate = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
const PthreadCreate realPthreadCreate = nextDefinition<PthreadCreate>("pthread_create");

bool allocationShouldFail() {
  if (insidePlatformCall && insidePlatformCall()) {
    return false;
  }
  return shouldFail(g_allocation);
}

// Every block carries its size in a header in front of it, so that the live bytes can be kept.
constexpr std::size_t kHeader = alignof(std::max_align_t);

void* allocate(std::size_t size, std::size_t alignment) {
  const std::size_t header = alignment > kHeader ? alignment : kHeader;
  void* block = nullptr;
  if (size > SIZE_MAX - header || posix_memalign(&block, header, header + size) != 0) {
    return nullptr;
  }
  *static_cast<std::size_t*>(block) = size;
  g_live_blocks.fetch_add(1, std::memory_order_relaxed);
  g_live_bytes.fetch_add(static_cast<long long>(size), std::memory_order_relaxed);
  return static_cast<char*>(block) + header;
}

void release(void* pointer, std::size_t alignment) {
  if (pointer == nullptr) {
    return;
  }
  const std::size_t header = alignment > kHeader ? alignment : kHeader;
  void* block = static_cast<char*>(pointer) - header;
  g_live_blocks.fetch_sub(1, std::memory_order_relaxed);
  g_live_bytes.fetch_sub(static_cast<long long>(*static_cast<std::size_t*>(block)),
                         std::memory_order_relaxed);
  free(block);
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
  void* pointer = allocationShouldFail() ? nullptr : allocate(size, alignment);
  if (pointer == nullptr) {
    throw std::bad_alloc();
  }
  return pointer;
}

void* allocateOrNull(std::size_t size, std::size_t alignment) noexcept {
  return allocationShouldFail() ? nullptr : allocate(size, alignment);
}

constexpr int kRunInjected = 0;
constexpr int kRunCompleted = 10;
constexpr int kRunFailed = 11;

[[noreturn]] void runChild(FaultKind kind, long nth, const std::function<void(FaultRun&)>& scenario,
                           const SweepOptions& options, int report_fd) {
  alarm(options.watchdog_seconds);
  g_report_fd.store(report_fd);
  // The child's own failures, apart from those the parent had recorded before the fork.
  // A reporter for this thread as well, since one the parent set for its thread would win.
  using Reporter = ::testing::ScopedFakeTestPartResultReporter;
  ::testing::TestPartResultArray failures;
  const Reporter other_threads(Reporter::INTERCEPT_ALL_THREADS, &failures);
  const Reporter this_thread(Reporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
  const int descriptors_before = openDescriptorCount();
  FaultRun run(kind, nth);
  try {
    scenario(run);
  } catch (const std::exception& error) {
    disarmFaults();
    ADD_FAILURE() << "fault " << nth << ": the scenario let " << typeid(error).name()
                  << " escape: " << error.what();
  } catch (...) {
    disarmFaults();
    ADD_FAILURE() << "fault " << nth << ": the scenario let an exception of unknown type escape";
  }
  disarmFaults();
  if (run.checksDescriptors()) {
    const int descriptors_after = openDescriptorCount();
    EXPECT_EQ(descriptors_after, descriptors_before)
        << "fault " << nth << ": descriptors open before and after the scenario";
  }
  if (__lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check() != 0) {
    ADD_FAILURE() << "fault " << nth << ": LeakSanitizer found a leak (report above)";
  }
  for (int i = 0; i < failures.size(); ++i) {
    const ::testing::TestPartResult& failure = failures.GetTestPartResult(i);
    dprintf(report_fd, "\n%s:%d: %s", failure.file_name() ? failure.file_name() : "?",
            failure.line_number(), failure.message());
  }
  fflush(stdout);
  fflush(stderr);
  _exit(failures.size() > 0 ? kRunFailed : run.injected() ? kRunInjected : kRunCompleted);
}

// Everything written to fd until its writers have closed it.
std::string readAll(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got > 0) {
      text.append(buffer, static_cast<size_t>(got));
    } else if (got == 0 || errno != EINTR) {
      return text;
    }
  }
}

// Removes every copy of marker from text; true if there was one.
bool takeMarker(std::string& text, const char* marker) {
  bool found = false;
  for (size_t at = text.find(marker); at != std::string::npos; at = text.find(marker)) {
    text.erase(at, strlen(marker));
    found = true;
  }
  return found;
}

// Explains a child's end that was not clean; empty for a clean one.
std::string describeEnd(int status, unsigned watchdog_seconds) {
  if (WIFEXITED(status)) {
    const int code = WEXITSTATUS(status);
    if (code == kRunInjected || code == kRunCompleted) {
      return std::string();
    }
    return code == kRunFailed ? "failed:" : "exited with status " + std::to_string(code);
  }
  if (WIFSIGNALED(status)) {
    const int signal_number = WTERMSIG(status);
    if (signal_number == SIGALRM) {
      return "hung: not ended within " + std::to_string(watchdog_seconds) + " s";
    }
    if (signal_number == SIGABRT) {
      return "aborted (std::terminate or abort)";
    }
    return std::string("was killed by signal ") + strsignal(signal_number);
  }
  return "ended in an unknown way";
}

}  // namespace

void armFault(FaultKind kind, long nth) {
  FaultState& fault = stateOf(kind);
  fault.mode.store(Mode::kCounting);
  fault.counted.store(0);
  fault.fired.store(false);
  fault.target.store(nth);
  fault.mode.store(Mode::kNth, std::memory_order_release);
}

void FaultRun::terminationAllowedAfterFault() {
  reportMarker(kTerminationMarker);
}

void disarmFaults() {
  g_allocation.mode.store(Mode::kCounting, std::memory_order_release);
  g_thread_creation.mode.store(Mode::kCounting, std::memory_order_release);
}

bool faultFired(FaultKind kind) {
  return stateOf(kind).fired.load();
}

long faultCallsCounted(FaultKind kind) {
  return stateOf(kind).counted.load();
}

void startRandomFaults(unsigned allocation_one_in, unsigned thread_one_in, unsigned seed) {
  g_seed.store(seed == 0 ? 1 : seed);
  g_allocation.one_in.store(allocation_one_in);
  g_thread_creation.one_in.store(thread_one_in);
  g_allocation.random_injected.store(0);
  g_thread_creation.random_injected.store(0);
  g_allocation.mode.store(Mode::kRandom, std::memory_order_release);
  g_thread_creation.mode.store(Mode::kRandom, std::memory_order_release);
}

RandomFaultScope::RandomFaultScope(bool thread_creations)
    : allocations_before_(t_random_allocation_faults),
      threads_before_(t_random_thread_faults),
      thread_creations_before_(t_random_thread_creations) {
  ++t_random_scope_depth;
  t_random_thread_creations = thread_creations;
}

RandomFaultScope::~RandomFaultScope() {
  t_random_thread_creations = thread_creations_before_;
  --t_random_scope_depth;
}

long RandomFaultScope::injected(FaultKind kind) const {
  return kind == FaultKind::kAllocation ? t_random_allocation_faults - allocations_before_
                                        : t_random_thread_faults - threads_before_;
}

long randomFaultsInjected(FaultKind kind) {
  return stateOf(kind).random_injected.load();
}

long long liveHeapBlocks() {
  return g_live_blocks.load();
}

long long liveHeapBytes() {
  return g_live_bytes.load();
}

int countFolderEntries(const char* path) {
  DIR* folder = opendir(path);
  if (folder == nullptr) {
    return -1;
  }
  int count = 0;
  while (const dirent* entry = readdir(folder)) {
    count += entry->d_name[0] == '.' ? 0 : 1;
  }
  closedir(folder);
  return count;
}

int openDescriptorCount() {
  return countFolderEntries("/proc/self/fd") - 1;  // the listing's own descriptor
}

SweepReport sweepFaults(FaultKind kind, const std::function<void(FaultRun&)>& scenario,
                        const SweepOptions& options) {
  constexpr int kMostFailuresReported = 10;
  SweepReport report;
  int failures = 0;
  for (long nth = 1; nth <= options.max_points + 1; ++nth) {
    fflush(stdout);
    fflush(stderr);
    int report_pipe[2];
    if (pipe(report_pipe) != 0) {
      ADD_FAILURE() << "pipe failed: " << strerror(errno);
      return report;
    }
    const pid_t child = fork();
    if (child < 0) {
      ADD_FAILURE() << "fork failed: " << strerror(errno);
      close(report_pipe[0]);
      close(report_pipe[1]);
      return report;
    }
    if (child == 0) {
      close(report_pipe[0]);
      runChild(kind, nth, scenario, options, report_pipe[1]);
    }
    close(report_pipe[1]);
    std::string child_failures = readAll(report_pipe[0]);
    const bool fired = takeMarker(child_failures, kFiredMarker);
    const bool termination_allowed = takeMarker(child_failures, kTerminationMarker);
    close(report_pipe[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const bool terminated_as_designed = termination_allowed && fired && WIFSIGNALED(status) &&
                                        WTERMSIG(status) == SIGABRT && child_failures.empty();
    const std::string failure =
        terminated_as_designed ? std::string() : describeEnd(status, options.watchdog_seconds);
    if (!failure.empty()) {
      ADD_FAILURE() << "fault " << nth << " of "
                    << (kind == FaultKind::kAllocation ? "allocation" : "thread creation")
                    << ": the run " << failure << child_failures;
      if (++failures == kMostFailuresReported) {
        return report;
      }
      continue;
    }
    if (!terminated_as_designed && WEXITSTATUS(status) == kRunCompleted) {
      printf("[  SWEEP   ] %ld %s point%s\n", report.points,
             kind == FaultKind::kAllocation ? "allocation" : "thread-creation",
             report.points == 1 ? "" : "s");
      ::testing::Test::RecordProperty("fault_points", static_cast<int>(report.points));
      return report;
    }
    ++report.points;
  }
  ADD_FAILURE() << "the operation still met an armed fault after " << options.max_points
                << " points";
  return report;
}

}  // namespace testing
}  // namespace velmora

// The replaced global allocation functions.

void* operator new(std::size_t size) {
  return velmora::testing::allocateOrThrow(size, 0);
}
void* operator new[](std::size_t size) {
  return velmora::testing::allocateOrThrow(size, 0);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return velmora::testing::allocateOrNull(size, 0);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return velmora::testing::allocateOrNull(size, 0);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return velmora::testing::allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return velmora::testing::allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return velmora::testing::allocateOrNull(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return velmora::testing::allocateOrNull(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* pointer) noexcept {
  velmora::testing::release(pointer, 0);
}
void operator delete[](void* pointer) noexcept {
  velmora::testing::release(pointer, 0);
}
void operator delete(void* pointer, std::size_t) noexcept {
  velmora::testing::release(pointer, 0);
}
void operator delete[](void* pointer, std::size_t) noexcept {
  velmora::testing::release(pointer, 0);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept {
  velmora::testing::release(pointer, 0);
}
void operator delete[](void* pointer, const std::nothrow_t&) noexcept {
  velmora::testing::release(pointer, 0);
}
void operator delete(void* pointer, std::align_val_t alignment) noexcept {
  velmora::testing::release(pointer, static_cast<std::size_t>(alignment));
}
void operator delete[](void* pointer, std::align_val_t alignment) noexcept {
  velmora::testing::release(pointer, static_cast<std::size_t>(alignment));
}
void operator delete(void* pointer, std::size_t, std::align_val_t alignment) noexcept {
  velmora::testing::release(pointer, static_cast<std::size_t>(alignment));
}
void operator delete[](void* pointer, std::size_t, std::align_val_t alignment) noexcept {
  velmora::testing::release(pointer, static_cast<std::size_t>(alignment));
}
void operator delete(void* pointer, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  velmora::testing::release(pointer, static_cast<std::size_t>(alignment));
}
void operator delete[](void* pointer, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  velmora::testing::release(pointer, static_cast<std::size_t>(alignment));
}

// Thread creation, which std::thread goes through too.
extern "C" VELMORA_TEST_INTERPOSER int pthread_create(pthread_t* thread,
                                                      const pthread_attr_t* attributes,
                                                      void* (*start)(void*), void* argument) {
  if (velmora::testing::shouldFail(velmora::testing::g_thread_creation)) {
    return EAGAIN;
  }
  return velmora::testing::realPthreadCreate(thread, attributes, start, argument);
}
