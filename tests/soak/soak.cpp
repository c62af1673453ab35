// Soak run: every concurrent subsystem of the library at once for a given time, then exact
// accounting.
//
//   soak <seconds> [--rss-report-only] [--faults]
//
// --rss-report-only: the resident set is printed but not checked (under an emulator such as
// qemu-arm, /proc/self/statm describes the emulator, whose code cache grows).
// --faults: about one in 1,000 of the allocations and thread creations that the calls into the
// library make fail at random. Every call a fault struck must fail visibly (an exception, or the
// failure result or error line its interface names for that step) and leave the object as it
// was; every call no fault struck must succeed; the accounting below then holds over the calls
// that succeeded. Thread creations fail only where a failure is answered without leaving a
// thread dead for good (a short-lived hub's handler thread): a task thread whose creation failed
// stays dead by design, and those are swept one by one in the unit tests instead.
//
// Load, all at the same time:
// - tasks posted to the pool's main, foreground, background and worker threads;
// - tasks posted to two standalone timer threads, a quarter of them cancelled again by task id
//   or session id;
// - events among four hubs (two of them sharing a module id) sent to one module or broadcast,
//   some handled only from one source, some forwarded by their handler to another module, and a
//   short-lived hub created, fed, unregistered and destroyed over and over;
// - repeating simple timers started, restarted and stopped, and batches of one-shot timers
//   started and left alone;
// - Runnables paused, resumed and finally stopped;
// - process properties written and read.
//
// Accounting at the end (the program fails, status 1, on any violation):
// - every posted task that was not cancelled ran exactly once, no cancelled task ran;
// - every event a hub accepted was handled exactly once by that hub (per hub: count and two
//   sums over the event numbers equal to what the routing rules give), every forward answered;
// - every handler call of a simple timer that began after the timer's last stop() returned saw
//   needStop(); every one-shot timer left alone fired exactly once;
// - a paused Runnable began at most one more cycle, a stopped one none after run() returned;
// - a property writer always got back the value it had written before;
// - no error line was logged (with --faults: none but those of the calls a fault struck);
// - the live heap (counted by this program's operator new/delete, which the library's
//   allocations go through too) did not grow between the first and the last part of the run,
//   and, in a build without sanitizers, neither did the resident set.
// It prints the throughput of every subsystem and the memory figures (live heap and resident
// set from /proc/self/statm) of both parts.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/event_dispatcher/event_dispatcher.h"
#include "base/event_dispatcher/event_hub.h"
#include "base/process_property.h"
#include "base/simple_timer/timer.h"
#include "base/threading/runnable.h"
#include "base/timer/timer_task.h"
#include "base/timer/timer_thread.h"
#include "base/timer/timer_thread_pool.h"
#include "fault_injection.h"
#include "vex_debug.h"

// Sanitizer run-times keep freed memory in quarantine and grow their own tables: the resident
// set says nothing about the program there, so it is only reported.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define SOAK_SANITIZED 1
#endif
#endif
#ifndef SOAK_SANITIZED
#define SOAK_SANITIZED 0
#endif

namespace ev = velmora::base::event_dispatcher;
namespace st = velmora::base::simple_timer;
namespace tm_ = velmora::base::timer;

using Clock = std::chrono::steady_clock;

// ---------------------------------------------------------------------------------------------
// The platform's output calls: lines are counted by level; error lines (level 1000) are kept
// for the report, nothing else is formatted.

namespace {

std::atomic<long long> g_linesSevere{0};   // level 1: thread start/exit, stop hand-shakes
std::atomic<long long> g_linesError{0};    // level 1000
std::atomic<long long> g_linesWarning{0};  // level 3000
std::atomic<long long> g_linesOther{0};    // 4000 and 5000
std::mutex g_errorMutex;
std::vector<std::string> g_errorLines;
thread_local bool t_keepLine = false;
thread_local long long t_errorLines = 0;  // error lines checked on this thread

int keepLine(const char* format, va_list args) {
  if (!t_keepLine) {
    return 0;
  }
  char text[512];
  const int length = vsnprintf(text, sizeof(text), format, args);
  std::lock_guard<std::mutex> lock(g_errorMutex);
  if (g_errorLines.size() < 20) {
    g_errorLines.emplace_back(text);
  }
  return length;
}

}  // namespace

#define SOAK_VISIBLE __attribute__((visibility("default")))

extern "C" {

SOAK_VISIBLE int vexDebugCheckLevelGetFrameAndChunk(LogFrame* frame) {
  t_keepLine = false;
  if (frame->level <= 1) {
    g_linesSevere.fetch_add(1, std::memory_order_relaxed);
  } else if (frame->level <= 1000) {
    g_linesError.fetch_add(1, std::memory_order_relaxed);
    ++t_errorLines;
    t_keepLine = true;
  } else if (frame->level <= 3000) {
    g_linesWarning.fetch_add(1, std::memory_order_relaxed);
  } else {
    g_linesOther.fetch_add(1, std::memory_order_relaxed);
  }
  return t_keepLine ? 1 : 0;
}

SOAK_VISIBLE int vexDebugOutput0(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = keepLine(format, args);
  va_end(args);
  return length;
}

SOAK_VISIBLE int vexDebugOutputV(const char* format, va_list args) {
  return keepLine(format, args);
}

}  // extern "C"

namespace {

// ---------------------------------------------------------------------------------------------
// Shared run state and reporting.

std::atomic<bool> g_stopLoad{false};
std::atomic<int> g_violations{0};
std::mutex g_reportMutex;

void violation(const char* format, ...) __attribute__((format(printf, 1, 2)));
void violation(const char* format, ...) {
  if (g_violations.fetch_add(1) >= 20) {
    return;  // the first twenty are enough to go on
  }
  std::lock_guard<std::mutex> lock(g_reportMutex);
  va_list args;
  va_start(args, format);
  fprintf(stderr, "VIOLATION: ");
  vfprintf(stderr, format, args);
  fprintf(stderr, "\n");
  va_end(args);
}

// ---------------------------------------------------------------------------------------------
// Calls into the library, and the faults that strike them in the --faults mode.

namespace vt = velmora::testing;

bool g_faultMode = false;
std::atomic<long long> g_callsStruck{0};     // calls a fault struck, each of which failed visibly
std::atomic<long long> g_callsCarriedOn{0};  // ... or carried on as designed
std::atomic<long long> g_errorLinesExplained{0};  // error lines those calls wrote

enum class ThreadFaults { kNo, kYes };
// A call that must not fail at all: it has a way on that needs no memory (a hub's unregistration
// stops its thread whatever happens), so a fault that strikes it must change nothing it reports.
enum class MayAbsorb { kNo, kYes };

// Makes one call into the library, which returns false for a failure its interface reports
// without an exception. In the --faults mode, random faults may strike the call; a struck call
// must fail visibly and an unstruck one must succeed. True when the call took effect.
template <typename Call>
bool attempt(const char* what, Call&& call, ThreadFaults thread_faults = ThreadFaults::kNo,
             MayAbsorb may_absorb = MayAbsorb::kNo) {
  if (!g_faultMode) {
    return call();
  }
  const long long errors_before = t_errorLines;
  bool completed = false;
  bool threw = false;
  long struck = 0;
  {
    vt::RandomFaultScope scope(thread_faults == ThreadFaults::kYes);
    try {
      completed = call();
    } catch (const std::bad_alloc&) {
      threw = true;
    } catch (const std::runtime_error&) {  // a thread that could not be created
      threw = true;
    }
    struck =
        scope.injected(vt::FaultKind::kAllocation) + scope.injected(vt::FaultKind::kThreadCreation);
  }
  const long long error_lines = t_errorLines - errors_before;
  const bool failed = threw || !completed || error_lines > 0;
  if (struck == 0 && failed) {
    violation("%s failed (%s) with no fault injected", what,
              threw       ? "an exception"
              : completed ? "an error line"
                          : "its result");
  } else if (struck > 0 && !failed && may_absorb == MayAbsorb::kNo) {
    violation("%s met %ld injected fault(s) and reported success", what, struck);
  } else if (struck > 0 && failed && may_absorb == MayAbsorb::kYes) {
    violation("%s failed under %ld injected fault(s), though it has a way on", what, struck);
  } else if (struck > 0) {
    g_callsStruck.fetch_add(1);
    g_callsCarriedOn.fetch_add(failed ? 0 : 1);
    g_errorLinesExplained.fetch_add(error_lines);
  }
  return !failed;
}

// attempt() for a call whose only failure is an exception.
template <typename Call>
bool attemptVoid(const char* what, Call&& call, ThreadFaults thread_faults = ThreadFaults::kNo,
                 MayAbsorb may_absorb = MayAbsorb::kNo) {
  return attempt(
      what,
      [&] {
        call();
        return true;
      },
      thread_faults, may_absorb);
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Waits until done() holds, at most timeout seconds; false on time-out.
bool waitUntil(std::mutex& mutex, std::condition_variable& cond, double timeout,
               const std::function<bool()>& done) {
  std::unique_lock<std::mutex> lock(mutex);
  return cond.wait_for(lock, std::chrono::duration<double>(timeout), done);
}

// A counter that several threads raise and one thread waits on.
class Completion {
 public:
  // Notifies under the lock: a waiter that sees its target may destroy the object at once.
  void add(long long n = 1) {
    std::lock_guard<std::mutex> lock(mutex_);
    count_ += n;
    cond_.notify_all();
  }
  long long value() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  bool waitFor(long long target, double timeout) {
    return waitUntil(mutex_, cond_, timeout, [&] { return count_ >= target; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  long long count_ = 0;
};

// A mixing function, so that the sum of the mixed event numbers detects a lost event that a
// duplicated one would otherwise balance.
uint64_t mixed(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

// ---------------------------------------------------------------------------------------------
// Tasks on the pool and on standalone timer threads.

struct TaskRecord {
  std::atomic<int> runs{0};
};

class SoakTask : public tm_::TimerTaskBase {
 public:
  SoakTask(std::shared_ptr<TaskRecord> record, Completion* done, int taskId)
      : record_(std::move(record)), done_(done) {
    taskId_ = taskId;
  }
  void execute() override {
    record_->runs.fetch_add(1, std::memory_order_relaxed);
    done_->add();
  }

 private:
  std::shared_ptr<TaskRecord> record_;
  Completion* done_;
};

struct TaskFigures {
  long long posted = 0;
  long long cancelled = 0;
  long long ran = 0;
};

// Posts to the four roles of the pool, keeping at most kInFlight tasks outstanding; checks each
// finished window of tasks for exactly one run.
TaskFigures poolLoad() {
  constexpr int kInFlight = 256;
  Completion done;
  TaskFigures figures;
  std::vector<std::shared_ptr<TaskRecord>> window;
  std::mt19937 random(1);
  auto checkWindow = [&] {
    for (const auto& record : window) {
      if (record->runs.load() != 1) {
        violation("pool task ran %d times", record->runs.load());
      }
    }
    figures.ran += static_cast<long long>(window.size());
    window.clear();
  };
  while (!g_stopLoad.load()) {
    for (int i = 0; i < kInFlight; ++i) {
      auto record = std::make_shared<TaskRecord>();
      auto task = std::make_shared<SoakTask>(record, &done, 0);
      const int delayMs = static_cast<int>(random() % 4);
      struct timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      task->setNextFireTime(static_cast<double>(now.tv_sec) + now.tv_nsec * 1e-9 +
                            delayMs / 1000.0);
      void (*const posts[])(std::shared_ptr<tm_::TimerTaskBase>) = {
          tm_::TimerThreadPool::postMainThreadTask, tm_::TimerThreadPool::postForegroundTask,
          tm_::TimerThreadPool::postBackgroundTask, tm_::TimerThreadPool::postWorkerTask};
      if (attemptVoid("a pool post", [&] { posts[i % 4](task); })) {
        window.push_back(record);
        ++figures.posted;
      }
    }
    if (!done.waitFor(figures.posted, 30.0)) {
      violation("pool tasks did not all run within 30 s (%lld of %lld)", done.value(),
                figures.posted);
      return figures;
    }
    checkWindow();
  }
  return figures;
}

// Posts to two standalone timer threads and cancels about a quarter of the tasks again, by task
// id or by session id. A task counts as cancelled when its due time reads 0.0 after the cancel
// (the cancel found it queued); it must then never run, and every other task must run once.
TaskFigures standaloneLoad() {
  constexpr int kBatch = 200;
  Completion done;  // outlives the threads, which are joined first
  tm_::TimerThread threads[2];
  TaskFigures figures;
  std::mt19937 random(2);
  int nextTaskId = 1;
  while (!g_stopLoad.load()) {
    struct Posted {
      std::shared_ptr<TaskRecord> record;
      std::shared_ptr<SoakTask> task;
      int thread;
    };
    std::vector<Posted> batch;
    for (int i = 0; i < kBatch; ++i) {
      auto record = std::make_shared<TaskRecord>();
      auto task = std::make_shared<SoakTask>(record, &done, nextTaskId++);
      const int thread = static_cast<int>(random() % 2);
      const int delay = static_cast<int>(random() % 20);
      if (attemptVoid("a timer-thread post", [&] { threads[thread].postTask(task, delay); })) {
        batch.push_back({record, task, thread});
      }
      if (random() % 4 == 0 && !batch.empty()) {
        const Posted& victim = batch[random() % batch.size()];
        if (random() % 2 == 0) {
          attemptVoid("a cancel by task id",
                      [&] { threads[victim.thread].cancelTaskByTaskId(victim.task->taskId()); });
        } else {
          attemptVoid("a cancel by session id", [&] {
            threads[victim.thread].cancelTaskBySessionId(victim.task->sessionId());
          });
        }
      }
    }
    long long expected = 0;
    std::vector<bool> cancelled;
    for (const Posted& posted : batch) {
      // Only this thread cancels, so the due time read here is the one the cancels left.
      cancelled.push_back(posted.task->getNextFireTime() == 0.0);
      expected += cancelled.back() ? 0 : 1;
    }
    const long long before = figures.ran;
    if (!done.waitFor(before + expected, 30.0)) {
      violation("standalone tasks did not all run within 30 s (%lld of %lld)",
                done.value() - before, expected);
      return figures;
    }
    // The cancelled tasks were due within 20 ms; wait until both queues have dropped them.
    for (auto& thread : threads) {
      const Clock::time_point start = Clock::now();
      while (thread.taskCount() != 0 && secondsSince(start) < 30.0) {
        std::this_thread::yield();
      }
    }
    for (std::size_t i = 0; i < batch.size(); ++i) {
      const int runs = batch[i].record->runs.load();
      if (runs != (cancelled[i] ? 0 : 1)) {
        violation("standalone task %d (%s) ran %d times", batch[i].task->taskId(),
                  cancelled[i] ? "cancelled" : "not cancelled", runs);
      }
    }
    figures.posted += static_cast<long long>(batch.size());
    figures.cancelled += static_cast<long long>(batch.size()) - expected;
    figures.ran = done.value();
  }
  return figures;
}

// ---------------------------------------------------------------------------------------------
// Events.

constexpr int kTypeWork = 100;       // handled by every hub, from any source
constexpr int kTypeDirect = 101;     // hub 0 only from module 11; hub 2 from any source
constexpr int kTypeForward = 102;    // hubs 1 and 3 (module 11) answer with a kTypeReply to 10
constexpr int kTypeReply = 103;      // hub 0
constexpr int kTypeTransient = 104;  // only the short-lived hub
constexpr int kTypeIgnored = 105;    // nobody: every hub refuses it

const int kHubModules[4] = {10, 11, 12, 11};
constexpr int kTransientModule = 20;

// Which of the four hubs accept an event, by the matching rule of their handler tables.
bool accepts(int hub, int type, int source) {
  switch (type) {
    case kTypeWork:
      return true;
    case kTypeDirect:
      return (hub == 0 && source == 11) || hub == 2;
    case kTypeForward:
      return hub == 1 || hub == 3;
    case kTypeReply:
      return hub == 0;
    default:
      return false;
  }
}

class NumberParam : public ev::EventParam {
 public:
  explicit NumberParam(uint64_t number) : number_(number) {}
  uint64_t number() const { return number_; }

 private:
  uint64_t number_;
};

// What a hub handled, and what it should have.
struct HubTally {
  std::atomic<long long> count{0};
  std::atomic<uint64_t> sum{0};
  std::atomic<uint64_t> mixedSum{0};
  long long expectedCount = 0;  // written by the senders under g_expectMutex
  uint64_t expectedSum = 0;
  uint64_t expectedMixedSum = 0;
};

HubTally g_hubTally[4];
std::mutex g_expectMutex;
std::atomic<uint64_t> g_nextEventNumber{1};
Completion g_eventsHandled;
std::atomic<long long> g_eventsSent{0};
std::atomic<long long> g_expectedHandled{0};

// Adds (times 1) or takes back (times -1) the expectation that hub handles the event number.
void expect(int hub, uint64_t number, int times) {
  HubTally& tally = g_hubTally[hub];
  tally.expectedCount += times;
  tally.expectedSum += static_cast<uint64_t>(times) * number;
  tally.expectedMixedSum += static_cast<uint64_t>(times) * mixed(number);
}

uint64_t numberOf(const std::shared_ptr<ev::BrowserEvent>& event) {
  return static_cast<NumberParam*>(event->param())->number();
}

// Sends an event with a fresh number from hub, recording which hubs must handle it. A forward
// also expects hub 0 to handle one reply per forwarding hub.
// A refused send (with --faults) takes its expectations back: the hubs are as they were.
void sendCounted(ev::EventHub& hub, int type, int destination) {
  std::shared_ptr<ev::BrowserEvent> event;
  if (!attempt("createEvent", [&] { return (event = hub.createEvent(type)) != nullptr; })) {
    return;
  }
  const uint64_t number = g_nextEventNumber.fetch_add(1);
  event->setParam(new NumberParam(number));
  std::vector<int> expecting;
  {
    std::lock_guard<std::mutex> lock(g_expectMutex);
    for (int h = 0; h < 4; ++h) {
      if ((destination == ev::kAnyModule || destination == kHubModules[h]) &&
          accepts(h, type, hub.moduleId())) {
        expect(h, number, 1);
        expecting.push_back(h);
      }
    }
  }
  const long long handled = static_cast<long long>(expecting.size());
  g_expectedHandled.fetch_add(handled);
  if (attemptVoid("sendEvent", [&] { hub.sendEvent(event, destination); })) {
    g_eventsSent.fetch_add(1);
    return;
  }
  std::lock_guard<std::mutex> lock(g_expectMutex);
  for (int h : expecting) {
    expect(h, number, -1);
  }
  g_expectedHandled.fetch_sub(handled);
}

void tallyHandled(int hub, uint64_t number) {
  HubTally& tally = g_hubTally[hub];
  tally.count.fetch_add(1, std::memory_order_relaxed);
  tally.sum.fetch_add(number, std::memory_order_relaxed);
  tally.mixedSum.fetch_add(mixed(number), std::memory_order_relaxed);
  g_eventsHandled.add();
}

struct EventFigures {
  long long sent = 0;
  long long handled = 0;
  long long transientHubs = 0;
};

// The four hubs with their handler tables; registered before any traffic and unregistered
// after the last event was handled.
class Hubs {
 public:
  Hubs() {
    for (int h = 0; h < 4; ++h) {
      hubs_.push_back(std::make_unique<ev::EventHub>(kHubModules[h]));
    }
    for (int h = 0; h < 4; ++h) {
      ev::EventHub& hub = *hubs_[h];
      hub.registerHandler(
          kTypeWork, [h](std::shared_ptr<ev::BrowserEvent> e) { tallyHandled(h, numberOf(e)); });
    }
    hubs_[0]->registerHandler(
        11, kTypeDirect, [](std::shared_ptr<ev::BrowserEvent> e) { tallyHandled(0, numberOf(e)); });
    hubs_[2]->registerHandler(
        kTypeDirect, [](std::shared_ptr<ev::BrowserEvent> e) { tallyHandled(2, numberOf(e)); });
    for (int h : {1, 3}) {
      ev::EventHub* self = hubs_[h].get();
      self->registerHandler(kTypeForward, [h, self](std::shared_ptr<ev::BrowserEvent> e) {
        // The reply is expected before this handling is counted, so that "everything expected
        // was handled" never holds while a reply is still to come.
        sendCounted(*self, kTypeReply, 10);  // from the handler thread, no hub lock held
        tallyHandled(h, numberOf(e));
      });
    }
    hubs_[0]->registerHandler(
        kTypeReply, [](std::shared_ptr<ev::BrowserEvent> e) { tallyHandled(0, numberOf(e)); });
    for (auto& hub : hubs_) {
      if (ev::evtdispch_register_hub(hub.get()) != 0) {
        violation("a hub could not be registered");
      }
    }
  }
  ~Hubs() {
    for (auto& hub : hubs_) {
      ev::evtdispch_unregister_hub(hub.get());
    }
  }
  ev::EventHub& operator[](int h) { return *hubs_[h]; }

 private:
  std::vector<std::unique_ptr<ev::EventHub>> hubs_;
};

// One sender: events of every kind from a rotating hub, to one module or to all, keeping at most
// kInFlight expected handlings outstanding.
void eventSender(Hubs& hubs, unsigned seed) {
  constexpr long long kInFlight = 512;
  std::mt19937 random(seed);
  const int types[] = {kTypeWork, kTypeDirect, kTypeForward, kTypeIgnored};
  const int destinations[] = {10, 11, 12, 13, ev::kAnyModule};
  while (!g_stopLoad.load()) {
    for (int i = 0; i < 64; ++i) {
      sendCounted(hubs[static_cast<int>(random() % 4)], types[random() % 4],
                  destinations[random() % 5]);
    }
    // The expected count includes the replies only once the forwards were handled, so wait on
    // the total so far; it can only grow towards it.
    const long long target = g_expectedHandled.load() - kInFlight;
    if (!g_eventsHandled.waitFor(target, 30.0)) {
      violation("events not handled within 30 s (%lld of at least %lld)", g_eventsHandled.value(),
                target);
      return;
    }
  }
}

// A short-lived hub: created, given a handler, registered, fed events only its owner sends,
// drained, unregistered and destroyed, over and over.
// With --faults its handler thread may fail to start: that round's hub handles nothing, and is
// unregistered and destroyed all the same.
long long transientHubs() {
  long long rounds = 0;
  while (!g_stopLoad.load()) {
    Completion handled;
    std::unique_ptr<ev::EventHub> hub;
    if (!attemptVoid("EventHub()", [&] { hub.reset(new ev::EventHub(kTransientModule)); })) {
      continue;
    }
    const std::function<void(std::shared_ptr<ev::BrowserEvent>)> handler =
        [&handled](std::shared_ptr<ev::BrowserEvent>) { handled.add(); };
    // Registered with the dispatcher first: only its unregistration stops the handler thread
    // that the first handler starts, so a hub the dispatcher refused must never get one.
    const bool registered = attempt("evtdispch_register_hub",
                                    [&] { return ev::evtdispch_register_hub(hub.get()) == 0; });
    const bool handling =
        registered && attemptVoid(
                          "registerHandler", [&] { hub->registerHandler(kTypeTransient, handler); },
                          ThreadFaults::kYes);
    long long sent = 0;
    for (int i = 0; handling && registered && i < 32; ++i) {
      std::shared_ptr<ev::BrowserEvent> event;
      if (attempt("createEvent",
                  [&] { return (event = hub->createEvent(kTypeTransient)) != nullptr; }) &&
          attemptVoid("sendEvent", [&] { hub->sendEvent(event, kTransientModule); })) {
        ++sent;
      }
    }
    if (!handled.waitFor(sent, 30.0)) {
      violation("short-lived hub handled %lld of %lld events", handled.value(), sent);
    }
    if (registered) {
      attemptVoid(
          "evtdispch_unregister_hub", [&] { ev::evtdispch_unregister_hub(hub.get()); },
          ThreadFaults::kNo, MayAbsorb::kYes);
    }
    hub.reset();
    if (handled.value() != sent) {
      violation("short-lived hub handled %lld events instead of %lld", handled.value(), sent);
    }
    ++rounds;
  }
  return rounds;
}

// ---------------------------------------------------------------------------------------------
// Simple timers.

struct TimerStats {
  std::mutex mutex;        // orders "stopped" against the handler's needStop() read
  bool stopped = true;     // true from the return of stop() until just before start()
  bool destroyed = false;  // the Timer is about to go: its pointer must not be used any more
  std::atomic<long long> calls{0};
  std::atomic<long long> lateCalls{0};  // began after stop() returned (allowed, see needStop)
};

struct TimerFigures {
  long long starts = 0;
  long long restarts = 0;
  long long stops = 0;
  long long handlerCalls = 0;
  long long lateCalls = 0;
};

void continueHandler(st::Timer* timer, void* data) {
  auto* stats = static_cast<TimerStats*>(data);
  std::lock_guard<std::mutex> lock(stats->mutex);
  stats->calls.fetch_add(1, std::memory_order_relaxed);
  if (stats->stopped) {
    stats->lateCalls.fetch_add(1, std::memory_order_relaxed);
    if (!stats->destroyed && !timer->needStop()) {
      violation("a timer handler began after stop() returned and needStop() was false");
    }
  }
}

// Repeating timers with 1 to 4 ms periods, started, restarted and stopped at random.
TimerFigures repeatingTimers() {
  constexpr int kTimers = 6;
  TimerFigures figures;
  std::vector<std::unique_ptr<TimerStats>> stats;
  std::vector<std::unique_ptr<st::Timer>> timers;
  for (int i = 0; i < kTimers; ++i) {
    stats.push_back(std::make_unique<TimerStats>());
    timers.push_back(std::make_unique<st::Timer>("soak-" + std::to_string(i),
                                                 st::TimeoutTime{0, 1 + i % 4, 0}, continueHandler,
                                                 stats.back().get(), st::CONTINUE));
  }
  std::mt19937 random(3);
  // Sets whether the timer counts as stopped; returns what it was.
  auto markStopped = [&](int i, bool stopped) {
    std::lock_guard<std::mutex> lock(stats[i]->mutex);
    return std::exchange(stats[i]->stopped, stopped);
  };
  while (!g_stopLoad.load()) {
    const int i = static_cast<int>(random() % kTimers);
    switch (random() % 3) {
      case 0: {
        const bool was_stopped = markStopped(i, false);
        if (attempt("Timer::start", [&] { return timers[i]->start() == 0; })) {
          ++figures.starts;
        } else {
          markStopped(i, was_stopped);
        }
        break;
      }
      case 1: {
        const bool was_stopped = markStopped(i, false);
        if (attempt("Timer::restart", [&] { return timers[i]->restart() == 0; })) {
          ++figures.restarts;
        } else {
          markStopped(i, was_stopped);
        }
        break;
      }
      default:
        if (attempt("Timer::stop", [&] { return timers[i]->stop() == 0; })) {
          markStopped(i, true);
          ++figures.stops;
        }
        break;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(500 + random() % 1500));  // pacing
  }
  for (int i = 0; i < kTimers; ++i) {
    timers[i]->stop();
    markStopped(i, true);
    std::lock_guard<std::mutex> lock(stats[i]->mutex);
    stats[i]->destroyed = true;
  }
  timers.clear();  // each destructor waits for a handler call in progress
  for (const auto& s : stats) {
    figures.handlerCalls += s->calls.load();
    figures.lateCalls += s->lateCalls.load();
  }
  // Handler threads launched just before a stop may still be on their way and use the stats.
  static std::vector<std::unique_ptr<TimerStats>>* keep =
      new std::vector<std::unique_ptr<TimerStats>>();
  for (auto& s : stats) {
    keep->push_back(std::move(s));
  }
  return figures;
}

// Batches of one-shot timers started and left alone: each must fire exactly once.
long long oneShotTimers() {
  constexpr int kBatch = 8;
  struct Shot {
    std::atomic<int> calls{0};
  };
  // Shared by every batch, so that a late call never reaches a finished batch's counter.
  static Completion* done = new Completion();
  long long fired = 0;
  // A shot may be called late; its record stays valid to the end of the process.
  static std::vector<std::unique_ptr<Shot>>* shots = new std::vector<std::unique_ptr<Shot>>();
  std::vector<Shot*> batch;
  std::mt19937 random(4);
  long long started = 0;
  while (!g_stopLoad.load()) {
    std::vector<std::unique_ptr<st::Timer>> timers;
    batch.clear();
    for (int i = 0; i < kBatch; ++i) {
      if (shots->size() < static_cast<std::size_t>(2 * kBatch)) {
        shots->push_back(std::make_unique<Shot>());
      }
      Shot* shot = (*shots)[(static_cast<std::size_t>(started) + i) % shots->size()].get();
      shot->calls.store(0);
      const std::string name = "once-" + std::to_string(i);
      const st::TimeoutTime timeout{0, static_cast<int32_t>(random() % 5),
                                    static_cast<int32_t>(random() % 1000)};
      std::unique_ptr<st::Timer> timer;
      const bool made = attemptVoid("Timer()", [&] {
        timer.reset(new st::Timer(
            name, timeout,
            [](st::Timer*, void* data) {
              auto* s = static_cast<Shot*>(data);
              s->calls.fetch_add(1);
              done->add();
            },
            shot, st::ONCE));
      });
      if (made && attempt("Timer::start", [&] { return timer->start() == 0; })) {
        batch.push_back(shot);
      }
      if (made) {
        timers.push_back(std::move(timer));
      }
    }
    const long long expected = fired + static_cast<long long>(batch.size());
    if (!done->waitFor(expected, 30.0)) {
      violation("one-shot timers fired %lld of %zu within 30 s", done->value() - fired,
                batch.size());
    }
    timers.clear();
    for (Shot* shot : batch) {
      if (shot->calls.load() != 1) {
        violation("a one-shot timer fired %d times", shot->calls.load());
      }
    }
    fired = expected;
    started += kBatch;
  }
  return fired;
}

// ---------------------------------------------------------------------------------------------
// Runnables.

class CountingRunnable : public velmora::base::Threading::Runnable {
 public:
  CountingRunnable() : Runnable(1) {}
  void runOnce() override { cycles.fetch_add(1, std::memory_order_relaxed); }
  std::atomic<long long> cycles{0};
};

struct RunnableFigures {
  long long cycles = 0;
  long long pauses = 0;
};

// Three Runnables on their own threads, paused and resumed at random; while paused each may
// begin at most one more cycle, and after stop() and the join none.
RunnableFigures runnables() {
  constexpr int kCount = 3;
  RunnableFigures figures;
  std::vector<std::unique_ptr<CountingRunnable>> bodies;
  std::vector<std::thread> threads;
  for (int i = 0; i < kCount; ++i) {
    bodies.push_back(std::make_unique<CountingRunnable>());
    threads.emplace_back([body = bodies.back().get()] { body->run(); });
  }
  std::mt19937 random(5);
  while (!g_stopLoad.load()) {
    const int i = static_cast<int>(random() % kCount);
    CountingRunnable& body = *bodies[i];
    if (!attemptVoid("Runnable::pause", [&] { body.pause(); })) {
      continue;
    }
    if (body.running()) {
      violation("running() is true after pause()");
    }
    const long long atPause = body.cycles.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(2 + random() % 5));  // stay paused
    const long long later = body.cycles.load();
    if (later > atPause + 1) {
      violation("a paused Runnable began %lld cycles", later - atPause);
    }
    while (!attemptVoid("Runnable::resume", [&] { body.resume(); })) {
    }
    if (!body.running()) {
      violation("running() is false after resume()");
    }
    ++figures.pauses;
    std::this_thread::sleep_for(std::chrono::milliseconds(1 + random() % 3));  // pacing
  }
  for (int i = 0; i < kCount; ++i) {
    bodies[i]->stop();
    threads[i].join();
    const long long atStop = bodies[i]->cycles.load();
    figures.cycles += atStop;
    if (atStop == 0) {
      violation("a Runnable never ran a cycle");
    }
  }
  return figures;
}

// ---------------------------------------------------------------------------------------------
// Process properties.

// Each writer owns its names: every set returns the value the writer wrote before.
long long propertyWriter(int writer) {
  constexpr int kNames = 16;
  std::vector<long long> last(kNames, -1);
  long long operations = 0;
  while (!g_stopLoad.load()) {
    for (int n = 0; n < kNames; ++n) {
      const std::string name = "soak." + std::to_string(writer) + "." + std::to_string(n);
      const std::string value = std::to_string(last[n] + 1);
      std::string previous;
      if (!attemptVoid("set_process_property", [&] {
            previous = base::set_process_property(name.c_str(), value.c_str());
          })) {
        continue;
      }
      const std::string expected = last[n] < 0 ? "" : std::to_string(last[n]);
      if (previous != expected) {
        violation("set_process_property(%s) returned \"%s\", expected \"%s\"", name.c_str(),
                  previous.c_str(), expected.c_str());
      }
      last[n] += 1;
      ++operations;
    }
    if (operations % 256 == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // pacing
    }
  }
  return operations;
}

// Reads the writers' names: a value never goes back.
long long propertyReader() {
  constexpr int kNames = 16;
  std::vector<long long> seen(2 * kNames, -1);
  long long operations = 0;
  while (!g_stopLoad.load()) {
    for (int writer = 0; writer < 2; ++writer) {
      for (int n = 0; n < kNames; ++n) {
        const std::string name = "soak." + std::to_string(writer) + "." + std::to_string(n);
        std::string value;
        if (!attemptVoid("get_process_property",
                         [&] { value = base::get_process_property(name.c_str()); })) {
          continue;
        }
        const long long number = value.empty() ? -1 : std::atoll(value.c_str());
        long long& previous = seen[writer * kNames + n];
        if (number < previous) {
          violation("property %s went back from %lld to %lld", name.c_str(), previous, number);
        }
        previous = number;
        ++operations;
      }
    }
    if (operations % 256 == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // pacing
    }
  }
  return operations;
}

// ---------------------------------------------------------------------------------------------
// Memory samples.

struct Sample {
  double at;
  long long liveBytes;
  long long liveBlocks;
  long long rssBytes;
};

long long residentBytes() {
  FILE* statm = fopen("/proc/self/statm", "r");
  long long size = 0;
  long long resident = 0;
  if (statm != nullptr) {
    if (fscanf(statm, "%lld %lld", &size, &resident) != 2) {
      resident = 0;
    }
    fclose(statm);
  }
  return resident * sysconf(_SC_PAGESIZE);
}

struct WindowFigures {
  long long minLive = 0;
  long long maxLive = 0;
  long long minRss = 0;
  long long maxRss = 0;
};

WindowFigures window(const std::vector<Sample>& samples, double from, double to) {
  WindowFigures w{-1, 0, -1, 0};
  for (const Sample& s : samples) {
    if (s.at < from || s.at >= to) {
      continue;
    }
    w.minLive = w.minLive < 0 ? s.liveBytes : std::min(w.minLive, s.liveBytes);
    w.maxLive = std::max(w.maxLive, s.liveBytes);
    w.minRss = w.minRss < 0 ? s.rssBytes : std::min(w.minRss, s.rssBytes);
    w.maxRss = std::max(w.maxRss, s.rssBytes);
  }
  return w;
}

double mib(long long bytes) {
  return static_cast<double>(bytes) / (1024.0 * 1024.0);
}

}  // namespace

int main(int argc, char** argv) {
  const double duration = argc > 1 ? std::atof(argv[1]) : 0.0;
  bool rssReportOnly = false;
  bool usage = argc < 2 || duration <= 0.0;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--rss-report-only") == 0) {
      rssReportOnly = true;
    } else if (std::strcmp(argv[i], "--faults") == 0) {
      g_faultMode = true;
    } else {
      usage = true;
    }
  }
  if (usage) {
    fprintf(stderr, "usage: %s <seconds> [--rss-report-only] [--faults]\n", argv[0]);
    return 2;
  }
  // The simple-timer engine is made once for the process: a fault there would leave every timer
  // unusable for the rest of the run, as designed, so it is made before the faults begin.
  st::Timer("soak-engine", st::TimeoutTime{1, 0, 0}, continueHandler, nullptr, st::ONCE);
  if (g_faultMode) {
    vt::startRandomFaults(1000, 1000, static_cast<unsigned>(time(nullptr)));
  }
  const Clock::time_point start = Clock::now();

  std::vector<Sample> samples;
  samples.reserve(4096);
  std::thread sampler([&] {
    const double step = std::max(0.05, duration / 200.0);
    double next = 0.0;
    while (!g_stopLoad.load()) {
      const double at = secondsSince(start);
      if (at >= next && samples.size() < samples.capacity()) {
        samples.push_back({at, vt::liveHeapBytes(), vt::liveHeapBlocks(), residentBytes()});
        next = at + step;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });

  TaskFigures pool;
  TaskFigures standalone;
  EventFigures events;
  TimerFigures timers;
  RunnableFigures bodies;
  long long onceFired = 0;
  long long propertyOps[3] = {0, 0, 0};
  {
    Hubs hubs;
    std::vector<std::thread> load;
    load.emplace_back([&] { pool = poolLoad(); });
    load.emplace_back([&] { standalone = standaloneLoad(); });
    load.emplace_back([&] { eventSender(hubs, 11); });
    load.emplace_back([&] { eventSender(hubs, 12); });
    load.emplace_back([&] { events.transientHubs = transientHubs(); });
    load.emplace_back([&] { timers = repeatingTimers(); });
    load.emplace_back([&] { onceFired = oneShotTimers(); });
    load.emplace_back([&] { bodies = runnables(); });
    load.emplace_back([&] { propertyOps[0] = propertyWriter(0); });
    load.emplace_back([&] { propertyOps[1] = propertyWriter(1); });
    load.emplace_back([&] { propertyOps[2] = propertyReader(); });

    std::this_thread::sleep_until(start + std::chrono::duration<double>(duration));
    g_stopLoad.store(true);
    for (std::thread& t : load) {
      t.join();
    }
    sampler.join();
    vt::disarmFaults();

    // Handled equals expected only once every forward's reply is expected too (see Hubs).
    if (!g_eventsHandled.waitFor(g_expectedHandled.load(), 30.0) ||
        g_eventsHandled.value() != g_expectedHandled.load()) {
      violation("events still unhandled 30 s after the load stopped (%lld of %lld)",
                g_eventsHandled.value(), g_expectedHandled.load());
    }
    events.sent = g_eventsSent.load();
    events.handled = g_eventsHandled.value();
  }  // the hubs are unregistered (their threads joined) here

  for (int h = 0; h < 4; ++h) {
    HubTally& tally = g_hubTally[h];
    if (tally.count.load() != tally.expectedCount || tally.sum.load() != tally.expectedSum ||
        tally.mixedSum.load() != tally.expectedMixedSum) {
      violation("hub %d handled %lld events, expected %lld (or another set of events)", h,
                tally.count.load(), tally.expectedCount);
    }
  }
  if (events.handled != g_expectedHandled.load()) {
    violation("%lld events handled, %lld expected", events.handled, g_expectedHandled.load());
  }
  const long long unexplainedErrors = g_linesError.load() - g_errorLinesExplained.load();
  if (unexplainedErrors != 0) {
    violation("%lld error lines were logged by calls no fault struck", unexplainedErrors);
    std::lock_guard<std::mutex> lock(g_errorMutex);
    for (const std::string& line : g_errorLines) {
      fprintf(stderr, "  error line: %s", line.c_str());
    }
  }

  const double elapsed = secondsSince(start);
  const WindowFigures first = window(samples, 0.2 * duration, 0.4 * duration);
  const WindowFigures last = window(samples, 0.8 * duration, duration);
  // Under valgrind the run-time replaces operator new as well, and nothing is counted here.
  const bool heapCounted =
      std::any_of(samples.begin(), samples.end(), [](const Sample& s) { return s.liveBlocks > 0; });
  const bool rssMeaningful = heapCounted && !SOAK_SANITIZED && !rssReportOnly;
  if (first.minLive < 0 || last.minLive < 0) {
    violation("too few memory samples for a comparison");
  } else {
    // The live heap varies with the work in flight (bounded by the drivers); growth shows as
    // a higher floor. Allow 1 MiB for the noise of queues and caches.
    const long long allowedHeapGrowth = 1024 * 1024;
    if (heapCounted && last.minLive > first.minLive + allowedHeapGrowth) {
      violation(
          "the live heap grew from %.2f MiB to %.2f MiB (lowest values of the first and "
          "last parts)",
          mib(first.minLive), mib(last.minLive));
    }
    const long long allowedRssGrowth = 4 * 1024 * 1024;
    if (rssMeaningful && last.minRss > first.minRss + allowedRssGrowth) {
      violation(
          "the resident set grew from %.2f MiB to %.2f MiB (lowest values of the first "
          "and last parts)",
          mib(first.minRss), mib(last.minRss));
    }
  }

  printf("soak: %.1f s, all subsystems at once\n", elapsed);
  printf("  pool tasks:        %12lld run           %10.0f /s\n", pool.ran, pool.ran / duration);
  printf("  timer-thread tasks:%12lld posted, %lld cancelled, %lld run  %10.0f /s\n",
         standalone.posted, standalone.cancelled, standalone.ran, standalone.posted / duration);
  printf("  events:            %12lld sent, %lld handled  %10.0f handled/s\n", events.sent,
         events.handled, events.handled / duration);
  printf("  short-lived hubs:  %12lld                %10.0f /s\n", events.transientHubs,
         events.transientHubs / duration);
  printf(
      "  repeating timers:  %12lld starts, %lld restarts, %lld stops, %lld handler calls "
      "(%lld after a stop, all seeing needStop)\n",
      timers.starts, timers.restarts, timers.stops, timers.handlerCalls, timers.lateCalls);
  printf("  one-shot timers:   %12lld fired         %10.0f /s\n", onceFired, onceFired / duration);
  printf("  runnables:         %12lld cycles, %lld pauses\n", bodies.cycles, bodies.pauses);
  printf("  properties:        %12lld sets, %lld gets  %10.0f ops/s\n",
         propertyOps[0] + propertyOps[1], propertyOps[2],
         (propertyOps[0] + propertyOps[1] + propertyOps[2]) / duration);
  printf("  log lines:         %lld severe (level 1), %lld errors, %lld warnings, %lld other\n",
         g_linesSevere.load(), g_linesError.load(), g_linesWarning.load(), g_linesOther.load());
  if (heapCounted) {
    printf("  live heap:         first part %.2f-%.2f MiB, last part %.2f-%.2f MiB\n",
           mib(first.minLive), mib(first.maxLive), mib(last.minLive), mib(last.maxLive));
  } else {
    printf("  live heap:         not counted (the run-time replaces operator new)\n");
  }
  printf("  resident set:      first part %.2f-%.2f MiB, last part %.2f-%.2f MiB%s\n",
         mib(first.minRss), mib(first.maxRss), mib(last.minRss), mib(last.maxRss),
         rssMeaningful ? "" : " (reported only)");
  printf("  live blocks now:   %lld\n", vt::liveHeapBlocks());
  if (g_faultMode) {
    printf(
        "  faults:            %ld allocations and %ld thread creations failed; %lld calls "
        "struck: %lld failed visibly (%lld error lines), %lld carried on as designed\n",
        vt::randomFaultsInjected(vt::FaultKind::kAllocation),
        vt::randomFaultsInjected(vt::FaultKind::kThreadCreation), g_callsStruck.load(),
        g_callsStruck.load() - g_callsCarriedOn.load(), g_errorLinesExplained.load(),
        g_callsCarriedOn.load());
    if (g_callsStruck.load() == 0) {
      violation("no call was struck by a fault: the fault mode tested nothing");
    }
  }
  const int violations = g_violations.load();
  printf("soak: %s (%d violations)\n", violations == 0 ? "PASSED" : "FAILED", violations);
  fflush(stdout);
  return violations == 0 ? 0 : 1;
}
