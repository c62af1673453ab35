// Event dispatcher: the process-wide switchboard of cross-module events. It knows every
// registered EventHub and delivers a sent event to each hub of the destination module id, or to
// every hub for kAnyModule. Delivery runs on the sender's thread and only queues the event in
// each hub that has a matching handler; the handlers run later on the hubs' own threads.
//
//   evtdispch_register_hub(&hub);           // after creating the module's hub
//   evtdispch_send_event(event, kModuleB);  // what EventHub::sendEvent does
//   evtdispch_unregister_hub(&hub);         // before destroying it
//
// Hubs are identified by address, not by module id: two hubs with the same module id may both
// be registered and both receive events for that id. The dispatcher does not own the hubs and
// never drops one by itself, so a hub must be unregistered before it is destroyed. The
// dispatcher is created on first use and never destroyed.
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

class VELMORA_BASE_EXPORT EventDispatcher {
 public:
  // The one instance, created by the first caller.
  static EventDispatcher* GetInstance();
  // The same as GetInstance().
  static EventDispatcher* getInstance();

  // Adds a hub and calls its onHubRegistered: 0, or -1 for null or an already registered hub.
  int registerHub(EventHub* p_hub);
  // Removes a hub and calls its onHubUnregistered (which joins its handler thread): -1 for
  // null, otherwise 0, also for a hub that was not registered (then the hub is not called).
  int unregisterHub(EventHub* p_hub);
  // Offers the event to every registered hub of destModuleId (every hub for kAnyModule), in
  // registration order. Always 0, whether or not any hub took it.
  int send(std::shared_ptr<BrowserEvent> event, int destModuleId);

  EventDispatcher(const EventDispatcher&) = delete;
  EventDispatcher& operator=(const EventDispatcher&) = delete;

 private:
  friend struct DefaultSingletonTraits<EventDispatcher>;
  EventDispatcher();

  std::mutex m_mutex;  // guards m_hubs and is held across a whole delivery
  std::list<EventHub*> m_hubs;
};

// EventDispatcher::getInstance()->registerHub(hub).
VELMORA_BASE_EXPORT int evtdispch_register_hub(EventHub* hub);
// EventDispatcher::getInstance()->unregisterHub(hub).
VELMORA_BASE_EXPORT int evtdispch_unregister_hub(EventHub* hub);
// EventDispatcher::getInstance()->send(event, destModuleId).
VELMORA_BASE_EXPORT int evtdispch_send_event(std::shared_ptr<BrowserEvent> event, int destModuleId);

}  // namespace event_dispatcher

extern template class VELMORA_BASE_EXPORT Singleton<
    event_dispatcher::EventDispatcher, DefaultSingletonTraits<event_dispatcher::EventDispatcher>,
    event_dispatcher::EventDispatcher>;

}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_EVENT_DISPATCHER_EVENT_DISPATCHER_H
