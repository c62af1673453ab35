// Event dispatch in the shell: three browser modules that talk through the EventDispatcher.
//
// Each module owns an EventHub registered with the dispatcher: the user interface (module 1),
// the HbbTV controller (module 2) and the media player (module 3). They pass directed events
// round a ring (a key press goes from the user interface to the HbbTV controller, a play
// request from there to the media player, playback progress from there back to the user
// interface), and every fourth event a module sends is a status broadcast to all modules. Each
// payload derives from EventParam and carries a sequence number and its send time, so a handler
// can measure the hand-off latency and check the order of arrival.
#ifndef BROWSER_SHELL_MODULE_EVENTS_H
#define BROWSER_SHELL_MODULE_EVENTS_H

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_hub.h"
#include "latency.h"

namespace browser_shell {

enum ModuleIndex { kUserInterface, kHbbtvController, kMediaPlayer, kModuleCount };

// The payload of every event the shell sends.
class ShellEventParam : public velmora::base::event_dispatcher::EventParam {
 public:
  static constexpr int kParamType = 0x5E11;

  ShellEventParam(int sequence, double sentAt) : sequence_(sequence), sentAt_(sentAt) {}
  int paramType() const override { return kParamType; }

  int sequence() const { return sequence_; }
  // Monotonic seconds just before sendEvent.
  double sentAt() const { return sentAt_; }

 private:
  int sequence_;
  double sentAt_;
};

class EventExchange {
 public:
  struct Counts {
    int sent;
    int handled;
    int expected;  // what the module must have handled once every event has arrived
  };

  // eventsPerModule: how many events each module sends.
  explicit EventExchange(int eventsPerModule);
  // Calls stop() if the hubs are still registered.
  ~EventExchange();

  EventExchange(const EventExchange&) = delete;
  EventExchange& operator=(const EventExchange&) = delete;

  // Creates the hubs, registers their handlers and registers them with the dispatcher.
  void start();
  // Every module sends its event number round (0 ... eventsPerModule - 1).
  void sendRound(int round);
  // Waits until every module has handled all it expects; false when the limit passed first.
  bool waitUntilAllHandled(std::chrono::milliseconds limit);
  // Unregisters the hubs (which joins their handler threads), then destroys them.
  void stop();

  static const char* moduleName(int module);
  Counts counts(int module) const;
  int handledTotal() const;
  int expectedTotal() const;
  int sentTotal() const;
  // Deliveries sent but not handled yet (a broadcast counts once per module that takes it).
  int inFlight() const;
  // Events whose payload was not a ShellEventParam, or arrived out of order.
  int badEventCount() const;
  const LatencyRecorder& latency() const { return latency_; }

 private:
  struct Module;

  void createModule(int module);
  void registerHandlers(int module);
  void onEvent(int module,
               const std::shared_ptr<velmora::base::event_dispatcher::BrowserEvent>& event);
  bool allHandledLocked() const;
  int expectedPerModule() const;

  const int eventsPerModule_;
  std::unique_ptr<Module> modules_[kModuleCount];
  bool started_ = false;

  mutable std::mutex mutex_;  // guards the counters below (handlers run on the hubs' threads)
  std::condition_variable allHandled_;
  int sent_[kModuleCount] = {};
  int handled_[kModuleCount] = {};
  int deliveriesSent_ = 0;
  int lastSequence_[kModuleCount][kModuleCount];  // [receiver][sender]
  int badEvents_ = 0;
  LatencyRecorder latency_;
};

}  // namespace browser_shell

#endif  // BROWSER_SHELL_MODULE_EVENTS_H
