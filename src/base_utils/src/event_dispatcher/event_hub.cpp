// Browser events, the event hub and its handler thread.
#include "base/event_dispatcher/event_hub.h"

#include <chrono>
#include <deque>
#include <exception>
#include <iterator>
#include <new>
#include <utility>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/logging.h"
#include "event_delivery.h"

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

// Grows the table's storage, if it is full, so that the next append cannot allocate. Throws
// std::bad_alloc with the table unchanged. The caller holds the table's lock.
void makeRoomForOneMoreHandler(std::vector<EventHubImpl::InnerHandler_t>& handlers) {
  if (handlers.size() == handlers.capacity()) {
    handlers.reserve(handlers.empty() ? 4 : 2 * handlers.size());
  }
}

// A handler thread's std::thread, owned and not yet running: null when the object itself cannot
// be allocated. Throws std::bad_alloc, with nothing left behind, when its control block cannot.
// Owning the object before the thread starts means that a running thread always has its owner.
std::shared_ptr<std::thread> newIdleThreadRecord() {
  std::thread* record = new (std::nothrow) std::thread();
  if (record == nullptr) {
    return nullptr;
  }
  return std::shared_ptr<std::thread>(record);
}

// The wake-up event that ends a handler thread's wait: empty when memory runs out, like an event
// of createEvent; the thread's exit flag ends the wait all the same.
std::shared_ptr<BrowserEvent> newWakeUpEvent() noexcept {
  try {
    return createEventRecord(kAnyModule, kAnyModule);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// Queues the wake-up event. When memory runs out nothing is queued; the exit flag, which the
// thread's wait also tests, ends the wait then.
void queueWakeUpEvent(std::queue<std::shared_ptr<BrowserEvent>>& queue) noexcept {
  try {
    queue.push(newWakeUpEvent());
  } catch (const std::bad_alloc&) {
  }
}

// The container under a hub's queue, for taking back the event a failed delivery had queued.
std::deque<std::shared_ptr<BrowserEvent>>& containerOf(
    std::queue<std::shared_ptr<BrowserEvent>>& queue) {
  struct Access : std::queue<std::shared_ptr<BrowserEvent>> {
    static container_type& of(std::queue<std::shared_ptr<BrowserEvent>>& queue) {
      return queue.*&Access::c;
    }
  };
  return Access::of(queue);
}

// The hub's implementation, or null with nothing left behind when memory runs out for it; a
// failure inside its construction or for its control block throws std::bad_alloc.
std::shared_ptr<EventHubImpl> newImplementation() {
  EventHubImpl* impl = new (std::nothrow) EventHubImpl();
  if (impl == nullptr) {
    return nullptr;
  }
  return std::shared_ptr<EventHubImpl>(impl);
}

// How long the handler thread waits before it tries again to copy a handler out of the table
// when memory has run out; the event stays at the front of the queue meanwhile.
constexpr std::chrono::milliseconds kHandlerCopyRetryDelay(1);

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

// Everything that may fail is done before anything is changed for good: room for the entry is
// made first, the thread's record is owned before the thread starts, and the append after the
// start cannot allocate. The thread lock serialises registrations, so the room made and the
// duplicate found are still so at the append.
int EventHubImpl::registerHandler(int srcModuleId, int eventType, EventHandler handler) {
  InnerHandler_t entry{srcModuleId, eventType, std::move(handler)};
  std::lock_guard<std::mutex> registration(m_threadMutex);
  const bool duplicate = handlerExists(entry);
  if (!duplicate) {
    std::lock_guard<std::mutex> lock(m_handlerMutex);
    makeRoomForOneMoreHandler(m_handlers);
  }
  if (!m_thread) {
    std::shared_ptr<std::thread> thread = newIdleThreadRecord();
    if (thread == nullptr) {
      EVENT_LOG(kLogError, 106, "Fail to create EventHandlerThread.\n");
    } else {
      m_exitThread.store(false, std::memory_order_relaxed);
      *thread = std::thread(handleEventTask, this);
      m_thread = std::move(thread);
    }
  }
  if (duplicate) {
    EVENT_LOG(kLogError, 114, "Event handler already exists.\n\n");
    return 0;
  }
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
      queueWakeUpEvent(m_eventQueue);
      m_queueCond.notify_all();
    }
  }
  // Joined without the thread lock: the thread's handlers may register handlers themselves.
  thread->join();
  std::lock_guard<std::mutex> lock(m_threadMutex);
  m_thread.reset();
}

// An event leaves the queue only once its handler has been copied out of the table: if memory
// runs out for the copy, the event stays at the front and the copy is tried again, unless the
// hub is being stopped meanwhile, which then leaves the event queued like any other.
void EventHubImpl::handleEventTask(EventHubImpl* self) {
  if (self == nullptr) {
    EVENT_LOG(kLogError, 196, "Param is NULL.\n");
    return;
  }
  const auto exitRequested = [self] { return self->m_exitThread.load(std::memory_order_relaxed); };
  while (!exitRequested()) {
    std::shared_ptr<BrowserEvent> event;
    {
      std::unique_lock<std::mutex> lock(self->m_queueMutex);
      // The flag is part of the wait for the stop whose wake-up event could not be queued.
      self->m_queueCond.wait(lock, [&] { return !self->m_eventQueue.empty() || exitRequested(); });
      if (exitRequested()) {
        return;
      }
      event = self->m_eventQueue.front();
    }
    EventHandler handler;
    if (event) {
      try {
        std::lock_guard<std::mutex> lock(self->m_handlerMutex);
        const InnerHandler_t* entry =
            firstMatch(self->m_handlers, event->srcModuleId(), event->eventType());
        if (entry != nullptr) {
          handler = entry->handler;
        }
      } catch (const std::bad_alloc&) {
        std::this_thread::sleep_for(kHandlerCopyRetryDelay);
        continue;
      }
    }
    {
      std::lock_guard<std::mutex> lock(self->m_queueMutex);
      self->m_eventQueue.pop();  // still this event: only this thread takes events out
    }
    if (handler) {
      handler(event);
    }
  }
}

EventHub::EventHub(int moduleId) : m_impl(newImplementation()), m_moduleId(moduleId) {
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

// Each addressed hub that takes the event holds its queue lock, with the event queued, while the
// rest of the list is delivered; a failure further on unwinds through it and takes the event
// back out. The recursion is as deep as the number of hubs that take the event.
void EventDelivery::deliver(HubIterator hub, HubIterator end,
                            const std::shared_ptr<BrowserEvent>& event, int destModuleId) {
  while (hub != end && destModuleId != kAnyModule && (*hub)->moduleId() != destModuleId) {
    ++hub;
  }
  if (hub == end) {
    return;
  }
  EventHub& target = **hub;
  const HubIterator next = std::next(hub);
  EventHubImpl* impl = target.m_impl.get();
  if (impl == nullptr) {
    target.receiveEvent(event);
    deliver(next, end, event, destModuleId);
    return;
  }
  const EventHubImpl::InnerHandler_t key{event->srcModuleId(), event->eventType(), EventHandler()};
  if (!impl->handlerExists(key)) {
    deliver(next, end, event, destModuleId);
    return;
  }
  std::lock_guard<std::mutex> lock(impl->m_queueMutex);
  impl->m_eventQueue.push(event);
  try {
    deliver(next, end, event, destModuleId);
  } catch (...) {
    containerOf(impl->m_eventQueue).pop_back();
    throw;
  }
  impl->m_queueCond.notify_all();
}

}  // namespace event_dispatcher
}  // namespace base
}  // namespace velmora
