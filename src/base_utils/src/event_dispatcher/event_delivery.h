// The dispatcher's delivery of one event to the hubs it addresses: all of them or none.
#ifndef VELMORA_BASE_SRC_EVENT_DISPATCHER_EVENT_DELIVERY_H
#define VELMORA_BASE_SRC_EVENT_DISPATCHER_EVENT_DELIVERY_H

#include <list>
#include <memory>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_hub.h"

namespace velmora {
namespace base {
namespace event_dispatcher {

// Queues an event in every addressed hub at once, so that running out of memory in one hub's
// queue takes it back from the hubs before it: a send either reaches every hub that takes the
// event or none of them.
//
// Locking: the caller holds the dispatcher's mutex, which serialises deliveries. A delivery
// keeps the queue lock of each hub it has queued the event in until it has queued it in all
// of them, and takes the next hub's table lock meanwhile. Nothing else holds a hub's lock while
// waiting for another hub's, so this cannot deadlock; a hub's thread waits for its queue lock
// only until the delivery ends.
class EventDelivery {
 public:
  using HubIterator = std::list<EventHub*>::const_iterator;

  // Queues event in each hub of [hub, end) whose module id is destModuleId (each hub for
  // kAnyModule) and that has a matching handler, then wakes their threads. A hub without an
  // implementation is offered the event through EventHub::receiveEvent, which logs that. Throws
  // std::bad_alloc with the event queued nowhere when a queue cannot grow.
  static void deliver(HubIterator hub, HubIterator end, const std::shared_ptr<BrowserEvent>& event,
                      int destModuleId);
};

}  // namespace event_dispatcher
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_SRC_EVENT_DISPATCHER_EVENT_DELIVERY_H
