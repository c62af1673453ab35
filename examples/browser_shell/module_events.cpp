#include "module_events.h"

#include "base/event_dispatcher/event_dispatcher.h"

namespace browser_shell {

using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::evtdispch_register_hub;
using velmora::base::event_dispatcher::evtdispch_unregister_hub;
using velmora::base::event_dispatcher::kAnyModule;

namespace {

// The event types the modules exchange.
enum EventType {
  kKeyPressed = 100,        // user interface -> HbbTV controller
  kPlayRequest = 101,       // HbbTV controller -> media player
  kPlaybackProgress = 102,  // media player -> user interface
  kModuleStatus = 103,      // any module -> all modules
};

// Who is who: the module id the dispatcher routes by, and the directed event each module sends.
struct ModuleSpec {
  const char* name;
  int id;
  EventType sends;
  int sendsTo;  // module index
};

const ModuleSpec kSpecs[kModuleCount] = {
    {"ui", 1, kKeyPressed, kHbbtvController},
    {"hbbtv", 2, kPlayRequest, kMediaPlayer},
    {"media", 3, kPlaybackProgress, kUserInterface},
};

// Every fourth event a module sends is a status broadcast; the others go to its neighbour.
bool isBroadcastRound(int round) {
  return round % 4 == 3;
}

// The module that sends its directed events to this one.
int senderTo(int module) {
  for (int other = 0; other < kModuleCount; ++other) {
    if (kSpecs[other].sendsTo == module) {
      return other;
    }
  }
  return -1;
}

// The module index of a module id, -1 for an id that is not one of the shell's modules.
int indexOfModuleId(int id) {
  for (int module = 0; module < kModuleCount; ++module) {
    if (kSpecs[module].id == id) {
      return module;
    }
  }
  return -1;
}

// The event's payload if it is the shell's own, else null. EventParam's paramType() tells the
// payload classes apart without RTTI.
const ShellEventParam* shellParamOf(const BrowserEvent& event) {
  const velmora::base::event_dispatcher::EventParam* param = event.param();
  if (param == nullptr || param->paramType() != ShellEventParam::kParamType) {
    return nullptr;
  }
  return static_cast<const ShellEventParam*>(param);
}

}  // namespace

struct EventExchange::Module {
  std::unique_ptr<EventHub> hub;
};

EventExchange::EventExchange(int eventsPerModule) : eventsPerModule_(eventsPerModule) {
  for (auto& receiver : lastSequence_) {
    for (int& sequence : receiver) {
      sequence = -1;
    }
  }
}

EventExchange::~EventExchange() {
  stop();
}

const char* EventExchange::moduleName(int module) {
  return kSpecs[module].name;
}

void EventExchange::start() {
  for (int module = 0; module < kModuleCount; ++module) {
    createModule(module);
  }
  started_ = true;
}

void EventExchange::createModule(int module) {
  modules_[module].reset(new Module);
  modules_[module]->hub.reset(new EventHub(kSpecs[module].id));
  // Handlers first, then the dispatcher: the hub is ready for events once it is reachable.
  registerHandlers(module);
  evtdispch_register_hub(modules_[module]->hub.get());
}

void EventExchange::registerHandlers(int module) {
  EventHub& hub = *modules_[module]->hub;
  auto handler = [this, module](std::shared_ptr<BrowserEvent> event) { onEvent(module, event); };
  // The directed event of the neighbour, accepted from any source...
  hub.registerHandler(kSpecs[senderTo(module)].sends, handler);
  // ...and status broadcasts from the two other modules only: a module's own broadcast also
  // reaches its own hub, which refuses it for want of a matching handler.
  for (int other = 0; other < kModuleCount; ++other) {
    if (other != module) {
      hub.registerHandler(kSpecs[other].id, kModuleStatus, handler);
    }
  }
}

void EventExchange::sendRound(int round) {
  for (int module = 0; module < kModuleCount; ++module) {
    EventHub& hub = *modules_[module]->hub;
    const bool broadcast = isBroadcastRound(round);
    std::shared_ptr<BrowserEvent> event =
        hub.createEvent(broadcast ? kModuleStatus : kSpecs[module].sends);
    event->setParam(new ShellEventParam(round, monotonicSeconds()));
    hub.sendEvent(event, broadcast ? kAnyModule : kSpecs[kSpecs[module].sendsTo].id);
    std::lock_guard<std::mutex> lock(mutex_);
    ++sent_[module];
    deliveriesSent_ += broadcast ? kModuleCount - 1 : 1;
  }
}

void EventExchange::onEvent(int module, const std::shared_ptr<BrowserEvent>& event) {
  const ShellEventParam* param = shellParamOf(*event);
  const int sender = indexOfModuleId(event->srcModuleId());
  if (param != nullptr) {
    latency_.record(monotonicSeconds() - param->sentAt());
  }
  std::lock_guard<std::mutex> lock(mutex_);
  // One sender's events reach a hub in the order they were sent.
  if (param == nullptr || sender < 0 || param->sequence() <= lastSequence_[module][sender]) {
    ++badEvents_;
  } else {
    lastSequence_[module][sender] = param->sequence();
  }
  ++handled_[module];
  if (allHandledLocked()) {
    allHandled_.notify_all();
  }
}

int EventExchange::expectedPerModule() const {
  // The neighbour's directed events, plus the broadcasts of the two other modules.
  const int broadcasts = eventsPerModule_ / 4;
  const int directed = eventsPerModule_ - broadcasts;
  return directed + 2 * broadcasts;
}

bool EventExchange::allHandledLocked() const {
  for (int module = 0; module < kModuleCount; ++module) {
    if (handled_[module] < expectedPerModule()) {
      return false;
    }
  }
  return true;
}

bool EventExchange::waitUntilAllHandled(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return allHandled_.wait_for(lock, limit, [this] { return allHandledLocked(); });
}

void EventExchange::stop() {
  if (!started_) {
    return;
  }
  // Unregistering joins a hub's handler thread, so no handler runs once this loop is done.
  for (auto& module : modules_) {
    evtdispch_unregister_hub(module->hub.get());
  }
  for (auto& module : modules_) {
    module->hub.reset();
  }
  started_ = false;
}

EventExchange::Counts EventExchange::counts(int module) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return Counts{sent_[module], handled_[module], expectedPerModule()};
}

int EventExchange::handledTotal() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return handled_[0] + handled_[1] + handled_[2];
}

int EventExchange::expectedTotal() const {
  return kModuleCount * expectedPerModule();
}

int EventExchange::sentTotal() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sent_[0] + sent_[1] + sent_[2];
}

int EventExchange::inFlight() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return deliveriesSent_ - (handled_[0] + handled_[1] + handled_[2]);
}

int EventExchange::badEventCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return badEvents_;
}

}  // namespace browser_shell
