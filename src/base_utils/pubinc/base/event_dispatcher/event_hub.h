/// @file
/// Event hub: a module's end of the event-dispatch service. Each module that takes part in
/// cross-module events owns one EventHub; through it the module creates events, sends them via
/// the process-wide EventDispatcher, and registers handlers, each for one event type and
/// optionally one sending module. Handlers run on the hub's own handler thread, one at a time,
/// in the order the events arrived, never on the sender's thread.
///
///     EventHub hub(kMyModuleId);
///     hub.registerHandler(kVolumeChanged, [](std::shared_ptr<BrowserEvent> e) { ... });
///     evtdispch_register_hub(&hub);
///     hub.sendEvent(hub.createEvent(kReady), kAnyModule);
///     ...
///     evtdispch_unregister_hub(&hub);  // stops and joins the handler thread
///
/// Deliberate behaviour, kept as it is:
/// - A handler entry {source, type} matches an event when the types are equal and the entry's
///   source is kAnyModule or equal to the event's source. The rule is one-sided: an event whose
///   source is kAnyModule only matches entries registered for kAnyModule.
/// - Only the first matching entry (in registration order) handles an event. Registering a key
///   that an existing entry already covers is reported in the log and ignored, yet returns 0.
///   Registered handlers are never removed.
/// - An empty std::function as the first match consumes matching events without a call.
/// - The first handler registration starts the handler thread; unregistering the hub stops and
///   joins it. Events still queued then stay queued unhandled: they are released with the hub,
///   or handled once a later registerHandler starts a new thread.
/// - ~EventHub does not stop the thread. Unregister the hub first, then destroy it: destroying a
///   hub whose handler thread still runs ends the process (a joinable std::thread is destroyed).
/// - A handler that throws ends the process, and so does a handler that unregisters its own hub
///   (the handler thread cannot join itself).
/// - Handlers run one at a time with no lock of the hub held, so a handler may register further
///   handlers and send events (to its own module too); a handler that blocks stalls every later
///   event of its hub.
/// - Registrations of one hub are serialised: two threads registering the same key at once add
///   it once. Register a module's handlers before events for them flow all the same: an event
///   is refused while no handler takes it.
///
/// Running out of memory: every operation either throws std::bad_alloc with the hub as it was
/// (nothing registered, queued or started), or has the outcome stated with it below (an empty
/// event from createEvent, a hub without implementation, a handler registered without a
/// thread). Stopping a hub's thread never fails for want of memory, and a handler thread that
/// cannot copy a handler keeps the event queued and tries again.
///
/// Log lines use the tag "EventDispatcher" and the source name event_hub.cpp; each message is
/// quoted below with its level and the line number its log line prints.
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

class EventDelivery;

/// The handler of an event: called on the hub's handler thread with the shared event.
using EventHandler = std::function<void(std::shared_ptr<BrowserEvent>)>;

/// The implementation behind an EventHub: handler table, event queue and handler thread.
/// Modules use EventHub; this class is public because EventHub holds it.
///
/// Lock order: m_threadMutex before m_handlerMutex; m_queueMutex is never held together with
/// either. No lock of the hub is held while a handler runs.
class VELMORA_BASE_EXPORT EventHubImpl {
 public:
  /// One entry of the handler table. An entry matches the key (source S, type T) when
  /// eventType == T and srcModuleId is kAnyModule or S.
  struct InnerHandler_t {
    int srcModuleId;       ///< the sending module, or kAnyModule for events from any module
    int eventType;         ///< the event type this entry takes
    EventHandler handler;  ///< may be empty: matching events are then consumed without a call
  };

  /// An empty handler table, an empty queue, no handler thread.
  EventHubImpl();
  /// Releases the table and any events still queued, unhandled. The handler thread must have
  /// been stopped (onUnregistered): destroying a running one ends the process.
  ~EventHubImpl();

  /// True when an entry matches the key's source and type (one-sided rule: a key whose source
  /// is kAnyModule only matches entries registered for kAnyModule); the key's handler is ignored.
  bool handlerExists(const InnerHandler_t& key);

  /// Adds a handler for events of eventType from srcModuleId (kAnyModule: from any module) and
  /// starts the handler thread if none runs. Returns 0 in every case that returns:
  /// - a key an existing entry already covers is not added and is logged as
  ///   `"Event handler already exists.\n\n"` (level 1000, line 114; the newline is doubled);
  /// - if memory runs out for the thread's std::thread object, `"Fail to create
  ///   EventHandlerThread.\n"` (level 1000, line 106) is logged and the handler is still
  ///   registered; the next registration tries to start the thread again;
  /// - if the thread cannot be created, std::thread's std::system_error propagates, and any
  ///   other failure for want of memory throws std::bad_alloc: nothing is registered or started;
  /// - a lock that cannot be taken throws std::system_error; when it is the first one, the
  ///   thread lock, nothing has changed.
  int registerHandler(int srcModuleId, int eventType, EventHandler handler);
  /// registerHandler(kAnyModule, eventType, handler).
  int registerHandler(int eventType, EventHandler handler);

  /// Queues the event for the handler thread and wakes it: 0, or -1 (nothing logged) when no
  /// entry matches the event's source and type. The event must not be empty. An event accepted
  /// while no thread runs waits until a later registerHandler starts one.
  int receiveEvent(std::shared_ptr<BrowserEvent> event);

  /// Stops and joins the handler thread, leaving queued events in the queue (with a wake-up
  /// event of source and type kAnyModule if the queue was empty). Without a thread it logs
  /// `"Didn't create thread, so need not destroy thread.\n"` (level 4000, line 144) and
  /// `"Exit onUnregistered.\n"` (level 1, line 145) and returns. Does not fail for want of
  /// memory: the wake-up event is then empty or not queued, and the thread ends all the same.
  /// A lock that cannot be taken throws std::system_error; when it is the first one, the thread
  /// lock, nothing has changed.
  void onUnregistered();

  /// The handler thread's body: pops events in arrival order and runs the first matching entry
  /// (registration order) for each, outside every lock, until onUnregistered asks it to end.
  /// An event leaves the queue once its handler has been copied; when memory runs out for the
  /// copy, it stays at the front and the copy is tried again a moment later.
  /// A null self logs `"Param is NULL.\n"` (level 1000, line 196) and returns.
  static void handleEventTask(EventHubImpl* self);

  /// Not copyable: the handler thread holds the address.
  EventHubImpl(const EventHubImpl&) = delete;
  /// Not assignable.
  EventHubImpl& operator=(const EventHubImpl&) = delete;

 private:
  friend class EventDelivery;

  std::mutex m_threadMutex;  // serialises registrations and guards the thread's creation
  std::atomic<bool> m_exitThread;
  std::shared_ptr<std::thread> m_thread;  // guarded by m_threadMutex
  std::mutex m_queueMutex;
  std::condition_variable m_queueCond;
  std::queue<std::shared_ptr<BrowserEvent>> m_eventQueue;  // guarded by m_queueMutex
  std::mutex m_handlerMutex;
  // Read under m_handlerMutex; changed under m_threadMutex and m_handlerMutex both.
  std::vector<InnerHandler_t> m_handlers;
};

/// A module's hub: a thin handle holding its module id and its implementation; see the file's
/// description for the life of a hub and its deliberate behaviour.
class VELMORA_BASE_EXPORT EventHub {
 public:
  /// Creates the implementation; if memory runs out for it, logs
  /// `"Fail to create EventHubImpl.\n"` (level 1000, line 260) and the hub refuses everything; if
  /// it runs out inside the implementation or for its control block, std::bad_alloc. Does not
  /// register the hub with the dispatcher; use evtdispch_register_hub for that.
  explicit EventHub(int moduleId);
  /// Drops the implementation only: neither unregisters the hub nor stops its thread.
  ~EventHub();

  /// The module id given at construction: the source of events this hub creates and the
  /// address the dispatcher matches.
  int moduleId();

  /// A new event from this module with a default EventParam. Empty if memory runs out for the
  /// parameter or the event; std::bad_alloc, with both freed, if it runs out for the shared
  /// pointer's control block.
  std::shared_ptr<BrowserEvent> createEvent(int eventType);

  /// Sends through the dispatcher (evtdispch_send_event) to every hub of destModuleId, or to
  /// every hub for kAnyModule (this one included). The event's source is not rewritten. Returns
  /// the dispatcher's result, always 0, whether or not any hub took the event; std::bad_alloc,
  /// with the event queued in no hub, when a hub's queue cannot grow.
  int sendEvent(std::shared_ptr<BrowserEvent> event, int destModuleId);

  /// Handles events of eventType from any module: EventHubImpl::registerHandler's result (0).
  /// Without an implementation logs `"m_impl is NULL.\n"` (level 1000, line 281), returns -1.
  int registerHandler(int eventType, EventHandler handler);
  /// Handles events of eventType from srcModuleId only: 0, or the `"m_impl is NULL.\n"` line
  /// (level 1000, line 292) and -1 without an implementation.
  int registerHandler(int srcModuleId, int eventType, EventHandler handler);

  /// Called by the dispatcher once the hub is registered; does nothing.
  void onHubRegistered();
  /// Called by the dispatcher once the hub is unregistered; stops and joins the handler thread
  /// (EventHubImpl::onUnregistered). Without an implementation logs `"m_impl is NULL.\n"`
  /// (level 1000, line 312).
  void onHubUnregistered();
  /// Called by the dispatcher for an event addressed to this hub: 0 queued, -1 refused (no
  /// matching handler, silently). Without an implementation logs `"m_impl is NULL.\n"`
  /// (level 1000, line 323) and returns -1.
  int receiveEvent(std::shared_ptr<BrowserEvent> event);

  /// Hubs are registered by address: a copy would be a second hub sharing one thread.
  EventHub(const EventHub&) = delete;
  /// Not assignable, for the same reason.
  EventHub& operator=(const EventHub&) = delete;

 private:
  friend class EventDelivery;

  std::shared_ptr<EventHubImpl> m_impl;
  int m_moduleId;
};

}  // namespace event_dispatcher
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_EVENT_DISPATCHER_EVENT_HUB_H
