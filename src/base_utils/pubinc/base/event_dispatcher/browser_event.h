// Browser events: the one record that crosses module borders. A module creates an event through
// its EventHub (EventHub::createEvent), optionally attaches its own payload derived from
// EventParam, and sends it; every receiving hub hands the same object to its handler.
//
//   std::shared_ptr<BrowserEvent> event = hub.createEvent(kPlaybackStarted);
//   event->setParam(new PlaybackParam(url));  // the event now owns the payload
//   hub.sendEvent(event, kAnyModule);
//
// Events are only ever held through std::shared_ptr<BrowserEvent> and never copied: an event
// owns its parameter and deletes it through EventParam's virtual destructor. Handlers on
// several hubs may hold one event at once, so they treat it as read-only.
#ifndef VELMORA_BASE_EVENT_DISPATCHER_BROWSER_EVENT_H
#define VELMORA_BASE_EVENT_DISPATCHER_BROWSER_EVENT_H

#include <climits>

#include "base/export.h"

namespace velmora {
namespace base {
namespace event_dispatcher {

// Any module: the broadcast destination, the wildcard source of a handler, and both fields of
// a hub's internal wake-up event. Never a real module id.
constexpr int kAnyModule = INT_MIN;

// Base class of event payloads. Modules derive their own parameter classes from it.
class VELMORA_BASE_EXPORT EventParam {
 public:
  EventParam() = default;
  virtual ~EventParam() {}

  // A payload's own type tag for modules that want one; the library never asks. 0 here.
  virtual int paramType() const { return 0; }
};

// The event record: who sent it, what kind it is, and its owned payload.
class VELMORA_BASE_EXPORT BrowserEvent {
 public:
  // Takes ownership of param (which may be null).
  BrowserEvent(int srcModuleId, int eventType, EventParam* param)
      : m_srcModuleId(srcModuleId), m_eventType(eventType), m_param(param) {}
  virtual ~BrowserEvent() { delete m_param; }

  // The module id of the hub that created the event.
  int srcModuleId() const { return m_srcModuleId; }
  int eventType() const { return m_eventType; }
  // The payload, still owned by the event.
  EventParam* param() const { return m_param; }

  // Attaches a payload: the event takes ownership and deletes the one it replaces.
  void setParam(EventParam* param) {
    if (param == m_param) {
      return;
    }
    delete m_param;
    m_param = param;
  }

  // A copy would delete the parameter twice; events are shared, never copied.
  BrowserEvent(const BrowserEvent&) = delete;
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
