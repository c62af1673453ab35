// Hubs unregistered while other hubs send, under load: every event sent to a hub that stays is
// handled exactly once and in send order per sender; a hub that leaves gets exactly the events
// whose send began before its unregistration ended, and none is handled once it has returned.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/event_dispatcher/event_hub.h"
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
using velmora::testing::Gate;
using velmora::testing::WaitableCount;

constexpr int kType = 17;
constexpr int kDrainType = 18;
constexpr int kStaying = 3;  // hubs 1..3, which also send
constexpr int kLeaving = 4;  // hubs 11..14
constexpr int kUnregisteringThreads = 2;
constexpr int kHubsPerUnregisteringThread = kLeaving / kUnregisteringThreads;
constexpr int kSenders = 4;
constexpr int kPerSender = 5000;  // 20,000 events in all
constexpr int kSlots = kStaying + kLeaving + 1;

// Who sent an event and its number in that sender's sequence.
class SequenceParam : public EventParam {
 public:
  SequenceParam(int sender, int sequence) : sender_(sender), sequence_(sequence) {}
  int sender() const { return sender_; }
  int sequence() const { return sequence_; }

 private:
  int sender_;
  int sequence_;
};

int hubIdOf(int slot) {
  return slot < kStaying ? slot + 1 : 11 + (slot - kStaying);
}

// Event i of a sender goes to one hub in turn, or to every hub.
int destinationOf(int sender, int sequence) {
  const int slot = (sender + sequence) % kSlots;
  return slot == kSlots - 1 ? kAnyModule : hubIdOf(slot);
}

// The sequence numbers of a sender's events that address a hub, in send order.
std::vector<int> addressedTo(int hubId, int sender) {
  std::vector<int> sequences;
  for (int i = 0; i < kPerSender; ++i) {
    const int destination = destinationOf(sender, i);
    if (destination == kAnyModule || destination == hubId) {
      sequences.push_back(i);
    }
  }
  return sequences;
}

// A registered hub that records, per sender, the sequence numbers its handler saw.
class RecordingHub {
 public:
  explicit RecordingHub(int id) : hub(id) {}

  void start() {
    ASSERT_EQ(
        hub.registerHandler(kType, [this](std::shared_ptr<BrowserEvent> event) { record(*event); }),
        0);
    ASSERT_EQ(evtdispch_register_hub(&hub), 0);
  }

  // Unregisters the hub; from its return on, a handler call is a failure until drain().
  void leave() {
    ASSERT_EQ(evtdispch_unregister_hub(&hub), 0);
    unregistered_.store(true);
  }

  // Restarts the stopped hub's thread, which handles the events still queued at the stop, and
  // waits until it has: a last event queued behind them is handled after them.
  void drain() {
    draining_.store(true);
    WaitableCount drained;
    ASSERT_EQ(
        hub.registerHandler(kDrainType, [&](std::shared_ptr<BrowserEvent>) { drained.add(); }), 0);
    ASSERT_EQ(hub.receiveEvent(std::shared_ptr<BrowserEvent>(
                  new BrowserEvent(kAnyModule, kDrainType, new EventParam()))),
              0);
    EXPECT_TRUE(drained.waitFor(1));
    hub.onHubUnregistered();
  }

  std::vector<int> seenFrom(int sender) {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_[sender];
  }
  int handledAfterUnregistration() const { return late_.load(); }

  EventHub hub;
  WaitableCount handled;

 private:
  void record(const BrowserEvent& event) {
    if (unregistered_.load() && !draining_.load()) {
      late_.fetch_add(1);
    }
    const auto* param = static_cast<const SequenceParam*>(event.param());
    {
      std::lock_guard<std::mutex> lock(mutex_);
      seen_[param->sender()].push_back(param->sequence());
    }
    handled.add();
  }

  std::mutex mutex_;
  std::vector<int> seen_[kSenders];  // guarded by mutex_
  std::atomic<bool> unregistered_{false};
  std::atomic<bool> draining_{false};
  std::atomic<int> late_{0};
};

// What an unregistering thread saw of the senders' progress around one unregistration.
struct Departure {
  int hub = 0;
  int sent_before[kSenders] = {};  // sends that had returned when unregistering began
  int sent_after[kSenders] = {};   // sends that had returned when it had returned
};

class EventShutdownTest : public velmora::testing::LogCaptureTest {};

TEST_F(EventShutdownTest, HubsUnregisteredWhileOthersSendGetExactlyTheEventsSentBefore) {
  std::vector<std::unique_ptr<RecordingHub>> hubs;
  for (int slot = 0; slot < kStaying + kLeaving; ++slot) {
    hubs.emplace_back(new RecordingHub(hubIdOf(slot)));
    hubs.back()->start();
  }
  std::atomic<int> progress[kSenders] = {};
  std::atomic<int> total_sent{0};
  Gate first_departures;   // a third of the events sent
  Gate second_departures;  // two thirds
  Gate start;

  std::vector<std::thread> threads;
  for (int s = 0; s < kSenders; ++s) {
    threads.emplace_back([&, s] {
      EventHub& own = hubs[s % kStaying]->hub;
      start.waitOpen();
      for (int i = 0; i < kPerSender; ++i) {
        std::shared_ptr<BrowserEvent> event = own.createEvent(kType);
        event->setParam(new SequenceParam(s, i));
        own.sendEvent(std::move(event), destinationOf(s, i));
        progress[s].store(i + 1, std::memory_order_release);
        const int sent = total_sent.fetch_add(1) + 1;
        if (sent == kSenders * kPerSender / 3) {
          first_departures.open();
        } else if (sent == 2 * kSenders * kPerSender / 3) {
          second_departures.open();
        }
      }
    });
  }
  std::vector<Departure> departures(kLeaving);
  for (int u = 0; u < kUnregisteringThreads; ++u) {
    threads.emplace_back([&, u] {
      for (int k = 0; k < kHubsPerUnregisteringThread; ++k) {
        (k == 0 ? first_departures : second_departures).waitOpen();
        const int leaving = u * kHubsPerUnregisteringThread + k;
        Departure& departure = departures[leaving];
        departure.hub = kStaying + leaving;
        for (int s = 0; s < kSenders; ++s) {
          departure.sent_before[s] = progress[s].load(std::memory_order_acquire);
        }
        hubs[departure.hub]->leave();
        for (int s = 0; s < kSenders; ++s) {
          departure.sent_after[s] = progress[s].load(std::memory_order_acquire);
        }
      }
    });
  }
  start.open();
  for (std::thread& thread : threads) {
    thread.join();
  }

  // The hubs that stay: every event addressed to them, once, in each sender's order.
  for (int slot = 0; slot < kStaying; ++slot) {
    RecordingHub& hub = *hubs[slot];
    int expected = 0;
    for (int s = 0; s < kSenders; ++s) {
      expected += static_cast<int>(addressedTo(hubIdOf(slot), s).size());
    }
    EXPECT_TRUE(hub.handled.waitFor(expected)) << "hub " << hubIdOf(slot);
    ASSERT_EQ(evtdispch_unregister_hub(&hub.hub), 0);
    EXPECT_EQ(hub.handled.value(), expected) << "hub " << hubIdOf(slot);
    for (int s = 0; s < kSenders; ++s) {
      EXPECT_EQ(hub.seenFrom(s), addressedTo(hubIdOf(slot), s))
          << "hub " << hubIdOf(slot) << ", sender " << s;
    }
  }

  // The hubs that left: none handled an event once unregistering had returned; what they had
  // accepted is each sender's events to them up to the unregistration, none lost, none twice,
  // none sent after it.
  for (const Departure& departure : departures) {
    RecordingHub& hub = *hubs[departure.hub];
    const int id = hubIdOf(departure.hub);
    EXPECT_EQ(hub.handledAfterUnregistration(), 0) << "hub " << id;
    hub.drain();
    for (int s = 0; s < kSenders; ++s) {
      const std::vector<int> addressed = addressedTo(id, s);
      const std::vector<int> seen = hub.seenFrom(s);
      ASSERT_LE(seen.size(), addressed.size()) << "hub " << id << ", sender " << s;
      EXPECT_TRUE(std::equal(seen.begin(), seen.end(), addressed.begin()))
          << "hub " << id << ", sender " << s << ": not the first events sent to it, in order";
      const int before = departure.sent_before[s];
      const int after = departure.sent_after[s];
      const int sent_before = static_cast<int>(
          std::count_if(addressed.begin(), addressed.end(), [&](int i) { return i < before; }));
      const int may_have_sent = static_cast<int>(
          std::count_if(addressed.begin(), addressed.end(), [&](int i) { return i <= after; }));
      EXPECT_GE(static_cast<int>(seen.size()), sent_before)
          << "hub " << id << ", sender " << s << ": lost an event sent before unregistering";
      EXPECT_LE(static_cast<int>(seen.size()), may_have_sent)
          << "hub " << id << ", sender " << s << ": got an event sent after unregistering";
    }
  }
}

}  // namespace
