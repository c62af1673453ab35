// Allocation and thread-creation faults in event dispatch: every operation of the hubs and the
// dispatcher that allocates or starts a thread is swept over each of its fault points, one child
// process per point. A fault either reaches the caller with the hub and the dispatcher as they
// were (the scenario then repeats the operation and checks that it works), or has the outcome
// the events' interface names for that step: an empty event from createEvent, "Fail to create
// EventHubImpl." from the constructor, "Fail to create EventHandlerThread." with the handler
// registered all the same, the dispatcher's first creation leaving its accessor blocked.

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/event_dispatcher/event_hub.h"
#include "base/logging.h"
#include "event_test_support.h"
#include "fault_injection.h"
#include "log_capture.h"

namespace {

using velmora::base::kLogError;
using velmora::base::kLogInfo;
using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventDispatcher;
using velmora::base::event_dispatcher::EventHandler;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::evtdispch_register_hub;
using velmora::base::event_dispatcher::evtdispch_send_event;
using velmora::base::event_dispatcher::evtdispch_unregister_hub;
using velmora::base::event_dispatcher::kAnyModule;
using velmora::testing::countFolderEntries;
using velmora::testing::eventLine;
using velmora::testing::FaultKind;
using velmora::testing::FaultRun;
using velmora::testing::Gate;
using velmora::testing::LogCapture;
using velmora::testing::LoggedOnce;
using velmora::testing::sweepFaults;
using velmora::testing::WaitableCount;

using DispatcherSingleton = velmora::base::Singleton<
    EventDispatcher, velmora::base::DefaultSingletonTraits<EventDispatcher>, EventDispatcher>;

constexpr int kType = 5;
constexpr int kOtherType = 6;
constexpr int kSenderId = 1;
constexpr int kReceiverId = 2;

// The number of events a hub's queue holds in one block of its std::deque (libstdc++).
constexpr int kEventsPerQueueBlock = static_cast<int>(512 / sizeof(std::shared_ptr<BrowserEvent>));

const std::string kNoImplLine =
    eventLine("event_hub.cpp", 260, "EventHub", "Fail to create EventHubImpl.\n");
const std::string kNoThreadLine =
    eventLine("event_hub.cpp", 106, "registerHandler", "Fail to create EventHandlerThread.\n");
const std::string kNullImplLine =
    eventLine("event_hub.cpp", 281, "registerHandler", "m_impl is NULL.\n");
const std::string kNothingToStopLine = eventLine(
    "event_hub.cpp", 144, "onUnregistered", "Didn't create thread, so need not destroy thread.\n");
const std::string kCreateDispatcherLine =
    eventLine("event_dispatcher.cpp", 74, "EventDispatcher", "Create EventDispatcher.\n");

// Creates one thread in the parent before any sweep. ThreadSanitizer starts a background thread
// of its own at the first thread creation of a process; made here, it is already running in every
// child, and the thread counts below see only the hubs' handler threads come and go.
class FirstThreadOfTheProcess : public ::testing::Environment {
 public:
  void SetUp() override {
    std::thread([] {}).join();
  }
};
const ::testing::Environment* const kFirstThreadOfTheProcess =
    ::testing::AddGlobalTestEnvironment(new FirstThreadOfTheProcess);

// Threads of this process, as /proc/self/task lists them: a hub's handler thread is one.
int threadCount() {
  return countFolderEntries("/proc/self/task");
}

// Whether the process comes to have that many threads within a few seconds. A joined thread can
// linger in the task list for a moment after the join has returned (under qemu-user, notably),
// so a test that checks a thread has ended watches the list for a while.
bool threadCountBecomes(int expected) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (threadCount() != expected) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A handler that counts its calls. It holds a shared pointer, so std::function keeps it on the
// heap and every copy of the handler allocates, as a module's handler with state does.
EventHandler countingHandler(const std::shared_ptr<WaitableCount>& calls) {
  return [calls](std::shared_ptr<BrowserEvent>) { calls->add(); };
}

// An event that no one else holds, so that use_count() tells whether a hub queued it.
std::shared_ptr<BrowserEvent> newEvent(int source, int type) {
  return std::shared_ptr<BrowserEvent>(
      new BrowserEvent(source, type, new velmora::base::event_dispatcher::EventParam()));
}

// Checks, disarmed, that the hub handles an event of type once more than before, exactly once.
void expectHandlesOneMore(EventHub& hub, int type, WaitableCount& calls) {
  const int before = calls.value();
  ASSERT_EQ(hub.receiveEvent(newEvent(kSenderId, type)), 0);
  EXPECT_TRUE(calls.waitFor(before + 1));
}

// Stops the hub's thread, as a module does before destroying its hub, and checks it ended.
void stopAndExpectThreadsBackTo(EventHub& hub, int threads) {
  hub.onHubUnregistered();
  EXPECT_TRUE(threadCountBecomes(threads));
}

// --- EventHub ---

TEST(EventHubFaultSweep, ConstructorThrowsOrLeavesAHubThatRefusesEverything) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    std::optional<EventHub> hub;
    const bool threw = run.throws<std::bad_alloc>([&] { hub.emplace(kReceiverId); });
    if (threw) {
      EXPECT_TRUE(run.injected());
      EXPECT_FALSE(hub.has_value());
      EXPECT_EQ(LogCapture::count(kNoImplLine), 0u);
      hub.emplace(kReceiverId);  // disarmed, the next hub is whole
    } else if (run.injected()) {
      ASSERT_TRUE(hub.has_value());
      EXPECT_TRUE(LoggedOnce(kLogError, kNoImplLine));
      EXPECT_EQ(hub->registerHandler(kType, EventHandler()), -1);
      EXPECT_TRUE(LoggedOnce(kLogError, kNullImplLine));
      return;
    }
    ASSERT_TRUE(hub.has_value());
    EXPECT_EQ(LogCapture::count(kNoImplLine), 0u);
    const int threads = threadCount();
    auto calls = std::make_shared<WaitableCount>();
    ASSERT_EQ(hub->registerHandler(kType, countingHandler(calls)), 0);
    expectHandlesOneMore(*hub, kType, *calls);
    stopAndExpectThreadsBackTo(*hub, threads);
  });
  EXPECT_EQ(report.points, 4);  // the implementation, its queue's map and block, the control block
}

TEST(EventHubFaultSweep, CreateEventThrowsOrGivesAnEmptyEventAndLeaksNothing) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    EventHub hub(7);
    std::shared_ptr<BrowserEvent> event;
    const long long blocks = velmora::testing::liveHeapBlocks();
    const bool threw = run.throws<std::bad_alloc>([&] { event = hub.createEvent(3); });
    if (run.injected()) {
      EXPECT_EQ(event, nullptr) << (threw ? "thrown" : "returned");
      EXPECT_EQ(event.use_count(), 0) << "an empty event owns no control block";
      EXPECT_EQ(velmora::testing::liveHeapBlocks(), blocks) << "what was built is freed";
      EXPECT_EQ(LogCapture::entries().size(), 0u);
      event = hub.createEvent(3);
    }
    EXPECT_FALSE(threw && !run.injected());
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->srcModuleId(), 7);
    EXPECT_EQ(event->eventType(), 3);
    ASSERT_NE(event->param(), nullptr);
    EXPECT_EQ(event->param()->paramType(), 0);
  });
  EXPECT_EQ(report.points, 3);  // the parameter, the event, the control block
}

// registerHandler on a hub with no thread (new, or stopped before): the first registration.
void sweepFirstRegistration(FaultRun& run, bool stopped_before) {
  LogCapture::reset();
  EventHub hub(kReceiverId);
  auto calls = std::make_shared<WaitableCount>();
  auto earlier_calls = std::make_shared<WaitableCount>();
  const int threads = threadCount();
  if (stopped_before) {
    ASSERT_EQ(hub.registerHandler(kOtherType, countingHandler(earlier_calls)), 0);
    hub.onHubUnregistered();
  }
  EventHandler handler = countingHandler(calls);
  int result = -2;
  const bool threw =
      run.throws<std::bad_alloc>([&] { result = hub.registerHandler(kType, std::move(handler)); });
  const bool named_outcome = LogCapture::count(kNoThreadLine) > 0;
  if (threw) {
    // As it was: no thread, nothing registered, nothing logged; the next registration works.
    EXPECT_TRUE(run.injected());
    EXPECT_FALSE(named_outcome);
    EXPECT_TRUE(threadCountBecomes(threads));
    EXPECT_EQ(hub.receiveEvent(newEvent(kSenderId, kType)), -1) << "nothing registered";
    ASSERT_EQ(hub.registerHandler(kType, countingHandler(calls)), 0);
  } else if (named_outcome) {
    // Carrying on without a thread: the handler is registered and its event waits in the
    // queue until the next registration starts the thread.
    EXPECT_TRUE(run.injected());
    EXPECT_TRUE(LoggedOnce(kLogError, kNoThreadLine));
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(threadCountBecomes(threads));
    ASSERT_EQ(hub.receiveEvent(newEvent(kSenderId, kType)), 0);
    ASSERT_EQ(hub.registerHandler(kSenderId, 99, EventHandler()), 0);
    EXPECT_TRUE(calls->waitFor(1));
  } else {
    EXPECT_FALSE(run.injected());
    EXPECT_EQ(result, 0);
  }
  EXPECT_TRUE(threadCountBecomes(threads + 1));
  expectHandlesOneMore(hub, kType, *calls);
  if (stopped_before) {
    expectHandlesOneMore(hub, kOtherType, *earlier_calls);
  }
  stopAndExpectThreadsBackTo(hub, threads);
  EXPECT_EQ(calls->value(), named_outcome ? 2 : 1);
  EXPECT_EQ(earlier_calls->value(), stopped_before ? 1 : 0);
}

TEST(EventHubFaultSweep, FirstRegisterHandlerThrowsWithTheHubAsItWasOrCarriesOnWithoutThread) {
  const auto report = sweepFaults(FaultKind::kAllocation,
                                  [](FaultRun& run) { sweepFirstRegistration(run, false); });
  EXPECT_EQ(report.points, 4);  // the table, the std::thread, its control block, the thread's state
}

TEST(EventHubFaultSweep, RegisterHandlerOnAStoppedHubThrowsWithTheHubAsItWasOrCarriesOn) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepFirstRegistration(run, true); });
  EXPECT_EQ(report.points, 3);  // the table has room already
}

// A later registration on a hub whose table holds `earlier` handlers: the table may have to grow.
void sweepLaterRegistration(FaultRun& run, int earlier) {
  LogCapture::reset();
  EventHub hub(kReceiverId);
  const int threads = threadCount();
  auto first_calls = std::make_shared<WaitableCount>();
  auto calls = std::make_shared<WaitableCount>();
  ASSERT_EQ(hub.registerHandler(kType, countingHandler(first_calls)), 0);
  for (int type = 100; type < 100 + earlier - 1; ++type) {
    ASSERT_EQ(hub.registerHandler(type, EventHandler()), 0);
  }
  EventHandler handler = countingHandler(calls);
  int result = -2;
  const bool threw = run.throws<std::bad_alloc>(
      [&] { result = hub.registerHandler(kSenderId, kOtherType, std::move(handler)); });
  EXPECT_EQ(threw, run.injected());
  if (threw) {
    EXPECT_EQ(hub.receiveEvent(newEvent(kSenderId, kOtherType)), -1) << "nothing registered";
    ASSERT_EQ(hub.registerHandler(kSenderId, kOtherType, countingHandler(calls)), 0);
  } else {
    EXPECT_EQ(result, 0);
  }
  EXPECT_EQ(LogCapture::entries().size(), 0u);
  EXPECT_TRUE(threadCountBecomes(threads + 1));
  expectHandlesOneMore(hub, kType, *first_calls);
  expectHandlesOneMore(hub, kOtherType, *calls);
  stopAndExpectThreadsBackTo(hub, threads);
  EXPECT_EQ(first_calls->value(), 1);
  EXPECT_EQ(calls->value(), 1);
}

TEST(EventHubFaultSweep, LaterRegisterHandlerThrowsWithTheHubAsItWas) {
  long points = 0;
  for (int earlier = 1; earlier <= 8; ++earlier) {
    points += sweepFaults(FaultKind::kAllocation, [earlier](FaultRun& run) {
                sweepLaterRegistration(run, earlier);
              }).points;
  }
  EXPECT_EQ(points, 2) << "the table grows twice from 1 to 9 handlers";
}

// Stopping a hub's thread never fails for want of memory: the wake-up event may come out empty
// or not be queued at all, and the thread ends all the same.
// Passes events of type through a hub whose thread handles them at once (with a handler that
// does not allocate) until its queue, empty again, ends at the last place of a block: the next
// event queued needs a new block.
void emptyQueueAtTheEndOfABlock(EventHub& hub, int type, WaitableCount& calls) {
  int passed = calls.value();
  auto passOne = [&] {
    std::shared_ptr<BrowserEvent> event = newEvent(kSenderId, type);
    velmora::testing::armFault(FaultKind::kAllocation, LONG_MAX);
    EXPECT_EQ(hub.receiveEvent(std::move(event)), 0);
    velmora::testing::disarmFaults();
    EXPECT_TRUE(calls.waitFor(++passed));
    return velmora::testing::faultCallsCounted(FaultKind::kAllocation) > 0;
  };
  while (!passOne()) {
  }
  for (int i = 0; i < kEventsPerQueueBlock - 1; ++i) {
    EXPECT_FALSE(passOne()) << "event " << i << " of the block";
  }
}

void sweepStop(FaultRun& run, bool through_dispatcher, bool wake_up_needs_a_block) {
  LogCapture::reset();
  EventHub hub(kReceiverId);
  const int threads = threadCount();
  auto calls = std::make_shared<WaitableCount>();
  WaitableCount filler_calls;
  ASSERT_EQ(hub.registerHandler(kType, countingHandler(calls)), 0);
  ASSERT_EQ(hub.registerHandler(
                kOtherType, [&filler_calls](std::shared_ptr<BrowserEvent>) { filler_calls.add(); }),
            0);
  if (through_dispatcher) {
    ASSERT_EQ(evtdispch_register_hub(&hub), 0);
  }
  expectHandlesOneMore(hub, kType, *calls);
  if (wake_up_needs_a_block) {
    emptyQueueAtTheEndOfABlock(hub, kOtherType, filler_calls);
  }
  int result = 0;
  const bool threw = run.throws<std::bad_alloc>([&] {
    if (through_dispatcher) {
      result = evtdispch_unregister_hub(&hub);
    } else {
      hub.onHubUnregistered();
    }
  });
  EXPECT_FALSE(threw);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(threadCountBecomes(threads)) << "the handler thread ended";
  EXPECT_EQ(LogCapture::count(kNothingToStopLine), 0u);
  if (through_dispatcher) {
    std::shared_ptr<BrowserEvent> event = newEvent(kSenderId, kType);
    EXPECT_EQ(evtdispch_send_event(event, kReceiverId), 0);
    EXPECT_EQ(event.use_count(), 1) << "the hub is no longer registered";
  }

  // A later registration starts a new thread, which handles new events as before.
  ASSERT_EQ(hub.registerHandler(99, EventHandler()), 0);
  expectHandlesOneMore(hub, kType, *calls);
  stopAndExpectThreadsBackTo(hub, threads);
  EXPECT_EQ(calls->value(), 2);
}

TEST(EventHubFaultSweep, OnHubUnregisteredStopsTheThreadWhateverAllocationFails) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepStop(run, false, false); });
  EXPECT_EQ(report.points, 3);  // the wake-up event's parameter, event, control block
}

TEST(EventHubFaultSweep, OnHubUnregisteredStopsTheThreadWhenTheWakeUpEventCannotBeQueued) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepStop(run, false, true); });
  EXPECT_EQ(report.points, 4);  // the wake-up event's three, and the queue's new block
}

// sendEvent to one hub, until its handler has run: the hub's thread copies the handler too.
TEST(EventHubFaultSweep, SendEventThrowsWithNothingQueuedOrIsHandledExactlyOnce) {
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    EventHub sender(kSenderId);
    EventHub receiver(kReceiverId);
    const int threads = threadCount();
    auto calls = std::make_shared<WaitableCount>();
    ASSERT_EQ(receiver.registerHandler(kType, countingHandler(calls)), 0);
    ASSERT_EQ(evtdispch_register_hub(&receiver), 0);
    std::shared_ptr<BrowserEvent> event = sender.createEvent(kType);
    ASSERT_NE(event, nullptr);
    int result = -2;
    const bool threw = run.throws<std::bad_alloc>([&] {
      result = sender.sendEvent(event, kReceiverId);
      EXPECT_TRUE(calls->waitFor(1));
    });
    if (threw) {
      EXPECT_TRUE(run.injected());
      EXPECT_EQ(event.use_count(), 1) << "no hub queued the event";
      EXPECT_EQ(calls->value(), 0);
      ASSERT_EQ(sender.sendEvent(event, kReceiverId), 0);
      EXPECT_TRUE(calls->waitFor(1));
    } else {
      EXPECT_EQ(result, 0);
    }
    ASSERT_EQ(evtdispch_unregister_hub(&receiver), 0);
    EXPECT_TRUE(threadCountBecomes(threads));
    EXPECT_EQ(calls->value(), 1) << "handled exactly once";
  });
  EXPECT_EQ(report.points, 1);  // the handler's copy on the hub's thread
}

// --- The dispatcher ---

// Fills the queue of a hub whose thread is held in a handler until the next queued event needs a
// new block, so that queueing it allocates; returns the number of events queued.
int fillQueueToTheEndOfABlock(EventHub& hub) {
  int queued = 0;
  for (;;) {
    std::shared_ptr<BrowserEvent> filler = newEvent(kSenderId, kType);
    velmora::testing::armFault(FaultKind::kAllocation, LONG_MAX);
    const int accepted = hub.receiveEvent(filler);
    velmora::testing::disarmFaults();
    if (accepted != 0) {
      ADD_FAILURE() << "the hub refused a filler";
      return queued;
    }
    ++queued;
    if (velmora::testing::faultCallsCounted(FaultKind::kAllocation) > 0) {
      break;  // that event began a new block
    }
  }
  for (int i = 0; i < kEventsPerQueueBlock - 1; ++i) {
    std::shared_ptr<BrowserEvent> filler = newEvent(kSenderId, kType);
    velmora::testing::armFault(FaultKind::kAllocation, LONG_MAX);
    EXPECT_EQ(hub.receiveEvent(filler), 0);
    velmora::testing::disarmFaults();
    ++queued;
    EXPECT_EQ(velmora::testing::faultCallsCounted(FaultKind::kAllocation), 0) << "filler " << i;
  }
  return queued;
}

// A broadcast to two hubs whose second cannot queue it: either both get it or neither does.
void sweepSendToSeveralHubs(FaultRun& run, bool through_free_function) {
  LogCapture::reset();
  EventHub first(kReceiverId);
  EventHub second(kReceiverId + 1);
  const int threads = threadCount();
  WaitableCount first_calls;
  WaitableCount second_calls;
  WaitableCount second_entered;
  Gate second_may_go;
  ASSERT_EQ(first.registerHandler(kType, [&](std::shared_ptr<BrowserEvent>) { first_calls.add(); }),
            0);
  ASSERT_EQ(second.registerHandler(kType,
                                   [&](std::shared_ptr<BrowserEvent>) {
                                     second_entered.add();
                                     second_may_go.waitOpen();
                                     second_calls.add();
                                   }),
            0);
  ASSERT_EQ(evtdispch_register_hub(&first), 0);
  ASSERT_EQ(evtdispch_register_hub(&second), 0);
  // The second hub's thread takes one event and waits in its handler; the rest stay queued.
  ASSERT_EQ(second.receiveEvent(newEvent(kSenderId, kType)), 0);
  ASSERT_TRUE(second_entered.waitFor(1));
  const int queued = 1 + fillQueueToTheEndOfABlock(second);

  std::shared_ptr<BrowserEvent> event = newEvent(kSenderId, kType);
  int result = -2;
  const bool threw = run.throws<std::bad_alloc>([&] {
    result = through_free_function ? evtdispch_send_event(event, kAnyModule)
                                   : EventDispatcher::getInstance()->send(event, kAnyModule);
  });
  if (threw) {
    EXPECT_TRUE(run.injected());
    EXPECT_EQ(event.use_count(), 1) << "neither hub kept the event";
    ASSERT_EQ(evtdispch_send_event(event, kAnyModule), 0);
  } else {
    EXPECT_EQ(result, 0);
  }
  EXPECT_TRUE(first_calls.waitFor(1));
  second_may_go.open();
  EXPECT_TRUE(second_calls.waitFor(queued + 1));
  ASSERT_EQ(evtdispch_unregister_hub(&first), 0);
  ASSERT_EQ(evtdispch_unregister_hub(&second), 0);
  EXPECT_TRUE(threadCountBecomes(threads));
  EXPECT_EQ(first_calls.value(), 1) << "handled exactly once";
  EXPECT_EQ(second_calls.value(), queued + 1) << "handled exactly once";
}

TEST(EventDispatcherFaultSweep, BroadcastReachesEveryHubOrNoneThroughTheFreeFunction) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepSendToSeveralHubs(run, true); });
  EXPECT_EQ(report.points, 1);  // the second hub's new queue block
}

TEST(EventDispatcherFaultSweep, BroadcastReachesEveryHubOrNoneThroughTheDispatcher) {
  const auto report = sweepFaults(FaultKind::kAllocation,
                                  [](FaultRun& run) { sweepSendToSeveralHubs(run, false); });
  EXPECT_EQ(report.points, 1);
}

// registerHub either adds the hub or throws with the hub not registered.
void sweepRegisterHub(FaultRun& run, bool through_free_function) {
  LogCapture::reset();
  EventHub hub(kReceiverId);
  EventHub other(kReceiverId + 1);
  ASSERT_EQ(evtdispch_register_hub(&other), 0);  // the dispatcher exists before arming
  const int threads = threadCount();
  auto calls = std::make_shared<WaitableCount>();
  ASSERT_EQ(hub.registerHandler(kType, countingHandler(calls)), 0);
  int result = -2;
  const bool threw = run.throws<std::bad_alloc>([&] {
    result = through_free_function ? evtdispch_register_hub(&hub)
                                   : EventDispatcher::getInstance()->registerHub(&hub);
  });
  EXPECT_EQ(threw, run.injected());
  if (threw) {
    std::shared_ptr<BrowserEvent> event = newEvent(kSenderId, kType);
    ASSERT_EQ(evtdispch_send_event(event, kReceiverId), 0);
    EXPECT_EQ(event.use_count(), 1) << "the hub is not registered";
    ASSERT_EQ(evtdispch_register_hub(&hub), 0);
  } else {
    EXPECT_EQ(result, 0);
  }
  ASSERT_EQ(evtdispch_send_event(newEvent(kSenderId, kType), kReceiverId), 0);
  EXPECT_TRUE(calls->waitFor(1));
  EXPECT_EQ(evtdispch_register_hub(&hub), -1) << "registered once";
  ASSERT_EQ(evtdispch_unregister_hub(&hub), 0);
  ASSERT_EQ(evtdispch_unregister_hub(&other), 0);
  EXPECT_TRUE(threadCountBecomes(threads));
  EXPECT_EQ(calls->value(), 1);
}

TEST(EventDispatcherFaultSweep, RegisterHubThrowsWithTheHubNotRegisteredThroughTheFreeFunction) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepRegisterHub(run, true); });
  EXPECT_EQ(report.points, 1);  // the list node
}

TEST(EventDispatcherFaultSweep, RegisterHubThrowsWithTheHubNotRegisteredThroughTheDispatcher) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepRegisterHub(run, false); });
  EXPECT_EQ(report.points, 1);
}

TEST(EventDispatcherFaultSweep, UnregisterHubStopsTheHubWhateverAllocationFails) {
  const auto report =
      sweepFaults(FaultKind::kAllocation, [](FaultRun& run) { sweepStop(run, true, false); });
  EXPECT_EQ(report.points, 3);
}

TEST(EventDispatcherFaultSweep, FirstUseThrowsAndLeavesTheAccessorBlockedOrRegistersTheHub) {
  ASSERT_EQ(DispatcherSingleton::instance_, 0) << "the dispatcher must not exist yet here";
  const auto report = sweepFaults(FaultKind::kAllocation, [](FaultRun& run) {
    LogCapture::reset();
    EventHub hub(kReceiverId);
    int result = -2;
    const bool threw = run.throws<std::bad_alloc>([&] { result = evtdispch_register_hub(&hub); });
    EXPECT_EQ(threw, run.injected());
    if (threw && DispatcherSingleton::instance_ == 1) {
      // The singleton's named outcome: its constructor did not complete, the marker stays, and
      // every later call would wait for ever. Nothing else is called.
      EXPECT_EQ(LogCapture::count(kCreateDispatcherLine), 0u);
      return;
    }
    EXPECT_TRUE(LoggedOnce(velmora::base::kLogCritical, kCreateDispatcherLine));
    if (threw) {
      ASSERT_EQ(evtdispch_register_hub(&hub), 0);  // the list node failed: not registered
    } else {
      EXPECT_EQ(result, 0);
    }
    EXPECT_EQ(evtdispch_register_hub(&hub), -1) << "registered once";
    EXPECT_EQ(evtdispch_unregister_hub(&hub), 0);
  });
  EXPECT_EQ(report.points, 2);  // the dispatcher, the list node
}

// --- Thread creation ---

// A handler thread that cannot be created: std::system_error reaches the caller with nothing
// registered and nothing logged, and the next registration starts the thread.
void sweepThreadStart(FaultRun& run, bool stopped_before) {
  LogCapture::reset();
  EventHub hub(kReceiverId);
  auto calls = std::make_shared<WaitableCount>();
  const int threads = threadCount();
  if (stopped_before) {
    ASSERT_EQ(hub.registerHandler(kOtherType, EventHandler()), 0);
    hub.onHubUnregistered();
  }
  int result = -2;
  const bool threw = run.throws<std::system_error>(
      [&] { result = hub.registerHandler(kType, countingHandler(calls)); });
  EXPECT_EQ(threw, run.injected());
  EXPECT_EQ(LogCapture::count(kNoThreadLine), 0u);
  if (threw) {
    EXPECT_TRUE(threadCountBecomes(threads));
    EXPECT_EQ(hub.receiveEvent(newEvent(kSenderId, kType)), -1) << "nothing registered";
    ASSERT_EQ(hub.registerHandler(kType, countingHandler(calls)), 0);
  } else {
    EXPECT_EQ(result, 0);
  }
  EXPECT_TRUE(threadCountBecomes(threads + 1));
  expectHandlesOneMore(hub, kType, *calls);
  stopAndExpectThreadsBackTo(hub, threads);
  EXPECT_EQ(calls->value(), 1);
}

TEST(EventHubThreadFaultSweep, FirstRegisterHandlerThrowsWithTheHubAsItWas) {
  const auto report =
      sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) { sweepThreadStart(run, false); });
  EXPECT_EQ(report.points, 1);
}

TEST(EventHubThreadFaultSweep, RegisterHandlerOnAStoppedHubThrowsWithTheHubAsItWas) {
  const auto report =
      sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) { sweepThreadStart(run, true); });
  EXPECT_EQ(report.points, 1);
}

TEST(EventHubThreadFaultSweep, NoOtherOperationCreatesAThread) {
  const auto report = sweepFaults(FaultKind::kThreadCreation, [](FaultRun& run) {
    EventHub sender(kSenderId);
    EventHub receiver(kReceiverId);
    auto calls = std::make_shared<WaitableCount>();
    ASSERT_EQ(receiver.registerHandler(kType, countingHandler(calls)), 0);
    run.armed([&] {
      std::optional<EventHub> created;
      created.emplace(kReceiverId + 1);
      EXPECT_EQ(receiver.registerHandler(kOtherType, EventHandler()), 0);
      EXPECT_EQ(evtdispch_register_hub(&receiver), 0);
      EXPECT_EQ(sender.sendEvent(sender.createEvent(kType), kReceiverId), 0);
      EXPECT_TRUE(calls->waitFor(1));
      EXPECT_EQ(evtdispch_unregister_hub(&receiver), 0);
    });
    EXPECT_FALSE(run.injected());
  });
  EXPECT_EQ(report.points, 0);
}

}  // namespace
