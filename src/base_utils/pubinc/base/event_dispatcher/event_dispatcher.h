/// @file
/// Event dispatcher: the process-wide switchboard of cross-module events. It knows every
/// registered EventHub and delivers a sent event to each hub of the destination module id, or to
/// every hub for kAnyModule. Delivery runs on the sender's thread and only queues the event in
/// each hub that has a matching handler; the handlers run later on the hubs' own threads.
///
///     evtdispch_register_hub(&hub);           // after creating the module's hub
///     evtdispch_send_event(event, kModuleB);  // what EventHub::sendEvent does
///     evtdispch_unregister_hub(&hub);         // before destroying it
///
/// Hubs are identified by address, not by module id: two hubs with the same module id may both
/// be registered and both receive events for that id. The dispatcher does not own the hubs and
/// never drops one by itself, so a hub must be unregistered before it is destroyed. The
/// dispatcher is created on first use and never destroyed.
///
/// A delivery holds the dispatcher's mutex while it queues the event in every target hub, so a
/// send is atomic with respect to the hub list and two sends from different threads deliver in
/// one total order. The hubs are told of registration and unregistration after the mutex is
/// released, so joining a hub's thread does not block other senders. Log lines use the tag
/// "EventDispatcher" and the source name event_dispatcher.cpp; each message is quoted below with
/// its level and the line number its log line prints.
#ifndef VELMORA_BASE_EVENT_DISPATCHER_EVENT_DISPATCHER_H
#define VELMORA_BASE_EVENT_DISPATCHER_EVENT_DISPATCHER_H

#include <list>
#include <memory>
#include <mutex>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_hub.h"
#include "base/export.h"
#include "base/singleton.h"

namespace velmora {
namespace base {
namespace event_dispatcher {

/// The process-wide registry of hubs and router of events; see the file's description.
/// Constructing it logs `"Create EventDispatcher.\n"` (level 1, line 74), once per process.
class VELMORA_BASE_EXPORT EventDispatcher {
 public:
  /// The one instance, created by the first caller (concurrent first callers wait for it).
  static EventDispatcher* GetInstance();
  /// The same as GetInstance(); both names are part of the interface.
  static EventDispatcher* getInstance();

  /// Appends a hub and then calls its onHubRegistered: 0. Logs `"Register hub:%p.\n"` (level
  /// 4000, line 85) first. Returns -1 for null (`"p_hub is NULL.\n"`, level 1000, line 81) and
  /// for a hub already registered (`"EventHub:%p already exists.\n"`, level 1000, line 93;
  /// the hub is not called again). Throws std::bad_alloc, with the hub not registered, when
  /// memory runs out for the list.
  int registerHub(EventHub* p_hub);
  /// Removes a hub and then calls its onHubUnregistered (which joins its handler thread).
  /// Logs `"UnRegister hub:%p.\n"` (level 4000, line 113) first. Returns 0, also for a hub
  /// that was not registered (silently; then the hub is not called), and -1 for null with
  /// `"p_hub is NULL.\n"` (level 1000, line 109).
  int unregisterHub(EventHub* p_hub);
  /// Offers the event to every registered hub whose moduleId() is destModuleId (every hub for
  /// kAnyModule; 0 and -1 are ordinary ids), in registration order, without stopping at the
  /// first. Always 0, whether or not any hub took it; the event's source plays no part.
  /// All or nothing: when a hub's queue cannot grow, std::bad_alloc leaves with the event
  /// queued in no hub. While it queues the event, a send holds the queue lock of every hub it
  /// has queued it in, so the hubs' threads take it only once every hub has it.
  int send(std::shared_ptr<BrowserEvent> event, int destModuleId);

  /// Not copyable: there is one instance.
  EventDispatcher(const EventDispatcher&) = delete;
  /// Not assignable.
  EventDispatcher& operator=(const EventDispatcher&) = delete;

 private:
  friend struct DefaultSingletonTraits<EventDispatcher>;
  EventDispatcher();

  std::mutex m_mutex;  // guards m_hubs and is held across a whole delivery
  std::list<EventHub*> m_hubs;
};

/// EventDispatcher::getInstance()->registerHub(hub).
VELMORA_BASE_EXPORT int evtdispch_register_hub(EventHub* hub);
/// EventDispatcher::getInstance()->unregisterHub(hub).
VELMORA_BASE_EXPORT int evtdispch_unregister_hub(EventHub* hub);
/// EventDispatcher::getInstance()->send(event, destModuleId).
VELMORA_BASE_EXPORT int evtdispch_send_event(std::shared_ptr<BrowserEvent> event, int destModuleId);

}  // namespace event_dispatcher

extern template class VELMORA_BASE_EXPORT Singleton<
    event_dispatcher::EventDispatcher, DefaultSingletonTraits<event_dispatcher::EventDispatcher>,
    event_dispatcher::EventDispatcher>;

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_EVENT_DISPATCHER_EVENT_DISPATCHER_H
