// The process-wide event dispatcher and its free-function shortcuts.
#include "base/event_dispatcher/event_dispatcher.h"

#include <algorithm>
#include <utility>

#include "base/logging.h"
#include "event_delivery.h"

// Every line of the event files carries the tag "EventDispatcher" and a fixed line number.
#define EVENT_LOG(level, line, format, ...) \
  VELMORA_LOG_FULL("EventDispatcher", level, line, __func__, format, ##__VA_ARGS__)

namespace velmora {
namespace base {

template class Singleton<event_dispatcher::EventDispatcher,
                         DefaultSingletonTraits<event_dispatcher::EventDispatcher>,
                         event_dispatcher::EventDispatcher>;

namespace event_dispatcher {

EventDispatcher::EventDispatcher() {
  EVENT_LOG(kLogCritical, 74, "Create EventDispatcher.\n");
}

EventDispatcher* EventDispatcher::GetInstance() {
  return Singleton<EventDispatcher, DefaultSingletonTraits<EventDispatcher>,
                   EventDispatcher>::get();
}

EventDispatcher* EventDispatcher::getInstance() {
  return GetInstance();
}

int EventDispatcher::registerHub(EventHub* p_hub) {
  if (p_hub == nullptr) {
    EVENT_LOG(kLogError, 81, "p_hub is NULL.\n");
    return -1;
  }
  EVENT_LOG(kLogInfo, 85, "Register hub:%p.\n", static_cast<void*>(p_hub));
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (std::find(m_hubs.begin(), m_hubs.end(), p_hub) != m_hubs.end()) {
      EVENT_LOG(kLogError, 93, "EventHub:%p already exists.\n", static_cast<void*>(p_hub));
      return -1;
    }
    m_hubs.push_back(p_hub);
  }
  p_hub->onHubRegistered();
  return 0;
}

int EventDispatcher::unregisterHub(EventHub* p_hub) {
  if (p_hub == nullptr) {
    EVENT_LOG(kLogError, 109, "p_hub is NULL.\n");
    return -1;
  }
  EVENT_LOG(kLogInfo, 113, "UnRegister hub:%p.\n", static_cast<void*>(p_hub));
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = std::find(m_hubs.begin(), m_hubs.end(), p_hub);
    if (found == m_hubs.end()) {
      return 0;
    }
    m_hubs.erase(found);
  }
  // Outside the mutex: this joins the hub's handler thread, which must not block senders.
  p_hub->onHubUnregistered();
  return 0;
}

int EventDispatcher::send(std::shared_ptr<BrowserEvent> event, int destModuleId) {
  std::lock_guard<std::mutex> lock(m_mutex);
  EventDelivery::deliver(m_hubs.cbegin(), m_hubs.cend(), event, destModuleId);
  return 0;
}

int evtdispch_register_hub(EventHub* hub) {
  return EventDispatcher::getInstance()->registerHub(hub);
}

int evtdispch_unregister_hub(EventHub* hub) {
  return EventDispatcher::getInstance()->unregisterHub(hub);
}

int evtdispch_send_event(std::shared_ptr<BrowserEvent> event, int destModuleId) {
  return EventDispatcher::getInstance()->send(std::move(event), destModuleId);
}

}  // namespace event_dispatcher
}  // namespace base
}  // namespace velmora
