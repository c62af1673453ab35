// Events end to end: modules with hubs registered at the dispatcher exchange events, under
// load too.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/event_dispatcher/event_hub.h"
#include "base/logging.h"
#include "event_test_support.h"
#include "log_capture.h"

namespace {

using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventHandler;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::EventParam;
using velmora::base::event_dispatcher::evtdispch_register_hub;
using velmora::base::event_dispatcher::evtdispch_unregister_hub;
using velmora::base::event_dispatcher::kAnyModule;
using velmora::testing::CountedParam;
using velmora::testing::Gate;
using velmora::testing::WaitableCount;

// A module: its hub, registered with the dispatcher for the test's duration.
class Module {
 public:
  explicit Module(int id) : hub(id) {}
  ~Module() { evtdispch_unregister_hub(&hub); }
  void join() { ASSERT_EQ(evtdispch_register_hub(&hub), 0); }
  EventHub hub;
};

// What one handler call saw.
struct Seen {
  int source = 0;
  int type = 0;
  int value = 0;
  int param_type = 0;
  std::thread::id thread;
};

// Collects handler calls and lets the test wait for them.
class Recorder {
 public:
  EventHandler handler() {
    return [this](std::shared_ptr<BrowserEvent> event) {
      Seen seen;
      seen.source = event->srcModuleId();
      seen.type = event->eventType();
      const CountedParam* param = dynamic_cast<const CountedParam*>(event->param());
      seen.value = param == nullptr ? -1 : param->value();
      seen.param_type = event->param() == nullptr ? -1 : event->param()->paramType();
      seen.thread = std::this_thread::get_id();
      {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(seen);
      }
      count.add();
    };
  }
  std::vector<Seen> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  WaitableCount count;

 private:
  std::mutex mutex_;
  std::vector<Seen> calls_;
};

constexpr int kTypeT = 17;

class EventFlowTest : public velmora::testing::LogCaptureTest {};

TEST_F(EventFlowTest, EventFromModuleAReachesTheHandlerOfModuleBOnBsThread) {
  Module a(1);
  Module b(2);
  a.join();
  b.join();
  Recorder b_handler;
  Recorder a_handler;
  ASSERT_EQ(b.hub.registerHandler(kTypeT, b_handler.handler()), 0);
  ASSERT_EQ(a.hub.registerHandler(kTypeT, a_handler.handler()), 0);

  // Find B's handler thread first, with an event of another type.
  Recorder probe;
  ASSERT_EQ(b.hub.registerHandler(kTypeT + 1, probe.handler()), 0);
  ASSERT_EQ(a.hub.sendEvent(a.hub.createEvent(kTypeT + 1), 2), 0);
  ASSERT_TRUE(probe.count.waitFor(1));

  std::shared_ptr<BrowserEvent> event = a.hub.createEvent(kTypeT);
  ASSERT_NE(event, nullptr);
  event->setParam(new CountedParam(1234, nullptr));
  ASSERT_EQ(a.hub.sendEvent(event, 2), 0);
  ASSERT_TRUE(b_handler.count.waitFor(1));

  const auto calls = b_handler.calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].source, 1);
  EXPECT_EQ(calls[0].type, kTypeT);
  EXPECT_EQ(calls[0].value, 1234);
  EXPECT_EQ(calls[0].param_type, 42);
  EXPECT_NE(calls[0].thread, std::this_thread::get_id());
  EXPECT_EQ(calls[0].thread, probe.calls()[0].thread);
  EXPECT_EQ(a_handler.count.value(), 0);  // addressed to B only
}

TEST_F(EventFlowTest, BroadcastReachesEveryHubWithAMatchingHandlerTheSendersOwnIncluded) {
  Module a(1);
  Module b(2);
  Module c(3);
  Module no_handler(4);
  a.join();
  b.join();
  c.join();
  no_handler.join();
  Recorder a_calls;
  Recorder b_calls;
  Recorder c_calls;
  Recorder other_type;
  ASSERT_EQ(a.hub.registerHandler(kTypeT, a_calls.handler()), 0);
  ASSERT_EQ(b.hub.registerHandler(kTypeT, b_calls.handler()), 0);
  ASSERT_EQ(c.hub.registerHandler(2, kTypeT, c_calls.handler()), 0);  // only from module 2
  ASSERT_EQ(no_handler.hub.registerHandler(kTypeT + 1, other_type.handler()), 0);

  std::shared_ptr<BrowserEvent> event = a.hub.createEvent(kTypeT);
  ASSERT_EQ(a.hub.sendEvent(event, kAnyModule), 0);
  ASSERT_TRUE(a_calls.count.waitFor(1));
  ASSERT_TRUE(b_calls.count.waitFor(1));
  ASSERT_EQ(b.hub.sendEvent(b.hub.createEvent(kTypeT), kAnyModule), 0);
  ASSERT_TRUE(a_calls.count.waitFor(2));
  ASSERT_TRUE(b_calls.count.waitFor(2));
  ASSERT_TRUE(c_calls.count.waitFor(1));

  evtdispch_unregister_hub(&a.hub);  // joins every thread: nothing else can arrive
  evtdispch_unregister_hub(&b.hub);
  evtdispch_unregister_hub(&c.hub);
  evtdispch_unregister_hub(&no_handler.hub);
  EXPECT_EQ(a_calls.calls().size(), 2u);
  EXPECT_EQ(b_calls.calls().size(), 2u);
  ASSERT_EQ(c_calls.calls().size(), 1u);  // the event from module 1 was refused
  EXPECT_EQ(c_calls.calls()[0].source, 2);
  EXPECT_EQ(other_type.count.value(), 0);
  EXPECT_EQ(a_calls.calls()[0].source, 1);  // the sender's own hub got its own event
}

TEST_F(EventFlowTest, TwoHubsWithTheSameModuleIdBothReceive) {
  Module first(5);
  Module second(5);
  Module sender(6);
  first.join();
  second.join();
  Recorder first_calls;
  Recorder second_calls;
  ASSERT_EQ(first.hub.registerHandler(kTypeT, first_calls.handler()), 0);
  ASSERT_EQ(second.hub.registerHandler(kTypeT, second_calls.handler()), 0);
  std::shared_ptr<BrowserEvent> event = sender.hub.createEvent(kTypeT);
  ASSERT_EQ(sender.hub.sendEvent(event, 5), 0);
  ASSERT_TRUE(first_calls.count.waitFor(1));
  ASSERT_TRUE(second_calls.count.waitFor(1));
  EXPECT_NE(first_calls.calls()[0].thread, second_calls.calls()[0].thread);
  EXPECT_EQ(first_calls.calls()[0].source, 6);
  EXPECT_EQ(second_calls.calls()[0].source, 6);
}

TEST_F(EventFlowTest, ADerivedParameterIsDestroyedOnceWhenTheLastHolderDropsTheEvent) {
  Module a(1);
  Module b(2);
  a.join();
  b.join();
  WaitableCount destroyed;
  Recorder a_calls;
  Recorder b_calls;
  ASSERT_EQ(a.hub.registerHandler(kTypeT, a_calls.handler()), 0);
  ASSERT_EQ(b.hub.registerHandler(kTypeT, b_calls.handler()), 0);

  std::shared_ptr<BrowserEvent> event = a.hub.createEvent(kTypeT);
  event->setParam(new CountedParam(7, &destroyed));
  ASSERT_EQ(a.hub.sendEvent(event, kAnyModule), 0);
  ASSERT_TRUE(a_calls.count.waitFor(1));
  ASSERT_TRUE(b_calls.count.waitFor(1));
  EXPECT_EQ(destroyed.value(), 0);  // the sender still holds it
  event.reset();
  ASSERT_TRUE(destroyed.waitFor(1));
  evtdispch_unregister_hub(&a.hub);
  evtdispch_unregister_hub(&b.hub);
  EXPECT_EQ(destroyed.value(), 1);
}

TEST_F(EventFlowTest, AHandlerRegistersAnotherHandlerAndSendsToItsOwnModule) {
  Module a(1);
  a.join();
  Recorder follow_up;
  WaitableCount first_done;
  ASSERT_EQ(
      a.hub.registerHandler(kTypeT,
                            [&](std::shared_ptr<BrowserEvent>) {
                              EXPECT_EQ(a.hub.registerHandler(kTypeT + 1, follow_up.handler()), 0);
                              std::shared_ptr<BrowserEvent> next = a.hub.createEvent(kTypeT + 1);
                              next->setParam(new CountedParam(99, nullptr));
                              EXPECT_EQ(a.hub.sendEvent(next, 1), 0);
                              first_done.add();
                            }),
      0);
  ASSERT_EQ(a.hub.sendEvent(a.hub.createEvent(kTypeT), 1), 0);
  ASSERT_TRUE(first_done.waitFor(1));
  ASSERT_TRUE(follow_up.count.waitFor(1));
  const auto calls = follow_up.calls();
  EXPECT_EQ(calls[0].source, 1);
  EXPECT_EQ(calls[0].value, 99);
}

TEST_F(EventFlowTest, HandlersOfOneHubRunInTheOrderTheEventsWereSent) {
  Module a(1);
  Module b(2);
  a.join();
  b.join();
  Recorder calls;
  ASSERT_EQ(b.hub.registerHandler(kTypeT, calls.handler()), 0);
  constexpr int kEvents = 1000;
  for (int i = 0; i < kEvents; ++i) {
    std::shared_ptr<BrowserEvent> event = a.hub.createEvent(kTypeT);
    event->setParam(new CountedParam(i, nullptr));
    ASSERT_EQ(a.hub.sendEvent(event, 2), 0);
  }
  ASSERT_TRUE(calls.count.waitFor(kEvents));
  const auto seen = calls.calls();
  ASSERT_EQ(seen.size(), static_cast<size_t>(kEvents));
  for (int i = 0; i < kEvents; ++i) {
    EXPECT_EQ(seen[i].value, i);
  }
}

// The payload of the load test: which sender sent it and its sequence number there.
class LoadParam : public EventParam {
 public:
  LoadParam(int sender, int sequence) : sender_(sender), sequence_(sequence) {}
  int sender() const { return sender_; }
  int sequence() const { return sequence_; }

 private:
  int sender_;
  int sequence_;
};

TEST_F(EventFlowTest, LoadEveryAcceptedEventIsHandledOnceAndInSendOrderPerSender) {
  constexpr int kHubs = 4;
  constexpr int kSenders = 4;
  constexpr int kPerSender = 12500;  // 50,000 events in all
  constexpr int kSenderModuleBase = 100;

  // Each hub counts, per sender and sequence, how often it ran a handler for the event, and
  // remembers the last sequence per sender to check the order. Hub 3 only takes events of
  // sender 1, so it refuses the others' events addressed to it.
  struct HubState {
    std::vector<std::vector<unsigned char>> handled =
        std::vector<std::vector<unsigned char>>(kSenders, std::vector<unsigned char>(kPerSender));
    std::vector<int> last = std::vector<int>(kSenders, -1);
    int out_of_order = 0;
  };
  // Event s/i goes to hub (s + i) % 5 + 1, where 5 means every hub.
  auto destination = [](int sender, int sequence) {
    const int slot = (sender + sequence) % (kHubs + 1);
    return slot == kHubs ? kAnyModule : slot + 1;
  };
  auto accepted_by = [&](int hub, int sender, int sequence) {
    const int dest = destination(sender, sequence);
    const bool addressed = dest == kAnyModule || dest == hub + 1;
    return addressed && (hub != 3 || sender == 1);
  };
  int expected_total = 0;
  for (int h = 0; h < kHubs; ++h) {
    for (int s = 0; s < kSenders; ++s) {
      for (int i = 0; i < kPerSender; ++i) {
        expected_total += accepted_by(h, s, i) ? 1 : 0;
      }
    }
  }

  std::vector<HubState> states(kHubs);
  std::vector<std::unique_ptr<Module>> hubs;
  std::atomic<int> total_handled{0};
  WaitableCount all_handled;  // reaches 1 when the last expected handler call is made
  for (int h = 0; h < kHubs; ++h) {
    hubs.emplace_back(new Module(h + 1));
    HubState* state = &states[h];
    EventHandler handler = [state, &total_handled, &all_handled,
                            expected_total](std::shared_ptr<BrowserEvent> event) {
      const LoadParam* param = static_cast<const LoadParam*>(event->param());
      state->handled[param->sender()][param->sequence()] += 1;
      if (param->sequence() <= state->last[param->sender()]) {
        ++state->out_of_order;
      }
      state->last[param->sender()] = param->sequence();
      if (total_handled.fetch_add(1) + 1 == expected_total) {
        all_handled.add();
      }
    };
    if (h == 3) {
      ASSERT_EQ(hubs[h]->hub.registerHandler(kSenderModuleBase + 1, kTypeT, handler), 0);
    } else {
      ASSERT_EQ(hubs[h]->hub.registerHandler(kTypeT, handler), 0);
    }
    hubs[h]->join();
  }

  Gate start;
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&, s] {
      EventHub own(kSenderModuleBase + s);  // never registered: it only creates and sends
      start.waitOpen();
      for (int i = 0; i < kPerSender; ++i) {
        std::shared_ptr<BrowserEvent> event = own.createEvent(kTypeT);
        event->setParam(new LoadParam(s, i));
        own.sendEvent(event, destination(s, i));
      }
    });
  }
  start.open();
  for (auto& sender : senders) {
    sender.join();
  }
  // Unregistering would leave queued events unhandled: wait for the last one first.
  EXPECT_TRUE(all_handled.waitFor(1, std::chrono::seconds(120)));
  for (auto& hub : hubs) {
    evtdispch_unregister_hub(&hub->hub);
  }
  ASSERT_EQ(total_handled.load(), expected_total);
  for (int h = 0; h < kHubs; ++h) {
    EXPECT_EQ(states[h].out_of_order, 0) << "hub " << h;
    int wrong = 0;
    for (int s = 0; s < kSenders; ++s) {
      for (int i = 0; i < kPerSender; ++i) {
        wrong += states[h].handled[s][i] != (accepted_by(h, s, i) ? 1 : 0) ? 1 : 0;
      }
    }
    EXPECT_EQ(wrong, 0) << "hub " << h;
  }
}

TEST_F(EventFlowTest, HubsComingAndGoingWhileOthersSendLoseNothingForTheStayingHub) {
  constexpr int kSenders = 2;
  constexpr int kPerSender = 5000;
  constexpr int kToggles = 200;
  Module staying(1);
  EventHub toggled(2);
  WaitableCount staying_handled;
  std::atomic<int> toggled_handled{0};
  ASSERT_EQ(staying.hub.registerHandler(
                kTypeT, [&](std::shared_ptr<BrowserEvent>) { staying_handled.add(); }),
            0);
  staying.join();
  EventHandler count_toggled = [&](std::shared_ptr<BrowserEvent>) { toggled_handled.fetch_add(1); };

  Gate start;
  std::vector<std::thread> threads;
  for (int s = 0; s < kSenders; ++s) {
    threads.emplace_back([&, s] {
      EventHub own(100 + s);
      start.waitOpen();
      for (int i = 0; i < kPerSender; ++i) {
        own.sendEvent(own.createEvent(kTypeT), kAnyModule);
      }
    });
  }
  threads.emplace_back([&] {
    start.waitOpen();
    for (int t = 0; t < kToggles; ++t) {
      // Registering the handler again is a logged duplicate, but restarts a stopped thread.
      toggled.registerHandler(kTypeT, count_toggled);
      evtdispch_register_hub(&toggled);
      evtdispch_unregister_hub(&toggled);
    }
  });
  start.open();
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(staying_handled.waitFor(kSenders * kPerSender));
  evtdispch_unregister_hub(&staying.hub);
  EXPECT_EQ(staying_handled.value(), kSenders * kPerSender);
  EXPECT_LE(toggled_handled.load(), kSenders * kPerSender);
  EXPECT_EQ(velmora::testing::LogCapture::count(
                velmora::base::kLogError,
                "[EventDispatcher] event_hub.cpp:114:registerHandler(): Event handler already "
                "exists.\n\n"),
            static_cast<size_t>(kToggles - 1));
}

}  // namespace
