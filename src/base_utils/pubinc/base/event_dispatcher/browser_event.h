/// @file
/// Browser events: the one record that crosses module borders. A module creates an event through
/// its EventHub (EventHub::createEvent), optionally attaches its own payload derived from
/// EventParam, and sends it; every receiving hub hands the same object to its handler.
///
///     std::shared_ptr<BrowserEvent> event = hub.createEvent(kPlaybackStarted);
///     event->setParam(new PlaybackParam(url));  // the event now owns the payload
///     hub.sendEvent(event, kAnyModule);
///
/// Events are only ever held through `std::shared_ptr<BrowserEvent>` and never copied: an event
/// owns its parameter and deletes it through EventParam's virtual destructor. Handlers on
/// several hubs may hold one event at once, so they treat it as read-only (an event is not
/// locked internally). An event is destroyed, with its parameter, on whichever thread drops the
/// last reference, typically a hub's handler thread after the handler returns.
///
/// Both classes are defined entirely here; the library never asks an event or a parameter for
/// its dynamic type.
#ifndef VELMORA_BASE_EVENT_DISPATCHER_BROWSER_EVENT_H
#define VELMORA_BASE_EVENT_DISPATCHER_BROWSER_EVENT_H

#include <climits>

#include "base/export.h"

namespace velmora {
namespace base {
namespace event_dispatcher {

/// Any module (-2147483648, the smallest int): the broadcast destination of EventHub::sendEvent
/// and EventDispatcher::send, the wildcard source of a handler, and both fields of a hub's
/// internal wake-up event. Never a real module id.
constexpr int kAnyModule = INT_MIN;

/// Base class of event payloads. Modules derive their own parameter classes from it; an event
/// made by EventHub::createEvent carries a plain EventParam until the sender attaches another.
class VELMORA_BASE_EXPORT EventParam {
 public:
  /// An empty payload.
  EventParam() = default;
  /// Does nothing here; virtual so that an event can delete a payload of any derived type.
  virtual ~EventParam() {}

  /// A payload's own type tag for modules that want one; the library never asks. 0 here.
  virtual int paramType() const { return 0; }
};

/// The event record: who sent it, what kind it is, and its owned payload.
class VELMORA_BASE_EXPORT BrowserEvent {
 public:
  /// Stores the sending module's id, the event type and the payload, and takes ownership of
  /// param (which may be null; events made by the library always carry one).
  BrowserEvent(int srcModuleId, int eventType, EventParam* param)
      : m_srcModuleId(srcModuleId), m_eventType(eventType), m_param(param) {}
  /// Deletes the payload, if any, through EventParam's virtual destructor.
  virtual ~BrowserEvent() { delete m_param; }

  /// The module id of the hub that created the event; matched against a handler's source filter.
  int srcModuleId() const { return m_srcModuleId; }
  /// The kind of event; matched against a handler's event type.
  int eventType() const { return m_eventType; }
  /// The payload, still owned by the event (null only if the event was built with null).
  EventParam* param() const { return m_param; }

  /// Attaches a payload: the event takes ownership and deletes the one it replaces. Setting the
  /// payload the event already holds does nothing.
  void setParam(EventParam* param) {
    if (param == m_param) {
      return;
    }
    delete m_param;
    m_param = param;
  }

  /// A copy would delete the parameter twice; events are shared, never copied.
  BrowserEvent(const BrowserEvent&) = delete;
  /// Not assignable, for the same reason.
  BrowserEvent& operator=(const BrowserEvent&) = delete;

 private:
  int m_srcModuleId;
  int m_eventType;
  EventParam* m_param;
};

}  // namespace event_dispatcher
}  // namespace base
}  // namespace velmora

#endif  // VELMORA_BASE_EVENT_DISPATCHER_BROWSER_EVENT_H
