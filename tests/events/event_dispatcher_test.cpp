#include "base/event_dispatcher/event_dispatcher.h"

#include <pthread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_hub.h"
#include "base/logging.h"
#include "base/singleton.h"
#include "event_test_support.h"
#include "interpose.h"
#include "log_capture.h"

using velmora::testing::WaitableCount;

namespace {

// The mutex operations of the one thread that records them, in order.
struct MutexOp {
  bool lock;
  const void* mutex;
};
constexpr int kMaxOps = 256;
MutexOp g_ops[kMaxOps];
int g_op_count = 0;
thread_local bool t_recording = false;

void recordOp(bool lock, const void* mutex) {
  if (t_recording && g_op_count < kMaxOps) {
    g_ops[g_op_count++] = {lock, mutex};
  }
}

// Counts the joins begun, so a test knows that an unregistration is waiting for a thread.
WaitableCount g_joins_begun;

}  // namespace

extern "C" {
int pthread_mutex_lock(pthread_mutex_t* mutex) {
  recordOp(true, mutex);
  return VELMORA_REAL(pthread_mutex_lock)(mutex);
}
int pthread_mutex_unlock(pthread_mutex_t* mutex) {
  recordOp(false, mutex);
  return VELMORA_REAL(pthread_mutex_unlock)(mutex);
}
int pthread_join(pthread_t thread, void** result) {
  g_joins_begun.add();
  return VELMORA_REAL(pthread_join)(thread, result);
}
}

namespace {

using velmora::base::kLogCritical;
using velmora::base::kLogError;
using velmora::base::kLogInfo;
using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventDispatcher;
using velmora::base::event_dispatcher::EventHandler;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::EventParam;
using velmora::base::event_dispatcher::evtdispch_register_hub;
using velmora::base::event_dispatcher::evtdispch_send_event;
using velmora::base::event_dispatcher::evtdispch_unregister_hub;
using velmora::base::event_dispatcher::kAnyModule;
using velmora::testing::eventLine;
using velmora::testing::Gate;
using velmora::testing::LogCapture;
using velmora::testing::LoggedOnce;
using velmora::testing::NotLogged;
using velmora::testing::pointerText;

const std::string kNoThreadLine = eventLine("event_hub.cpp", 144, "onUnregistered",
                                            "Didn't create thread, so need not destroy thread.\n");

std::string registerLine(const EventHub* hub) {
  return eventLine("event_dispatcher.cpp", 85, "registerHub",
                   "Register hub:" + pointerText(hub) + ".\n");
}
std::string unregisterLine(const EventHub* hub) {
  return eventLine("event_dispatcher.cpp", 113, "unregisterHub",
                   "UnRegister hub:" + pointerText(hub) + ".\n");
}

std::shared_ptr<BrowserEvent> eventFrom(int source, int type) {
  return std::shared_ptr<BrowserEvent>(new BrowserEvent(source, type, new EventParam()));
}

// A registered hub with a counting handler for every type in use; unregistered at the end.
class RegisteredHub {
 public:
  explicit RegisteredHub(int moduleId) : hub(moduleId) {
    hub.registerHandler(5, [this](std::shared_ptr<BrowserEvent>) { handled.add(); });
    evtdispch_register_hub(&hub);
  }
  ~RegisteredHub() { evtdispch_unregister_hub(&hub); }
  EventHub hub;
  WaitableCount handled;
};

// The mutexes one hub takes while accepting an event: its table mutex, then its queue mutex.
std::vector<const void*> acceptanceMutexes(EventHub& hub) {
  g_op_count = 0;
  t_recording = true;
  hub.receiveEvent(eventFrom(1, 5));
  t_recording = false;
  std::vector<const void*> locked;
  for (int i = 0; i < g_op_count; ++i) {
    if (g_ops[i].lock) {
      locked.push_back(g_ops[i].mutex);
    }
  }
  return locked;
}

// Records the mutex operations of one send on this thread.
std::vector<MutexOp> recordSend(int destModuleId) {
  g_op_count = 0;
  t_recording = true;
  EventDispatcher::getInstance()->send(eventFrom(1, 5), destModuleId);
  t_recording = false;
  return std::vector<MutexOp>(g_ops, g_ops + g_op_count);
}

// The expected operations of a send: under the dispatcher mutex, each offered hub's table
// lock/unlock and then its queue lock, never nested within a hub. The queue locks are kept until
// every hub has the event, so that a hub whose queue cannot grow lets the others take it back,
// and are released in reverse order.
std::vector<MutexOp> expectedDelivery(const std::vector<std::vector<const void*>>& offered,
                                      const void* dispatcher_mutex) {
  std::vector<MutexOp> ops;
  ops.push_back({true, dispatcher_mutex});
  for (const auto& hub_mutexes : offered) {
    ops.push_back({true, hub_mutexes[0]});
    ops.push_back({false, hub_mutexes[0]});
    ops.push_back({true, hub_mutexes[1]});
  }
  for (auto hub = offered.rbegin(); hub != offered.rend(); ++hub) {
    ops.push_back({false, (*hub)[1]});
  }
  ops.push_back({false, dispatcher_mutex});
  return ops;
}

void expectSameOps(const std::vector<MutexOp>& actual, const std::vector<MutexOp>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (size_t i = 0; i < actual.size(); ++i) {
    EXPECT_EQ(actual[i].lock, expected[i].lock) << "operation " << i;
    EXPECT_EQ(actual[i].mutex, expected[i].mutex) << "operation " << i;
  }
}

class EventDispatcherTest : public velmora::testing::LogCaptureTest {};

TEST_F(EventDispatcherTest, SendOffersTheEventToEveryHubOfTheModuleInRegistrationOrder) {
  RegisteredHub p(1);
  RegisteredHub q(2);
  RegisteredHub r(1);
  const auto p_mutexes = acceptanceMutexes(p.hub);
  const auto q_mutexes = acceptanceMutexes(q.hub);
  const auto r_mutexes = acceptanceMutexes(r.hub);
  ASSERT_EQ(p_mutexes.size(), 2u);
  ASSERT_EQ(q_mutexes.size(), 2u);
  ASSERT_EQ(r_mutexes.size(), 2u);

  const auto to_module_one = recordSend(1);
  ASSERT_FALSE(to_module_one.empty());
  const void* dispatcher_mutex = to_module_one.front().mutex;
  expectSameOps(to_module_one, expectedDelivery({p_mutexes, r_mutexes}, dispatcher_mutex));

  expectSameOps(recordSend(kAnyModule),
                expectedDelivery({p_mutexes, q_mutexes, r_mutexes}, dispatcher_mutex));
  expectSameOps(recordSend(3), expectedDelivery({}, dispatcher_mutex));

  // 3 direct deliveries, then two for module 1 and three broadcast ones.
  ASSERT_TRUE(p.handled.waitFor(3));
  ASSERT_TRUE(q.handled.waitFor(2));
  ASSERT_TRUE(r.handled.waitFor(3));
}

TEST_F(EventDispatcherTest, SendAlwaysReturnsZero) {
  EventDispatcher* dispatcher = EventDispatcher::getInstance();
  EXPECT_EQ(dispatcher->send(eventFrom(1, 5), 1), 0);  // no hub at all
  RegisteredHub p(1);
  EXPECT_EQ(dispatcher->send(eventFrom(1, 5), 3), 0);   // no hub of that module
  EXPECT_EQ(dispatcher->send(eventFrom(1, 99), 1), 0);  // the hub refuses it
  EXPECT_EQ(dispatcher->send(eventFrom(1, 5), 1), 0);
  ASSERT_TRUE(p.handled.waitFor(1));
}

TEST_F(EventDispatcherTest, ZeroAndMinusOneAreOrdinaryModuleIds) {
  EventHub zero(0);
  EventHub minus_one(-1);
  ASSERT_EQ(zero.registerHandler(5, EventHandler()), 0);
  ASSERT_EQ(minus_one.registerHandler(5, EventHandler()), 0);
  zero.onHubUnregistered();  // stopped: accepted events stay queued and countable
  minus_one.onHubUnregistered();
  ASSERT_EQ(evtdispch_register_hub(&zero), 0);
  ASSERT_EQ(evtdispch_register_hub(&minus_one), 0);

  std::shared_ptr<BrowserEvent> to_minus_one = eventFrom(1, 5);
  EXPECT_EQ(evtdispch_send_event(to_minus_one, -1), 0);
  EXPECT_EQ(to_minus_one.use_count(), 2);  // one hub queued it
  std::shared_ptr<BrowserEvent> to_zero = eventFrom(1, 5);
  EXPECT_EQ(evtdispch_send_event(to_zero, 0), 0);
  EXPECT_EQ(to_zero.use_count(), 2);
  std::shared_ptr<BrowserEvent> to_all = eventFrom(1, 5);
  EXPECT_EQ(evtdispch_send_event(to_all, kAnyModule), 0);
  EXPECT_EQ(to_all.use_count(), 3);

  EXPECT_EQ(evtdispch_unregister_hub(&zero), 0);
  EXPECT_EQ(evtdispch_unregister_hub(&minus_one), 0);
}

TEST_F(EventDispatcherTest, RegisteringAHubTwiceReturnsZeroThenMinusOne) {
  EventHub hub(1);
  EXPECT_EQ(evtdispch_register_hub(&hub), 0);
  EXPECT_EQ(evtdispch_register_hub(&hub), -1);
  EXPECT_TRUE(
      LoggedOnce(kLogError, eventLine("event_dispatcher.cpp", 93, "registerHub",
                                      "EventHub:" + pointerText(&hub) + " already exists.\n")));
  EXPECT_EQ(LogCapture::count(kLogInfo, registerLine(&hub)), 2u);

  // The list holds the hub once: one unregistration removes it, the next finds nothing.
  EXPECT_EQ(evtdispch_unregister_hub(&hub), 0);
  EXPECT_TRUE(LoggedOnce(kLogInfo, kNoThreadLine));
  EXPECT_EQ(evtdispch_unregister_hub(&hub), 0);
  EXPECT_EQ(LogCapture::count(kNoThreadLine), 1u);
}

TEST_F(EventDispatcherTest, UnregisteringAnUnknownHubReturnsZeroWithoutCallingIt) {
  EventHub hub(1);
  EXPECT_EQ(evtdispch_unregister_hub(&hub), 0);
  EXPECT_TRUE(LoggedOnce(kLogInfo, unregisterLine(&hub)));
  EXPECT_TRUE(NotLogged(kNoThreadLine));        // onHubUnregistered would have written it
  EXPECT_EQ(LogCapture::entries().size(), 2u);  // creation of the dispatcher, the unregister line
}

TEST_F(EventDispatcherTest, UnregisteringARegisteredHubCallsItAfterRemovingIt) {
  EventHub hub(1);
  ASSERT_EQ(evtdispch_register_hub(&hub), 0);
  EXPECT_EQ(evtdispch_unregister_hub(&hub), 0);
  const auto entries = LogCapture::entries();
  ASSERT_EQ(entries.size(), 5u);
  EXPECT_EQ(entries[1].text, registerLine(&hub));
  EXPECT_EQ(entries[2].text, unregisterLine(&hub));
  EXPECT_EQ(entries[3].text, kNoThreadLine);
  EXPECT_EQ(entries[4].text,
            eventLine("event_hub.cpp", 145, "onUnregistered", "Exit onUnregistered.\n"));
}

TEST_F(EventDispatcherTest, NullHubIsRefusedByBothOperations) {
  EXPECT_EQ(evtdispch_register_hub(nullptr), -1);
  EXPECT_TRUE(LoggedOnce(kLogError,
                         eventLine("event_dispatcher.cpp", 81, "registerHub", "p_hub is NULL.\n")));
  EXPECT_EQ(evtdispch_unregister_hub(nullptr), -1);
  EXPECT_TRUE(LoggedOnce(
      kLogError, eventLine("event_dispatcher.cpp", 109, "unregisterHub", "p_hub is NULL.\n")));
  EXPECT_EQ(EventDispatcher::GetInstance()->registerHub(nullptr), -1);
  EXPECT_EQ(LogCapture::count("[EventDispatcher] event_dispatcher.cpp:81:registerHub(): "
                              "p_hub is NULL.\n"),
            2u);
}

TEST_F(EventDispatcherTest, BothAccessorsReturnTheOneInstanceCreatedOnce) {
  constexpr int kThreads = 8;
  std::vector<EventDispatcher*> seen(kThreads, nullptr);
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) {
        std::this_thread::yield();
      }
      seen[i] = (i % 2 == 0) ? EventDispatcher::GetInstance() : EventDispatcher::getInstance();
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  ASSERT_NE(seen[0], nullptr);
  for (EventDispatcher* instance : seen) {
    EXPECT_EQ(instance, seen[0]);
  }
  EXPECT_EQ(EventDispatcher::getInstance(), EventDispatcher::GetInstance());
  using DispatcherSingleton = velmora::base::Singleton<
      EventDispatcher, velmora::base::DefaultSingletonTraits<EventDispatcher>, EventDispatcher>;
  EXPECT_EQ(DispatcherSingleton::instance_, reinterpret_cast<intptr_t>(seen[0]));
  EXPECT_TRUE(LoggedOnce(kLogCritical, eventLine("event_dispatcher.cpp", 74, "EventDispatcher",
                                                 "Create EventDispatcher.\n")));
}

TEST_F(EventDispatcherTest, FreeFunctionsCreateTheDispatcherOnFirstUse) {
  EXPECT_EQ(evtdispch_send_event(eventFrom(1, 5), kAnyModule), 0);
  EXPECT_TRUE(LoggedOnce(kLogCritical, eventLine("event_dispatcher.cpp", 74, "EventDispatcher",
                                                 "Create EventDispatcher.\n")));
}

TEST_F(EventDispatcherTest, UnregisteringJoinsOutsideTheMutexSoOtherSendsGoOn) {
  EventHub blocked(1);
  Gate release;
  WaitableCount entered;
  ASSERT_EQ(blocked.registerHandler(5,
                                    [&](std::shared_ptr<BrowserEvent>) {
                                      entered.add();
                                      release.waitOpen();
                                    }),
            0);
  ASSERT_EQ(evtdispch_register_hub(&blocked), 0);
  RegisteredHub other(2);
  ASSERT_EQ(evtdispch_send_event(eventFrom(9, 5), 1), 0);
  ASSERT_TRUE(entered.waitFor(1));

  const int joins_before = g_joins_begun.value();
  std::thread unregistering([&] { evtdispch_unregister_hub(&blocked); });
  ASSERT_TRUE(g_joins_begun.waitFor(joins_before + 1));
  EXPECT_EQ(evtdispch_send_event(eventFrom(9, 5), 2), 0);
  EXPECT_TRUE(other.handled.waitFor(1));
  release.open();
  unregistering.join();
}

}  // namespace
