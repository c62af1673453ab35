// Browser events, the event hub and its handler thread.
#include "base/event_dispatcher/event_hub.h"

#include <exception>
#include <new>
#include <utility>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/logging.h"

// Every line of the event files carries the tag "EventDispatcher" and a fixed line number.
#define EVENT_LOG(level, line, format, ...) \
  VELMORA_LOG_FULL("EventDispatcher", level, line, __func__, format, ##__VA_ARGS__)

namespace velmora {
namespace base {
namespace event_dispatcher {
namespace {

// Builds an event with a default parameter. The two objects are allocated without throwing:
// when either allocation fails the result is empty (no control block either) and nothing is
// leaked. Only a failure to allocate the shared control block throws, after the event and its
// parameter have been freed.
std::shared_ptr<BrowserEvent> createEventRecord(int srcModuleId, int eventType) {
  EventParam* param = new (std::nothrow) EventParam();
  if (param == nullptr) {
    return nullptr;
  }
  BrowserEvent* event = new (std::nothrow) BrowserEvent(srcModuleId, eventType, param);
  if (event == nullptr) {
    delete param;
    return nullptr;
  }
  return std::shared_ptr<BrowserEvent>(event);
}

// The one-sided matching rule: a wildcard entry takes every source, a wildcard key only
// wildcard entries.
bool entryMatches(const EventHubImpl::InnerHandler_t& entry, int srcModuleId, int eventType) {
  return entry.eventType == eventType &&
         (entry.srcModuleId == kAnyModule || entry.srcModuleId == srcModuleId);
}

// The first entry in registration order that matches, or null.
const EventHubImpl::InnerHandler_t* firstMatch(
    const std::vector<EventHubImpl::InnerHandler_t>& handlers, int srcModuleId, int eventType) {
  for (const EventHubImpl::InnerHandler_t& entry : handlers) {
    if (entryMatches(entry, srcModuleId, eventType)) {
      return &entry;
    }
  }
  return nullptr;
}

}  // namespace

EventHubImpl::EventHubImpl() : m_exitThread(false) {}

// A hub must be stopped before it goes. Destroying a running thread's std::thread ends the
// process; that is checked first, since destroying the condition variable the thread waits on
// (which happens earlier, in member order) would block for ever instead. Nothing else can reach
// the hub any more, so the thread pointer is read without its lock.
EventHubImpl::~EventHubImpl() {
  if (m_thread && m_thread->joinable()) {
    std::terminate();
  }
}

bool EventHubImpl::handlerExists(const InnerHandler_t& key) {
  std::lock_guard<std::mutex> lock(m_handlerMutex);
  return firstMatch(m_handlers, key.srcModuleId, key.eventType) != nullptr;
}

int EventHubImpl::registerHandler(int srcModuleId, int eventType, EventHandler handler) {
  InnerHandler_t entry{srcModuleId, eventType, handler};
  {
    // The thread pointer is only ever touched under this lock, so that a failing lock leaves
    // this call as std::system_error, as every other lock failure of the hub does.
    std::lock_guard<std::mutex> lock(m_threadMutex);
    if (!m_thread) {
      m_exitThread.store(false, std::memory_order_relaxed);
      std::thread* thread = new (std::nothrow) std::thread(handleEventTask, this);
      if (thread == nullptr) {
        EVENT_LOG(kLogError, 106, "Fail to create EventHandlerThread.\n");
      } else {
        m_thread.reset(thread);
      }
    }
  }
  if (handlerExists(entry)) {
    EVENT_LOG(kLogError, 114, "Event handler already exists.\n\n");
    return 0;
  }
  // Check and append are two steps: handlers are meant to be registered before their events
  // flow. The lock only keeps the append from racing with readers of the table.
  std::lock_guard<std::mutex> lock(m_handlerMutex);
  m_handlers.push_back(std::move(entry));
  return 0;
}

int EventHubImpl::registerHandler(int eventType, EventHandler handler) {
  return registerHandler(kAnyModule, eventType, std::move(handler));
}

int EventHubImpl::receiveEvent(std::shared_ptr<BrowserEvent> event) {
  const InnerHandler_t key{event->srcModuleId(), event->eventType(), EventHandler()};
  if (!handlerExists(key)) {
    return -1;
  }
  std::lock_guard<std::mutex> lock(m_queueMutex);
  m_eventQueue.push(std::move(event));
  m_queueCond.notify_all();
  return 0;
}

void EventHubImpl::onUnregistered() {
  std::shared_ptr<std::thread> thread;
  {
    std::lock_guard<std::mutex> lock(m_threadMutex);
    thread = m_thread;
  }
  if (!thread) {
    EVENT_LOG(kLogInfo, 144, "Didn't create thread, so need not destroy thread.\n");
    EVENT_LOG(kLogCritical, 145, "Exit onUnregistered.\n");
    return;
  }
  m_exitThread.store(true, std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    // A non-empty queue means the thread is not waiting: it sees the flag before its next pop.
    if (m_eventQueue.empty()) {
      m_eventQueue.push(createEventRecord(kAnyModule, kAnyModule));
      m_queueCond.notify_all();
    }
  }
  // Joined without the thread lock: the thread's handlers may register handlers themselves.
  thread->join();
  std::lock_guard<std::mutex> lock(m_threadMutex);
  m_thread.reset();
}

void EventHubImpl::handleEventTask(EventHubImpl* self) {
  if (self == nullptr) {
    EVENT_LOG(kLogError, 196, "Param is NULL.\n");
    return;
  }
  while (!self->m_exitThread.load(std::memory_order_relaxed)) {
    std::shared_ptr<BrowserEvent> event;
    {
      std::unique_lock<std::mutex> lock(self->m_queueMutex);
      while (self->m_eventQueue.empty()) {
        self->m_queueCond.wait(lock);
      }
      if (self->m_exitThread.load(std::memory_order_relaxed)) {
        return;
      }
      event = std::move(self->m_eventQueue.front());
      self->m_eventQueue.pop();
    }
    if (!event) {
      continue;
    }
    EventHandler handler;
    {
      std::lock_guard<std::mutex> lock(self->m_handlerMutex);
      const InnerHandler_t* entry =
          firstMatch(self->m_handlers, event->srcModuleId(), event->eventType());
      if (entry != nullptr) {
        handler = entry->handler;
      }
    }
    if (handler) {
      handler(event);
    }
  }
}

EventHub::EventHub(int moduleId) : m_impl(new (std::nothrow) EventHubImpl()), m_moduleId(moduleId) {
  if (!m_impl) {
    EVENT_LOG(kLogError, 260, "Fail to create EventHubImpl.\n");
  }
}

EventHub::~EventHub() = default;

int EventHub::moduleId() {
  return m_moduleId;
}

std::shared_ptr<BrowserEvent> EventHub::createEvent(int eventType) {
  return createEventRecord(m_moduleId, eventType);
}

int EventHub::sendEvent(std::shared_ptr<BrowserEvent> event, int destModuleId) {
  return evtdispch_send_event(std::move(event), destModuleId);
}

int EventHub::registerHandler(int eventType, EventHandler handler) {
  if (!m_impl) {
    EVENT_LOG(kLogError, 281, "m_impl is NULL.\n");
    return -1;
  }
  return m_impl->registerHandler(eventType, std::move(handler));
}

int EventHub::registerHandler(int srcModuleId, int eventType, EventHandler handler) {
  if (!m_impl) {
    EVENT_LOG(kLogError, 292, "m_impl is NULL.\n");
    return -1;
  }
  return m_impl->registerHandler(srcModuleId, eventType, std::move(handler));
}

void EventHub::onHubRegistered() {}

void EventHub::onHubUnregistered() {
  if (!m_impl) {
    EVENT_LOG(kLogError, 312, "m_impl is NULL.\n");
    return;
  }
  m_impl->onUnregistered();
}

int EventHub::receiveEvent(std::shared_ptr<BrowserEvent> event) {
  if (!m_impl) {
    EVENT_LOG(kLogError, 323, "m_impl is NULL.\n");
    return -1;
  }
  return m_impl->receiveEvent(std::move(event));
}

}  // namespace event_dispatcher
}  // namespace base
}  // namespace velmora
