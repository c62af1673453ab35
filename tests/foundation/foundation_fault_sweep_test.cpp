// Allocation and thread-creation faults in the foundation: the log entry points, the tracer and
// the boot identifier never allocate and write every wanted line under any fault; dbg_location
// either throws std::bad_alloc or returns its exact text; a singleton whose creation fails leaves
// the first caller with the exception and the word at the creation marker; the checked locks
// report their failures with their exact texts whatever the heap does.
#include <errno.h>
#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "base/logging.h"
#include "base/singleton.h"
#include "base/synchronization/auto_lock.h"
#include "base/synchronization/unique_lock.h"
#include "fault_injection.h"
#include "interpose.h"
#include "log_capture.h"

namespace {

// The one primitive whose calls fail: its address, and which of its calls fail.
std::atomic<const void*> g_target{nullptr};
velmora::testing::Fault g_init_fault;
velmora::testing::Fault g_lock_fault;
velmora::testing::Fault g_unlock_fault;
// Unlocks of the target that only report success: they pair with a failed lock, so that the
// scope's unlock of a mutex it never took does not reach the real call.
velmora::testing::Fault g_unlock_skipped;
velmora::testing::Fault g_signal_fault;
velmora::testing::Fault g_wait_fault;

bool failsOn(const void* object, velmora::testing::Fault& fault) {
  return object == g_target.load() && fault.shouldFail();
}

}  // namespace

// Like every pthread call, these return their error and leave errno as it was. Each resolves the
// real call on its first use, which allocates: the first uses happen before any fault is armed
// (see below).
extern "C" {
VELMORA_TEST_INTERPOSER int pthread_mutex_init(pthread_mutex_t* mutex,
                                               const pthread_mutexattr_t* attributes) {
  static const auto real = VELMORA_REAL(pthread_mutex_init);
  return failsOn(mutex, g_init_fault) ? ENOMEM : real(mutex, attributes);
}
VELMORA_TEST_INTERPOSER int pthread_mutex_lock(pthread_mutex_t* mutex) {
  static const auto real = VELMORA_REAL(pthread_mutex_lock);
  return failsOn(mutex, g_lock_fault) ? EDEADLK : real(mutex);
}
VELMORA_TEST_INTERPOSER int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  static const auto real = VELMORA_REAL(pthread_mutex_unlock);
  if (failsOn(mutex, g_unlock_skipped)) {
    return 0;
  }
  return failsOn(mutex, g_unlock_fault) ? EPERM : real(mutex);
}
VELMORA_TEST_INTERPOSER int pthread_cond_init(pthread_cond_t* cond,
                                              const pthread_condattr_t* attributes) {
  static const auto real = VELMORA_REAL(pthread_cond_init);
  return failsOn(cond, g_init_fault) ? EAGAIN : real(cond, attributes);
}
VELMORA_TEST_INTERPOSER int pthread_cond_signal(pthread_cond_t* cond) {
  static const auto real = VELMORA_REAL(pthread_cond_signal);
  return failsOn(cond, g_signal_fault) ? EINVAL : real(cond);
}
VELMORA_TEST_INTERPOSER int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  static const auto real = VELMORA_REAL(pthread_cond_wait);
  return failsOn(cond, g_wait_fault) ? EINVAL : real(cond, mutex);
}
}

namespace {

// Makes the first use of every interposer above at start-up, each call failing on a stand-in
// target without touching it.
const bool g_interposers_resolved = [] {
  const std::initializer_list<velmora::testing::Fault*> faults = {
      &g_init_fault, &g_lock_fault, &g_unlock_fault, &g_signal_fault, &g_wait_fault};
  for (velmora::testing::Fault* fault : faults) {
    fault->failAlways();
  }
  pthread_mutex_t mutex;
  g_target = &mutex;
  pthread_mutex_init(&mutex, nullptr);
  pthread_mutex_lock(&mutex);
  pthread_mutex_unlock(&mutex);
  pthread_cond_t cond;
  g_target = &cond;
  pthread_cond_init(&cond, nullptr);
  pthread_cond_signal(&cond);
  pthread_cond_wait(&cond, &mutex);
  for (velmora::testing::Fault* fault : faults) {
    fault->off();
  }
  g_target = nullptr;
  return true;
}();

}  // namespace

// The library's own statements: the inline convention and both trace forms (outside any
// namespace, so that the decorated name is the same for every compiler).
static void inlineStatements() {
  VELMORA_TRACE_SCOPE_AT(12);
  VELMORA_TRACE_POINT_AT(13);
  VELMORA_LOG_AT(velmora::base::kLogError, 14, "n=%d\n", 5);
}

namespace {

using velmora::base::AutoLock;
using velmora::base::ConditionVariable;
using velmora::base::Mutex;
using velmora::base::Singleton;
using velmora::base::UniqueLock;
using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::LogCapture;
using velmora::testing::LoggedOnce;
using velmora::testing::sweepFaults;

std::vector<std::string> loggedTexts() {
  std::vector<std::string> texts;
  for (const auto& entry : LogCapture::entries()) {
    texts.push_back(entry.text);
  }
  return texts;
}

// Sweeps an operation that must neither allocate nor throw: under every fault it completes and
// check() finds its exact outcome. It has no fault point at all.
template <typename Operation, typename Check>
void sweepNeverFailing(FaultKind kind, Operation operation, Check check) {
  const auto report = sweepFaults(kind, [&](FaultRun& run) {
    LogCapture::reset();
    run.armed(operation);
    check();
  });
  EXPECT_EQ(report.points, 0);
}

// The log entry points.

void logOneLine() {
  print_browser_log(1, "T", "dir/f.c", 3, "g", "v=%d %s", 7, "text");
}

void expectOneLineLogged() {
  EXPECT_EQ(loggedTexts(), (std::vector<std::string>{"[T]f.c:3:g:", "v=7 text", "\n"}));
  ASSERT_EQ(LogCapture::entries().size(), 3u);
  EXPECT_EQ(LogCapture::entries()[1].level, 1000);
}

TEST(LoggingFaultSweep, BrowserLogLineWantedIsWrittenWholeAndNeverAllocates) {
  sweepNeverFailing(FaultKind::kAllocation, logOneLine, expectOneLineLogged);
}

TEST(LoggingFaultSweep, HbbtvControllerLogLineWantedIsWrittenWholeAndNeverAllocates) {
  sweepNeverFailing(
      FaultKind::kAllocation,
      [] { print_hbbtv_controller_log(1, "T", "dir/f.c", 3, "g", "v=%d %s", 7, "text"); },
      expectOneLineLogged);
}

TEST(LoggingFaultSweep, LogLineNotWantedWritesNothingAndNeverAllocates) {
  sweepNeverFailing(
      FaultKind::kAllocation,
      [] {
        LogCapture::setThreshold(0);
        logOneLine();
        print_hbbtv_controller_log(4, "T", "f.c", 1, "g", "%s", "x");
      },
      [] {
        EXPECT_TRUE(LogCapture::entries().empty());
        EXPECT_EQ(LogCapture::checkCount(), 6u);
      });
}

TEST(LoggingFaultSweep, MemoryDumpIsWrittenWholeAndNeverAllocates) {
  unsigned char data[20];
  for (int i = 0; i < 20; ++i) {
    data[i] = static_cast<unsigned char>(0xE0 + i);
  }
  sweepNeverFailing(
      FaultKind::kAllocation, [&] { dump_memory("title", data, 20); },
      [] {
        const auto texts = loggedTexts();
        ASSERT_EQ(texts.size(), 9u);
        const std::string id = texts[1].substr(8, 8);
        EXPECT_EQ(texts[1], "DUMPMEM(" + id + "d):, title");
        EXPECT_EQ(texts[4],
                  "DUMPMEM(" + id + "d):, E0 E1 E2 E3 E4 E5 E6 E7 E8 E9 EA EB EC ED EE EF ");
        EXPECT_EQ(texts[7], "DUMPMEM(" + id + "d):, F0 F1 F2 F3 ");
      });
}

TEST(LoggingFaultSweep, MemoryDumpNotWantedWritesNothingAndNeverAllocates) {
  const unsigned char data[3] = {1, 2, 3};
  sweepNeverFailing(
      FaultKind::kAllocation,
      [&] {
        LogCapture::setThreshold(1);
        dump_memory("title", data, 3);
      },
      [] { EXPECT_TRUE(LogCapture::entries().empty()); });
}

TEST(LoggingFaultSweep, FunctionTracerTracesEntryAndExitAndNeverAllocates) {
  sweepNeverFailing(
      FaultKind::kAllocation, [] { velmora::base::FunctionTracer tracer("f", "dir/a.cpp", 9); },
      [] {
        EXPECT_EQ(loggedTexts(), (std::vector<std::string>{"TRACE -> [f(IN)] :dir/a.cpp:9 \n",
                                                           "TRACE <- [f(OUT)] :dir/a.cpp:9 \n"}));
      });
}

TEST(LoggingFaultSweep, FunctionTracerNotWantedWritesNothingAndNeverAllocates) {
  sweepNeverFailing(
      FaultKind::kAllocation,
      [] {
        LogCapture::setThreshold(4000);
        velmora::base::FunctionTracer tracer("f", "a.cpp", 9);
      },
      [] { EXPECT_TRUE(LogCapture::entries().empty()); });
}

TEST(LoggingFaultSweep, InlineStatementsAreWrittenWholeAndNeverAllocate) {
  sweepNeverFailing(FaultKind::kAllocation, inlineStatements, [] {
    EXPECT_EQ(loggedTexts(),
              (std::vector<std::string>{
                  "[TRACE -> inlineStatements(IN)] foundation_fault_sweep_test.cpp:12:"
                  "inlineStatements() \n",
                  "[TRACE] foundation_fault_sweep_test.cpp:13:void inlineStatements()\n",
                  "[B-LOG] foundation_fault_sweep_test.cpp:14:inlineStatements(): n=5\n",
                  "[TRACE <- inlineStatements(OUT)] foundation_fault_sweep_test.cpp:12:"
                  "inlineStatements() \n"}));
  });
}

TEST(LoggingFaultSweep, InlineStatementsNotWantedWriteNothingAndNeverAllocate) {
  sweepNeverFailing(
      FaultKind::kAllocation,
      [] {
        LogCapture::setThreshold(0);
        inlineStatements();
      },
      [] { EXPECT_TRUE(LogCapture::entries().empty()); });
}

TEST(LoggingFaultSweep, BootIdIsComputedOnceAndNeverAllocates) {
  unsigned int first = 0;
  unsigned int second = 0;
  sweepNeverFailing(
      FaultKind::kAllocation,
      [&] {
        first = velmora::base::bootID();
        second = velmora::base::bootID();
      },
      [&] {
        EXPECT_NE(first, 0u);
        EXPECT_EQ(second, first);
      });
}

TEST(LoggingFaultSweep, DbgLocationThrowsOrReturnsItsExactText) {
  const std::string file(40, 'f');  // longer than a short string's inline room
  const auto report = sweepFaults(FaultKind::kAllocation, [&](FaultRun& run) {
    std::string location = "unset";
    const bool threw = run.throws<std::bad_alloc>(
        [&] { location = dbg_location(file.c_str(), 1234, "a_function_name"); });
    EXPECT_EQ(threw, run.injected());
    const std::string expected = file + ":1234:a_function_name():";
    EXPECT_EQ(location, threw ? "unset" : expected);
    EXPECT_EQ(dbg_location(file.c_str(), 1234, "a_function_name"), expected);
  });
  EXPECT_GT(report.points, 0);
}

TEST(LoggingFaultSweep, DbgLocationWithNullArgumentsThrowsOrReturnsItsExactText) {
  const std::string file(40, 'f');
  const auto report = sweepFaults(FaultKind::kAllocation, [&](FaultRun& run) {
    std::string without_function = "unset";
    std::string without_file = "unset";
    const bool threw = run.throws<std::bad_alloc>([&] {
      without_function = dbg_location(file.c_str(), 12, nullptr);
      without_file = dbg_location(nullptr, 12, "g");
    });
    EXPECT_EQ(threw, run.injected());
    if (!threw) {
      EXPECT_EQ(without_function, file + ":12:");
      EXPECT_EQ(without_file, "");
    }
    EXPECT_EQ(dbg_location(file.c_str(), 12, nullptr), file + ":12:");
  });
  EXPECT_GT(report.points, 0);
}

TEST(LoggingFaultSweep, NoEntryPointCreatesAThread) {
  sweepNeverFailing(
      FaultKind::kThreadCreation,
      [] {
        logOneLine();
        const unsigned char data[1] = {7};
        dump_memory("t", data, 1);
        velmora::base::FunctionTracer tracer("f", "a.cpp", 1);
        velmora::base::bootID();
        dbg_location("a.cpp", 1, "f");
      },
      [] { EXPECT_EQ(LogCapture::entries().size(), 11u); });
}

// The singleton's creation. Each run is a fresh process, so the instance word starts at 0; after a
// failed creation no call is made again (later callers would wait for ever, by design).

struct PlainInstance {
  int value = 7;
};

struct AllocatingInstance {
  std::vector<int> numbers = std::vector<int>(100, 3);
  std::string text = std::string(40, 'x');
};

template <typename T>
void sweepSingletonCreation(long expected_points) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    const long long blocks_before = velmora::testing::liveHeapBlocks();
    T* instance = nullptr;
    const bool threw = run.throws<std::bad_alloc>([&] { instance = Singleton<T>::get(); });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_EQ(Singleton<T>::instance_, velmora::base::internal::kSingletonBeingCreated);
      EXPECT_EQ(velmora::testing::liveHeapBlocks(), blocks_before) << "the memory is freed";
      return;
    }
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(Singleton<T>::instance_, reinterpret_cast<intptr_t>(instance));
    EXPECT_EQ(Singleton<T>::get(), instance);
  });
  EXPECT_EQ(report.points, expected_points);
}

TEST(SingletonFaultSweep, FailedAllocationOfTheInstanceReachesTheFirstCallerAndKeepsTheMarker) {
  sweepSingletonCreation<PlainInstance>(1);
}

TEST(SingletonFaultSweep, ThrowingConstructorReachesTheFirstCallerFreesTheMemoryKeepsTheMarker) {
  sweepSingletonCreation<AllocatingInstance>(3);
}

TEST(SingletonFaultSweep, CreatedInstanceIsReturnedWithoutAllocating) {
  Singleton<PlainInstance>::get();
  PlainInstance* instance = nullptr;
  sweepNeverFailing(
      FaultKind::kAllocation, [&] { instance = Singleton<PlainInstance>::get(); },
      [&] {
        EXPECT_EQ(reinterpret_cast<intptr_t>(instance), Singleton<PlainInstance>::instance_);
      });
}

TEST(SingletonFaultSweep, CreationStartsNoThread) {
  sweepNeverFailing(
      FaultKind::kThreadCreation, [] { Singleton<AllocatingInstance>::get(); },
      [] { EXPECT_GT(Singleton<AllocatingInstance>::instance_, 1); });
}

// The checked locks' failures. The fast paths make no allocation; the failure paths keep their
// exact texts and the scoped locks their catch-and-log under every allocation fault.

constexpr int kStaleErrno = ESRCH;

std::string caughtLine(const char* file, int line, const char* function, const std::string& what) {
  return std::string("[B-LOG] ") + file + ":" + std::to_string(line) + ":" + function +
         "(): An runtime_error has been caught:" + what + ".\n";
}

std::string errorText(const char* prefix, int error) {
  return prefix + std::string(strerror(error));
}

// Whether another thread can take the mutex at once.
bool isFree(pthread_mutex_t* mutex) {
  const int result = pthread_mutex_trylock(mutex);
  if (result == 0) {
    VELMORA_REAL(pthread_mutex_unlock)(mutex);
  }
  return result == 0;
}

// Sweeps an operation that fails through the checked wrappers: under every allocation fault it
// throws a std::runtime_error with exactly this text, and nothing else.
template <typename Operation>
void sweepThrowsExactly(Operation operation, const std::string& text) {
  sweepNeverFailing(
      FaultKind::kAllocation,
      [&] {
        errno = kStaleErrno;
        try {
          operation();
          ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& error) {
          EXPECT_EQ(error.what(), text);
        }
      },
      [] {});
}

TEST(CheckedLockFaultSweep, FailedMutexInitThrowsItsExactText) {
  alignas(Mutex) unsigned char storage[sizeof(Mutex)] = {};
  g_target = storage;
  sweepThrowsExactly(
      [&] {
        g_init_fault.failNext();
        new (storage) Mutex();
      },
      errorText("Mutex init error: ", ENOMEM));
}

TEST(CheckedLockFaultSweep, FailedConditionInitThrowsItsExactText) {
  alignas(ConditionVariable) unsigned char storage[sizeof(ConditionVariable)] = {};
  g_target = storage;
  sweepThrowsExactly(
      [&] {
        g_init_fault.failNext();
        new (storage) ConditionVariable();
      },
      errorText("ConditionVariable init error: ", EAGAIN));
}

TEST(CheckedLockFaultSweep, FailedMutexLockAndUnlockThrowTheirExactTexts) {
  Mutex mutex;
  g_target = mutex.native();
  sweepThrowsExactly(
      [&] {
        g_lock_fault.failNext();
        mutex.lock();
      },
      errorText("Mutex lock error: ", EDEADLK));
  sweepThrowsExactly(
      [&] {
        g_unlock_fault.failNext();
        mutex.unlock();
      },
      errorText("Mutex unlock error: ", EPERM));
}

TEST(CheckedLockFaultSweep, FailedSignalAndWaitThrowTheirExactTexts) {
  Mutex mutex;
  ConditionVariable condition;
  g_target = &condition;
  sweepThrowsExactly(
      [&] {
        g_signal_fault.failNext();
        condition.notify_one();
      },
      errorText("ConditionVariable notify_one error: ", EINVAL));
  sweepThrowsExactly(
      [&] {
        g_wait_fault.failNext();
        UniqueLock lock(&mutex);
        condition.wait(lock);
      },
      errorText("ConditionVariable cond_wait error: ", EINVAL));
  EXPECT_TRUE(isFree(mutex.native()));
}

TEST(CheckedLockFaultSweep, WaitWithoutAMutexThrowsItsExactText) {
  ConditionVariable condition;
  sweepThrowsExactly(
      [&] {
        UniqueLock lock(nullptr);
        errno = EBADF;
        condition.wait(lock);
      },
      errorText("ConditionVariable wait error: ", EBADF));
}

// A scoped lock's failure: the exact caught-error line at level 1000, the scope run, no
// exception. A failed unlock leaves the mutex locked, which the check then releases.
template <typename Scope>
void sweepLoggedScopeFailure(pthread_mutex_t* mutex, Scope scope, const std::string& line,
                             bool left_locked) {
  g_target = mutex;
  sweepNeverFailing(
      FaultKind::kAllocation,
      [&] {
        errno = kStaleErrno;
        bool scope_ran = false;
        scope(scope_ran);
        EXPECT_TRUE(scope_ran);
      },
      [&] {
        EXPECT_TRUE(LoggedOnce(1000, line));
        EXPECT_EQ(LogCapture::entries().size(), 1u);
        EXPECT_EQ(isFree(mutex), !left_locked);
        if (left_locked) {
          VELMORA_REAL(pthread_mutex_unlock)(mutex);
        }
      });
}

TEST(CheckedLockFaultSweep, AutoLockLogsAFailedLockExactlyAndRunsTheScope) {
  Mutex mutex;
  sweepLoggedScopeFailure(
      mutex.native(),
      [&](bool& scope_ran) {
        g_lock_fault.failNext();
        AutoLock<Mutex> lock(mutex);
        g_unlock_skipped.failNext();
        scope_ran = true;
      },
      caughtLine("auto_lock.h", 31, "AutoLock", errorText("Mutex lock error: ", EDEADLK)), false);
}

TEST(CheckedLockFaultSweep, AutoLockLogsAFailedUnlockExactlyAndNeverThrows) {
  Mutex mutex;
  sweepLoggedScopeFailure(
      mutex.native(),
      [&](bool& scope_ran) {
        AutoLock<Mutex> lock(mutex);
        g_unlock_fault.failNext();
        scope_ran = true;
      },
      caughtLine("auto_lock.h", 44, "~AutoLock", errorText("Mutex unlock error: ", EPERM)), true);
}

TEST(CheckedLockFaultSweep, UniqueLockLogsAFailedLockExactlyAndRunsTheScope) {
  Mutex mutex;
  sweepLoggedScopeFailure(
      mutex.native(),
      [&](bool& scope_ran) {
        g_lock_fault.failNext();
        UniqueLock lock(&mutex);
        g_unlock_skipped.failNext();
        scope_ran = true;
      },
      caughtLine("unique_lock.h", 33, "UniqueLock", errorText("Mutex lock error: ", EDEADLK)),
      false);
}

TEST(CheckedLockFaultSweep, UniqueLockLogsAFailedUnlockExactlyAndNeverThrows) {
  Mutex mutex;
  sweepLoggedScopeFailure(
      mutex.native(),
      [&](bool& scope_ran) {
        UniqueLock lock(&mutex);
        g_unlock_fault.failNext();
        scope_ran = true;
      },
      caughtLine("unique_lock.h", 47, "~UniqueLock", errorText("Mutex unlock error: ", EPERM)),
      true);
}

TEST(CheckedLockFaultSweep, UniqueLockOnANullMutexLogsExactlyAndNeverThrows) {
  sweepNeverFailing(
      FaultKind::kAllocation,
      [] {
        errno = ENOENT;
        UniqueLock lock(nullptr);
      },
      [] {
        EXPECT_TRUE(LoggedOnce(1000, caughtLine("unique_lock.h", 33, "UniqueLock",
                                                errorText("UniqueLock lock error: ", ENOENT))));
        EXPECT_EQ(LogCapture::entries().size(), 1u);
      });
}

// std::mutex reports a failed lock with a std::system_error whose text the standard library
// builds on the heap: under an allocation fault std::bad_alloc passes through AutoLock, as any
// exception other than std::runtime_error does, and the mutex is left as it was.
TEST(CheckedLockFaultSweep, AutoLockOnAStdMutexLogsAFailedLockOrPassesBadAllocThrough) {
  std::mutex mutex;
  g_target = mutex.native_handle();
  const std::string line = caughtLine("auto_lock.h", 31, "AutoLock",
                                      std::system_error(EDEADLK, std::generic_category()).what());
  const auto report = sweepFaults(FaultKind::kAllocation, [&](FaultRun& run) {
    LogCapture::reset();
    const bool threw = run.throws<std::bad_alloc>([&] {
      g_lock_fault.failNext();
      AutoLock<std::mutex> lock(mutex);
      g_unlock_skipped.failNext();
    });
    EXPECT_EQ(threw, run.injected());
    if (threw) {
      EXPECT_TRUE(LogCapture::entries().empty());
    } else {
      EXPECT_TRUE(LoggedOnce(1000, line));
    }
    EXPECT_TRUE(isFree(mutex.native_handle()));
  });
  EXPECT_GT(report.points, 0);
}

TEST(CheckedLockFaultSweep, FastPathsNeitherAllocateNorStartThreads) {
  Mutex mutex;
  ConditionVariable condition;
  std::mutex standard_mutex;
  for (const FaultKind kind : {FaultKind::kAllocation, FaultKind::kThreadCreation}) {
    sweepNeverFailing(
        kind,
        [&] {
          Mutex other_mutex;
          ConditionVariable other_condition;
          { AutoLock<Mutex> lock(mutex); }
          { AutoLock<std::mutex> lock(standard_mutex); }
          {
            UniqueLock lock(&mutex);
            condition.notify_one();
          }
        },
        [&] {
          EXPECT_TRUE(LogCapture::entries().empty());
          EXPECT_TRUE(isFree(mutex.native()));
        });
  }
}

}  // namespace
