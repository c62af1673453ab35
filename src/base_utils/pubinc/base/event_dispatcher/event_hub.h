// Event hub: a module's end of the event-dispatch service. Each module that takes part in
// cross-module events owns one EventHub; through it the module creates events, sends them via
// the process-wide EventDispatcher, and registers handlers, each for one event type and
// optionally one sending module. Handlers run on the hub's own handler thread, one at a time,
// in the order the events arrived, never on the sender's thread.
//
//   EventHub hub(kMyModuleId);
//   hub.registerHandler(kVolumeChanged, [](std::shared_ptr<BrowserEvent> e) { ... });
//   evtdispch_register_hub(&hub);
//   hub.sendEvent(hub.createEvent(kReady), kAnyModule);
//   ...
//   evtdispch_unregister_hub(&hub);  // stops and joins the handler thread
//
// Deliberate behaviour, kept as it is:
// - A handler entry {source, type} matches an event when the types are equal and the entry's
//   source is kAnyModule or equal to the event's source. The rule is one-sided: an event whose
//   source is kAnyModule only matches entries registered for kAnyModule.
// - Only the first matching entry (in registration order) handles an event. Registering a key
//   that an existing entry already covers is reported in the log and ignored, yet returns 0.
//   Registered handlers are never removed.
// - An empty std::function as the first match consumes matching events without a call.
// - The first handler registration starts the handler thread; unregistering the hub stops and
//   joins it. Events still queued then stay queued unhandled: they are released with the hub,
//   or handled once a later registerHandler starts a new thread.
// - ~EventHub does not stop the thread. Unregister the hub first, then destroy it: destroying a
//   hub whose handler thread still runs ends the process (a joinable std::thread is destroyed).
// - A handler that throws ends the process, and so does a handler that unregisters its own hub
//   (the handler thread cannot join itself).
#ifndef VELMORA_BASE_EVENT_DISPATCHER_EVENT_HUB_H
#define VELMORA_BASE_EVENT_DISPATCHER_EVENT_HUB_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "base/event_dispatcher/browser_event.h"
#include "base/export.h"

namespace velmora {
namespace base {
namespace event_dispatcher {

using EventHandler = std::function<void(std::shared_ptr<BrowserEvent>)>;

// The implementation behind an EventHub: handler table, event queue and handler thread.
class VELMORA_BASE_EXPORT EventHubImpl {
 public:
  // One entry of the handler table.
  struct InnerHandler_t {
    int srcModuleId;  // the sending module, or kAnyModule for events from any module
    int eventType;
    EventHandler handler;  // may be empty
  };

  EventHubImpl();
  ~EventHubImpl();

  // True when an entry matches the key's source and type; the key's handler is ignored.
  bool handlerExists(const InnerHandler_t& key);

  // Adds a handler for events of eventType from srcModuleId (kAnyModule: from any module) and
  // starts the handler thread if none runs. Always 0; a duplicate is only logged.
  int registerHandler(int srcModuleId, int eventType, EventHandler handler);
  // registerHandler(kAnyModule, eventType, handler).
  int registerHandler(int eventType, EventHandler handler);

  // Queues the event for the handler thread: 0, or -1 (silently) when no entry matches it.
  int receiveEvent(std::shared_ptr<BrowserEvent> event);

  // Stops and joins the handler thread, leaving queued events in the queue.
  void onUnregistered();

  // The handler thread's body.
  static void handleEventTask(EventHubImpl* self);

  EventHubImpl(const EventHubImpl&) = delete;
  EventHubImpl& operator=(const EventHubImpl&) = delete;

 private:
  std::mutex m_threadMutex;
  std::atomic<bool> m_exitThread;
  std::shared_ptr<std::thread> m_thread;  // read and written through std::atomic_load/store
  std::mutex m_queueMutex;
  std::condition_variable m_queueCond;
  std::queue<std::shared_ptr<BrowserEvent>> m_eventQueue;
  std::mutex m_handlerMutex;
  std::vector<InnerHandler_t> m_handlers;
};

// A module's hub: a thin handle holding its module id and its implementation.
class VELMORA_BASE_EXPORT EventHub {
 public:
  // Does not register the hub with the dispatcher; use evtdispch_register_hub for that.
  explicit EventHub(int moduleId);
  // Drops the implementation only: neither unregisters the hub nor stops its thread.
  ~EventHub();

  int moduleId();

  // A new event from this module with a default EventParam; empty if memory runs out.
  std::shared_ptr<BrowserEvent> createEvent(int eventType);

  // Sends through the dispatcher to every hub of destModuleId, or to every hub for kAnyModule
  // (this one included). The event's source is not rewritten.
  int sendEvent(std::shared_ptr<BrowserEvent> event, int destModuleId);

  // Handles events of eventType from any module. -1 if the hub has no implementation.
  int registerHandler(int eventType, EventHandler handler);
  // Handles events of eventType from srcModuleId only. -1 if the hub has no implementation.
  int registerHandler(int srcModuleId, int eventType, EventHandler handler);

  // Called by the dispatcher once the hub is registered; does nothing.
  void onHubRegistered();
  // Called by the dispatcher once the hub is unregistered; stops and joins the handler thread.
  void onHubUnregistered();
  // Called by the dispatcher for an event addressed to this hub: 0 queued, -1 refused.
  int receiveEvent(std::shared_ptr<BrowserEvent> event);

  // Hubs are registered by address: a copy would be a second hub sharing one thread.
  EventHub(const EventHub&) = delete;
  EventHub& operator=(const EventHub&) = delete;

 private:
  std::shared_ptr<EventHubImpl> m_impl;
  int m_moduleId;
};

}  // namespace event_dispatcher
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_EVENT_DISPATCHER_EVENT_HUB_H
