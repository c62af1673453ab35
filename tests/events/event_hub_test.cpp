#include "base/event_dispatcher/event_hub.h"

#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/logging.h"
#include "event_test_support.h"
#include "interpose.h"
#include "log_capture.h"

using velmora::testing::WaitableCount;

namespace {
// Counts the joins begun, so a test knows that a stopping thread has set the exit flag.
WaitableCount g_joins_begun;
// The number of mutex locks still to fail on this thread, with EINVAL; other threads are spared.
thread_local int t_failing_locks = 0;
}  // namespace

extern "C" int pthread_join(pthread_t thread, void** result) {
  g_joins_begun.add();
  return VELMORA_REAL(pthread_join)(thread, result);
}

extern "C" VELMORA_TEST_INTERPOSER int pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (t_failing_locks > 0) {
    --t_failing_locks;
    return EINVAL;
  }
  return VELMORA_REAL(pthread_mutex_lock)(mutex);
}

namespace {

using velmora::base::kLogCritical;
using velmora::base::kLogError;
using velmora::base::kLogInfo;
using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventHandler;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::EventHubImpl;
using velmora::base::event_dispatcher::EventParam;
using velmora::base::event_dispatcher::kAnyModule;
using velmora::testing::eventLine;
using velmora::testing::Gate;
using velmora::testing::LogCapture;
using velmora::testing::Logged;
using velmora::testing::LoggedOnce;
using velmora::testing::NotLogged;

const std::string kDuplicateLine =
    eventLine("event_hub.cpp", 114, "registerHandler", "Event handler already exists.\n\n");
const std::string kNoThreadLine = eventLine("event_hub.cpp", 144, "onUnregistered",
                                            "Didn't create thread, so need not destroy thread.\n");
const std::string kExitLine =
    eventLine("event_hub.cpp", 145, "onUnregistered", "Exit onUnregistered.\n");

// A hub that is stopped at the end of the test, as a module must do before destroying it.
class StoppedHub {
 public:
  explicit StoppedHub(int moduleId) : hub(moduleId) {}
  ~StoppedHub() { hub.onHubUnregistered(); }
  EventHub hub;
};

// Records what a handler saw, under a mutex, and lets the test wait for a number of calls.
struct Calls {
  struct Call {
    int source;
    int type;
    std::thread::id thread;
  };
  void record(const std::shared_ptr<BrowserEvent>& event) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      seen.push_back({event->srcModuleId(), event->eventType(), std::this_thread::get_id()});
    }
    count.add();
  }
  std::vector<Call> snapshot() {
    std::lock_guard<std::mutex> lock(mutex);
    return seen;
  }
  EventHandler handler() {
    return [this](std::shared_ptr<BrowserEvent> event) { record(event); };
  }
  std::mutex mutex;
  std::vector<Call> seen;
  WaitableCount count;
};

std::shared_ptr<BrowserEvent> eventFrom(int source, int type) {
  return std::shared_ptr<BrowserEvent>(new BrowserEvent(source, type, new EventParam()));
}

class EventHubTest : public velmora::testing::LogCaptureTest {};

TEST_F(EventHubTest, WildcardEntryMakesALaterEntryForOneSourceADuplicate) {
  StoppedHub stopped(1);
  Calls h;
  Calls g;
  EXPECT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  EXPECT_EQ(stopped.hub.registerHandler(9, 5, g.handler()), 0);
  EXPECT_TRUE(LoggedOnce(kLogError, kDuplicateLine));

  EXPECT_EQ(stopped.hub.receiveEvent(eventFrom(9, 5)), 0);
  ASSERT_TRUE(h.count.waitFor(1));
  ASSERT_EQ(h.snapshot().size(), 1u);
  EXPECT_EQ(h.snapshot()[0].source, 9);
  EXPECT_EQ(g.count.value(), 0);
}

TEST_F(EventHubTest, EntryForOneSourceThenWildcardAreBothAddedAndTheFirstMatchWins) {
  StoppedHub stopped(1);
  Calls h;
  Calls g;
  EXPECT_EQ(stopped.hub.registerHandler(9, 5, g.handler()), 0);
  EXPECT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  EXPECT_TRUE(NotLogged(kDuplicateLine));

  EXPECT_EQ(stopped.hub.receiveEvent(eventFrom(9, 5)), 0);
  EXPECT_EQ(stopped.hub.receiveEvent(eventFrom(3, 5)), 0);
  ASSERT_TRUE(h.count.waitFor(1));
  ASSERT_TRUE(g.count.waitFor(1));
  stopped.hub.onHubUnregistered();  // joins: nothing more can run
  ASSERT_EQ(g.snapshot().size(), 1u);
  EXPECT_EQ(g.snapshot()[0].source, 9);
  ASSERT_EQ(h.snapshot().size(), 1u);
  EXPECT_EQ(h.snapshot()[0].source, 3);
}

TEST_F(EventHubTest, TheSameKeyTwiceIsADuplicateAndStillReturnsZero) {
  StoppedHub stopped(1);
  Calls g;
  EXPECT_EQ(stopped.hub.registerHandler(9, 5, g.handler()), 0);
  EXPECT_EQ(stopped.hub.registerHandler(9, 5, g.handler()), 0);
  EXPECT_EQ(stopped.hub.registerHandler(9, 6, g.handler()), 0);
  EXPECT_EQ(stopped.hub.registerHandler(8, 5, g.handler()), 0);
  EXPECT_TRUE(LoggedOnce(kLogError, kDuplicateLine));
}

TEST_F(EventHubTest, WildcardKeyMatchesOnlyEntriesForAnyModule) {
  EventHubImpl impl;
  Calls g;
  EXPECT_EQ(impl.registerHandler(9, 5, g.handler()), 0);
  EXPECT_FALSE(impl.handlerExists({kAnyModule, 5, EventHandler()}));
  EXPECT_TRUE(impl.handlerExists({9, 5, EventHandler()}));
  EXPECT_FALSE(impl.handlerExists({3, 5, EventHandler()}));
  EXPECT_FALSE(impl.handlerExists({9, 6, EventHandler()}));
  EXPECT_EQ(impl.receiveEvent(eventFrom(kAnyModule, 5)), -1);

  // A wildcard entry for the same type is not a duplicate of the entry for source 9.
  EXPECT_EQ(impl.registerHandler(5, g.handler()), 0);
  EXPECT_TRUE(NotLogged(kDuplicateLine));
  EXPECT_TRUE(impl.handlerExists({kAnyModule, 5, EventHandler()}));
  EXPECT_TRUE(impl.handlerExists({3, 5, EventHandler()}));
  impl.onUnregistered();
}

TEST_F(EventHubTest, EventOfATypeNoEntryTakesIsRefusedSilentlyAndNeverQueued) {
  StoppedHub stopped(1);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  const size_t lines_before = LogCapture::entries().size();

  std::shared_ptr<BrowserEvent> refused = eventFrom(1, 6);
  EXPECT_EQ(stopped.hub.receiveEvent(refused), -1);
  EXPECT_EQ(refused.use_count(), 1);  // no queue holds it
  EXPECT_EQ(LogCapture::entries().size(), lines_before);

  // Stop the thread so an accepted event stays queued and visible in its use count.
  stopped.hub.onHubUnregistered();
  std::shared_ptr<BrowserEvent> accepted = eventFrom(1, 5);
  EXPECT_EQ(stopped.hub.receiveEvent(accepted), 0);
  EXPECT_EQ(accepted.use_count(), 2);
  EXPECT_EQ(stopped.hub.receiveEvent(refused), -1);
  EXPECT_EQ(refused.use_count(), 1);
  EXPECT_EQ(h.count.value(), 0);
}

TEST_F(EventHubTest, OnUnregisteredWithoutHandlerLogsTheTwoLinesAndReturns) {
  EventHub hub(1);
  hub.onHubUnregistered();
  const auto entries = LogCapture::entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].text, kNoThreadLine);
  EXPECT_EQ(entries[0].level, kLogInfo);
  EXPECT_EQ(entries[1].text, kExitLine);
  EXPECT_EQ(entries[1].level, kLogCritical);
}

TEST_F(EventHubTest, SecondOnUnregisteredAfterAThreadRanTakesTheNoThreadPath) {
  EventHub hub(1);
  Calls h;
  ASSERT_EQ(hub.registerHandler(5, h.handler()), 0);
  ASSERT_EQ(hub.receiveEvent(eventFrom(2, 5)), 0);
  ASSERT_TRUE(h.count.waitFor(1));

  hub.onHubUnregistered();
  EXPECT_EQ(LogCapture::entries().size(), 0u);
  hub.onHubUnregistered();
  EXPECT_TRUE(LoggedOnce(kLogInfo, kNoThreadLine));
  EXPECT_TRUE(LoggedOnce(kLogCritical, kExitLine));
  EXPECT_EQ(LogCapture::entries().size(), 2u);
}

TEST_F(EventHubTest, HandlerRunsOnTheHubThreadWithTheEventIntact) {
  StoppedHub stopped(1);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  std::shared_ptr<BrowserEvent> event = eventFrom(4, 5);
  EventParam* param = event->param();
  std::atomic<EventParam*> seen_param{nullptr};
  ASSERT_EQ(stopped.hub.registerHandler(6,
                                        [&](std::shared_ptr<BrowserEvent> e) {
                                          seen_param.store(e->param());
                                          h.record(e);
                                        }),
            0);
  std::shared_ptr<BrowserEvent> second = eventFrom(4, 6);
  EventParam* second_param = second->param();
  ASSERT_EQ(stopped.hub.receiveEvent(event), 0);
  ASSERT_EQ(stopped.hub.receiveEvent(second), 0);
  ASSERT_TRUE(h.count.waitFor(2));
  const auto calls = h.snapshot();
  EXPECT_NE(calls[0].thread, std::this_thread::get_id());
  EXPECT_EQ(calls[0].thread, calls[1].thread);
  EXPECT_EQ(calls[0].source, 4);
  EXPECT_EQ(calls[0].type, 5);
  EXPECT_EQ(calls[1].type, 6);
  EXPECT_EQ(seen_param.load(), second_param);
  EXPECT_EQ(event->param(), param);
}

TEST_F(EventHubTest, EventsQueuedWhileTheHandlerIsBusyRunInArrivalOrderOneAtATime) {
  StoppedHub stopped(1);
  constexpr int kEvents = 200;
  Gate release;
  WaitableCount entered;
  WaitableCount done;
  std::atomic<int> running{0};
  std::atomic<int> most_running{0};
  std::vector<int> order;  // written by the hub thread only
  ASSERT_EQ(stopped.hub.registerHandler(5,
                                        [&](std::shared_ptr<BrowserEvent> event) {
                                          const int now = running.fetch_add(1) + 1;
                                          int most = most_running.load();
                                          while (now > most &&
                                                 !most_running.compare_exchange_weak(most, now)) {
                                          }
                                          order.push_back(event->srcModuleId());
                                          entered.add();
                                          if (event->srcModuleId() == 0) {
                                            release.waitOpen();
                                          }
                                          running.fetch_sub(1);
                                          done.add();
                                        }),
            0);
  ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(0, 5)), 0);
  ASSERT_TRUE(entered.waitFor(1));
  for (int i = 1; i < kEvents; ++i) {
    ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(i, 5)), 0);
  }
  EXPECT_EQ(entered.value(), 1);  // the busy handler holds back every later event
  release.open();
  ASSERT_TRUE(done.waitFor(kEvents));
  stopped.hub.onHubUnregistered();
  ASSERT_EQ(order.size(), static_cast<size_t>(kEvents));
  for (int i = 0; i < kEvents; ++i) {
    EXPECT_EQ(order[i], i);
  }
  EXPECT_EQ(most_running.load(), 1);
}

TEST_F(EventHubTest, EventsStillQueuedAtUnregistrationAreNotHandled) {
  EventHub hub(1);
  Gate release;
  Calls h;
  ASSERT_EQ(hub.registerHandler(5,
                                [&](std::shared_ptr<BrowserEvent> event) {
                                  h.record(event);
                                  if (event->srcModuleId() == 0) {
                                    release.waitOpen();
                                  }
                                }),
            0);
  ASSERT_EQ(hub.receiveEvent(eventFrom(0, 5)), 0);
  ASSERT_TRUE(h.count.waitFor(1));
  std::vector<std::shared_ptr<BrowserEvent>> queued;
  for (int i = 1; i <= 5; ++i) {
    queued.push_back(eventFrom(i, 5));
    ASSERT_EQ(hub.receiveEvent(queued.back()), 0);
  }
  const int joins_before = g_joins_begun.value();
  std::thread stopper([&] { hub.onHubUnregistered(); });
  ASSERT_TRUE(g_joins_begun.waitFor(joins_before + 1));  // the exit flag is set by now
  release.open();
  stopper.join();

  EXPECT_EQ(h.count.value(), 1);
  for (const auto& event : queued) {
    EXPECT_EQ(event.use_count(), 2);  // still held by the queue, unhandled
  }
  EXPECT_EQ(LogCapture::entries().size(), 0u);
}

TEST_F(EventHubTest, EventsAcceptedWhileNoThreadRunsAreHandledAfterALaterRegistration) {
  StoppedHub stopped(1);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  stopped.hub.onHubUnregistered();

  for (int i = 1; i <= 3; ++i) {
    ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(i, 5)), 0);
  }
  EXPECT_EQ(h.count.value(), 0);  // no thread runs
  ASSERT_EQ(stopped.hub.registerHandler(6, h.handler()), 0);
  ASSERT_TRUE(h.count.waitFor(3));
  stopped.hub.onHubUnregistered();
  const auto calls = h.snapshot();
  ASSERT_EQ(calls.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(calls[i].source, i + 1);
  }
}

TEST_F(EventHubTest, AStoppedHubRestartsItsThreadAtTheNextRegistration) {
  StoppedHub stopped(1);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  stopped.hub.onHubUnregistered();
  ASSERT_EQ(stopped.hub.registerHandler(6, h.handler()), 0);
  ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(2, 6)), 0);
  ASSERT_TRUE(h.count.waitFor(1));
  ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(3, 5)), 0);
  ASSERT_TRUE(h.count.waitFor(2));
  stopped.hub.onHubUnregistered();  // a thread ran: no "Didn't create thread" line
  EXPECT_TRUE(NotLogged(kNoThreadLine));
  const auto calls = h.snapshot();
  EXPECT_EQ(calls[0].type, 6);
  EXPECT_EQ(calls[1].type, 5);
}

TEST_F(EventHubTest, WakeUpEventIsFromAnyModuleOfTypeAnyModuleAndStaysQueued) {
  StoppedHub stopped(1);
  Calls wake_ups;
  std::atomic<int> param_type{-1};
  ASSERT_EQ(stopped.hub.registerHandler(
                kAnyModule,
                [&](std::shared_ptr<BrowserEvent> event) {
                  param_type.store(event->param() == nullptr ? -2 : event->param()->paramType());
                  wake_ups.record(event);
                }),
            0);
  stopped.hub.onHubUnregistered();  // queue empty: the wake-up event is pushed and left there
  EXPECT_EQ(wake_ups.count.value(), 0);

  Calls other;
  ASSERT_EQ(stopped.hub.registerHandler(6, other.handler()), 0);
  ASSERT_TRUE(wake_ups.count.waitFor(1));
  const auto calls = wake_ups.snapshot();
  EXPECT_EQ(calls[0].source, kAnyModule);
  EXPECT_EQ(calls[0].type, kAnyModule);
  EXPECT_EQ(param_type.load(), 0);
}

TEST_F(EventHubTest, WakeUpEventWithoutAnAnyModuleHandlerIsDroppedAfterRestart) {
  StoppedHub stopped(1);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  stopped.hub.onHubUnregistered();
  ASSERT_EQ(stopped.hub.registerHandler(6, h.handler()), 0);
  ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(2, 5)), 0);
  ASSERT_TRUE(h.count.waitFor(1));
  stopped.hub.onHubUnregistered();
  const auto calls = h.snapshot();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].source, 2);
}

TEST_F(EventHubTest, EmptyHandlerConsumesMatchingEventsWithoutACall) {
  StoppedHub stopped(1);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(5, EventHandler()), 0);
  ASSERT_EQ(stopped.hub.registerHandler(6, h.handler()), 0);
  std::shared_ptr<BrowserEvent> consumed = eventFrom(2, 5);
  EXPECT_EQ(stopped.hub.receiveEvent(consumed), 0);
  EXPECT_EQ(stopped.hub.receiveEvent(eventFrom(2, 6)), 0);
  ASSERT_TRUE(h.count.waitFor(1));
  EXPECT_EQ(consumed.use_count(), 1);  // popped and released before the next event ran
  const auto calls = h.snapshot();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].type, 6);
}

TEST_F(EventHubTest, HandlerThreadBodyWithoutHubLogsParamIsNull) {
  EventHubImpl::handleEventTask(nullptr);
  EXPECT_TRUE(LoggedOnce(kLogError,
                         eventLine("event_hub.cpp", 196, "handleEventTask", "Param is NULL.\n")));
  EXPECT_EQ(LogCapture::entries().size(), 1u);
}

TEST_F(EventHubTest, ModuleIdIsTheConstructorArgument) {
  EventHub hub(-1);
  EXPECT_EQ(hub.moduleId(), -1);
  EventHub any(kAnyModule);
  EXPECT_EQ(any.moduleId(), kAnyModule);
}

TEST_F(EventHubTest, ConstructingAHubDoesNotRegisterItWithTheDispatcher) {
  StoppedHub stopped(5);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(7, h.handler()), 0);
  stopped.hub.onHubUnregistered();  // an accepted event would now stay queued
  std::shared_ptr<BrowserEvent> event = stopped.hub.createEvent(7);
  EXPECT_EQ(stopped.hub.sendEvent(event, 5), 0);
  EXPECT_EQ(event.use_count(), 1);

  ASSERT_EQ(velmora::base::event_dispatcher::evtdispch_register_hub(&stopped.hub), 0);
  EXPECT_EQ(stopped.hub.sendEvent(event, 5), 0);
  EXPECT_EQ(event.use_count(), 2);
  ASSERT_EQ(velmora::base::event_dispatcher::evtdispch_unregister_hub(&stopped.hub), 0);
}

TEST_F(EventHubTest, SendEventPassesTheEventOnWithItsSourceUnchanged) {
  StoppedHub receiver(2);
  EventHub sender(1);
  Calls h;
  ASSERT_EQ(receiver.hub.registerHandler(5, h.handler()), 0);
  ASSERT_EQ(velmora::base::event_dispatcher::evtdispch_register_hub(&receiver.hub), 0);
  EXPECT_EQ(sender.sendEvent(eventFrom(77, 5), 2), 0);
  ASSERT_TRUE(h.count.waitFor(1));
  EXPECT_EQ(h.snapshot()[0].source, 77);
  ASSERT_EQ(velmora::base::event_dispatcher::evtdispch_unregister_hub(&receiver.hub), 0);
}

// The error code of the std::system_error that fn throws, or 0 when it returns.
template <typename Function>
int systemErrorOf(Function fn) {
  try {
    fn();
  } catch (const std::system_error& error) {
    return error.code().value();
  }
  return 0;
}

TEST_F(EventHubTest, LockFailureAtRegistrationThrowsSystemErrorAndChangesNothing) {
  StoppedHub stopped(1);
  Calls h;
  t_failing_locks = 1;  // the first lock of the registration: the thread lock
  EXPECT_EQ(systemErrorOf([&] { stopped.hub.registerHandler(5, h.handler()); }), EINVAL);
  EXPECT_EQ(t_failing_locks, 0);

  EXPECT_EQ(stopped.hub.receiveEvent(eventFrom(2, 5)), -1) << "no handler was added";
  stopped.hub.onHubUnregistered();
  EXPECT_TRUE(LoggedOnce(kLogInfo, kNoThreadLine)) << "no thread was started";

  ASSERT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(2, 5)), 0);
  EXPECT_TRUE(h.count.waitFor(1));
}

TEST_F(EventHubTest, LockFailureAtUnregistrationThrowsSystemErrorAndLeavesTheThreadRunning) {
  StoppedHub stopped(1);
  Calls h;
  ASSERT_EQ(stopped.hub.registerHandler(5, h.handler()), 0);
  t_failing_locks = 1;  // the first lock of the unregistration: the thread lock
  EXPECT_EQ(systemErrorOf([&] { stopped.hub.onHubUnregistered(); }), EINVAL);
  EXPECT_EQ(t_failing_locks, 0);

  ASSERT_EQ(stopped.hub.receiveEvent(eventFrom(2, 5)), 0);
  EXPECT_TRUE(h.count.waitFor(1)) << "the handler thread still runs";
  EXPECT_TRUE(NotLogged(kNoThreadLine));
}

using EventHubDeathTest = EventHubTest;

TEST_F(EventHubDeathTest, DestroyingAHubWhoseThreadRunsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        EventHub hub(1);
        hub.registerHandler(5, EventHandler());
      },
      "");
}

TEST_F(EventHubDeathTest, AHandlerThatThrowsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        EventHub hub(1);
        Gate never;
        hub.registerHandler(
            5, [](std::shared_ptr<BrowserEvent>) { throw std::runtime_error("handler failed"); });
        hub.receiveEvent(eventFrom(2, 5));
        never.waitOpen(std::chrono::seconds(60));
        hub.onHubUnregistered();
      },
      "");
}

}  // namespace
