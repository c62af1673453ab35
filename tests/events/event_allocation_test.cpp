// Allocation failures in the event subsystem. This program replaces the global operator new
// (plain and nothrow) and operator delete: each forwards to the definition it hides, counts
// allocations on the thread that asked for it, and fails the n-th allocation of that thread
// on demand.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "base/event_dispatcher/browser_event.h"
#include "base/event_dispatcher/event_dispatcher.h"
#include "base/event_dispatcher/event_hub.h"
#include "base/logging.h"
#include "event_test_support.h"
#include "log_capture.h"

namespace {

thread_local bool t_counting = false;
thread_local long t_allocations = 0;
// The blocks allocated while counting and not freed since (null once freed); blocks made before
// are not among them, so freeing one of those does not count.
constexpr int kMaxCounted = 16;
thread_local void* t_counted[kMaxCounted];
thread_local int t_fail_plain_at = 0;    // fail this plain allocation of the thread (1 = next)
thread_local int t_fail_nothrow_at = 0;  // the same for nothrow allocations

// The hidden definition. No std::string here: building one would call operator new again.
void* nextSymbol(const char* name) {
  void* symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    fprintf(stderr, "no next definition of %s\n", name);
    abort();
  }
  return symbol;
}

constexpr bool kWideSize = sizeof(std::size_t) == 8;

void* nextPlainNew(std::size_t size) {
  static auto real =
      reinterpret_cast<void* (*)(std::size_t)>(nextSymbol(kWideSize ? "_Znwm" : "_Znwj"));
  return real(size);
}

void* nextNothrowNew(std::size_t size, const std::nothrow_t& tag) noexcept {
  static auto real = reinterpret_cast<void* (*)(std::size_t, const std::nothrow_t&)>(
      nextSymbol(kWideSize ? "_ZnwmRKSt9nothrow_t" : "_ZnwjRKSt9nothrow_t"));
  return real(size, tag);
}

void nextDelete(void* pointer) noexcept {
  static auto real = reinterpret_cast<void (*)(void*)>(nextSymbol("_ZdlPv"));
  real(pointer);
}

// True when this allocation is the one to fail; counts down the thread's trigger.
bool failThisOne(int& fail_at) {
  if (fail_at == 0) {
    return false;
  }
  return --fail_at == 0;
}

void counted(void* pointer) {
  if (pointer == nullptr || !t_counting) {
    return;
  }
  if (t_allocations == kMaxCounted) {
    fprintf(stderr, "more than %d allocations counted\n", kMaxCounted);
    abort();
  }
  t_counted[t_allocations++] = pointer;
}

void released(void* pointer) {
  if (pointer == nullptr || !t_counting) {
    return;
  }
  for (long i = 0; i < t_allocations; ++i) {
    if (t_counted[i] == pointer) {
      t_counted[i] = nullptr;
    }
  }
}

}  // namespace

void* operator new(std::size_t size) {
  if (failThisOne(t_fail_plain_at)) {
    throw std::bad_alloc();
  }
  void* pointer = nextPlainNew(size);
  counted(pointer);
  return pointer;
}

void* operator new(std::size_t size, const std::nothrow_t& tag) noexcept {
  if (failThisOne(t_fail_nothrow_at)) {
    return nullptr;
  }
  // The hidden nothrow form may call the plain one, which must neither count the block again
  // nor take the plain form's failure.
  const bool counting = t_counting;
  const int fail_plain_at = t_fail_plain_at;
  t_counting = false;
  t_fail_plain_at = 0;
  void* pointer = nextNothrowNew(size, tag);
  t_counting = counting;
  t_fail_plain_at = fail_plain_at;
  counted(pointer);
  return pointer;
}

void operator delete(void* pointer) noexcept {
  released(pointer);
  nextDelete(pointer);
}

// The hidden sized form may call the unsized one, so it is not used: the block is counted once.
void operator delete(void* pointer, std::size_t) noexcept {
  released(pointer);
  nextDelete(pointer);
}

namespace {

using velmora::base::kLogCritical;
using velmora::base::kLogError;
using velmora::base::kLogInfo;
using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventHandler;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::evtdispch_register_hub;
using velmora::base::event_dispatcher::evtdispch_send_event;
using velmora::base::event_dispatcher::evtdispch_unregister_hub;
using velmora::base::event_dispatcher::kAnyModule;
using velmora::testing::eventLine;
using velmora::testing::LogCapture;
using velmora::testing::LoggedOnce;
using velmora::testing::WaitableCount;

// Counts the allocations and the blocks still live of what runs on this thread in its scope.
class AllocationWindow {
 public:
  AllocationWindow() {
    t_allocations = 0;
    t_counting = true;
  }
  ~AllocationWindow() { t_counting = false; }
  long allocations() const { return t_allocations; }
  long live() const {
    return std::count_if(t_counted, t_counted + t_allocations,
                         [](void* block) { return block != nullptr; });
  }
};

class EventAllocationTest : public velmora::testing::LogCaptureTest {
 protected:
  void TearDown() override {
    t_fail_plain_at = 0;
    t_fail_nothrow_at = 0;
  }
};

TEST_F(EventAllocationTest, CreatingAnEventAllocatesParameterEventAndControlBlock) {
  EventHub hub(7);
  std::shared_ptr<BrowserEvent> event;
  long allocations = 0;
  {
    AllocationWindow window;
    event = hub.createEvent(3);
    allocations = window.allocations();
  }
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(allocations, 3);
}

TEST_F(EventAllocationTest, FailedParameterAllocationGivesAnEmptyEvent) {
  EventHub hub(7);
  std::shared_ptr<BrowserEvent> event;
  long allocations = 0;
  {
    AllocationWindow window;
    t_fail_nothrow_at = 1;
    event = hub.createEvent(3);
    allocations = window.allocations();
  }
  EXPECT_EQ(event, nullptr);
  EXPECT_EQ(event.use_count(), 0);
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(LogCapture::entries().size(), 0u);
}

TEST_F(EventAllocationTest, FailedEventAllocationGivesAnEmptyEventAndFreesTheParameter) {
  EventHub hub(7);
  std::shared_ptr<BrowserEvent> event;
  long allocations = 0;
  long live = 0;
  {
    AllocationWindow window;
    t_fail_nothrow_at = 2;
    event = hub.createEvent(3);
    allocations = window.allocations();
    live = window.live();
  }
  EXPECT_EQ(event, nullptr);
  EXPECT_EQ(event.use_count(), 0) << "an empty result owns no control block";
  EXPECT_EQ(allocations, 1);  // the parameter, freed again
  EXPECT_EQ(live, 0);
  EXPECT_EQ(LogCapture::entries().size(), 0u);
}

TEST_F(EventAllocationTest, FailedControlBlockAllocationThrowsAfterFreeingEventAndParameter) {
  EventHub hub(7);
  bool thrown = false;
  long allocations = 0;
  long live = 0;
  {
    AllocationWindow window;
    t_fail_plain_at = 1;
    try {
      hub.createEvent(3);
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
    allocations = window.allocations();
    live = window.live();
  }
  EXPECT_TRUE(thrown);
  EXPECT_EQ(allocations, 2);  // the parameter and the event
  EXPECT_EQ(live, 0);
}

TEST_F(EventAllocationTest, HubWithoutImplementationRefusesEverythingWithItsLines) {
  t_fail_nothrow_at = 1;
  EventHub hub(4);
  EXPECT_TRUE(LoggedOnce(
      kLogError, eventLine("event_hub.cpp", 260, "EventHub", "Fail to create EventHubImpl.\n")));

  EXPECT_EQ(hub.registerHandler(5, EventHandler()), -1);
  EXPECT_TRUE(LoggedOnce(kLogError,
                         eventLine("event_hub.cpp", 281, "registerHandler", "m_impl is NULL.\n")));
  EXPECT_EQ(hub.registerHandler(2, 5, EventHandler()), -1);
  EXPECT_TRUE(LoggedOnce(kLogError,
                         eventLine("event_hub.cpp", 292, "registerHandler", "m_impl is NULL.\n")));

  std::shared_ptr<BrowserEvent> event = hub.createEvent(5);  // needs no implementation
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->srcModuleId(), 4);
  EXPECT_EQ(hub.moduleId(), 4);
  EXPECT_EQ(hub.receiveEvent(event), -1);
  const std::string receive_line =
      eventLine("event_hub.cpp", 323, "receiveEvent", "m_impl is NULL.\n");
  EXPECT_TRUE(LoggedOnce(kLogError, receive_line));

  // Through the dispatcher: the hub is offered the event and refuses it the same way.
  ASSERT_EQ(evtdispch_register_hub(&hub), 0);
  EXPECT_EQ(evtdispch_send_event(event, 4), 0);
  EXPECT_EQ(LogCapture::count(kLogError, receive_line), 2u);
  EXPECT_EQ(evtdispch_unregister_hub(&hub), 0);
  EXPECT_TRUE(LoggedOnce(
      kLogError, eventLine("event_hub.cpp", 312, "onHubUnregistered", "m_impl is NULL.\n")));
}

TEST_F(EventAllocationTest, FailedThreadAllocationIsLoggedAndTheNextRegistrationStartsIt) {
  EventHub hub(1);
  WaitableCount handled;
  t_fail_nothrow_at = 1;
  EXPECT_EQ(hub.registerHandler(5, [&](std::shared_ptr<BrowserEvent>) { handled.add(); }), 0);
  EXPECT_TRUE(LoggedOnce(kLogError, eventLine("event_hub.cpp", 106, "registerHandler",
                                              "Fail to create EventHandlerThread.\n")));

  // The handler was added all the same: its events are accepted and wait for a thread.
  std::shared_ptr<BrowserEvent> event = hub.createEvent(5);
  EXPECT_EQ(hub.receiveEvent(event), 0);
  EXPECT_EQ(event.use_count(), 2);
  hub.onHubUnregistered();
  EXPECT_TRUE(
      LoggedOnce(kLogInfo, eventLine("event_hub.cpp", 144, "onUnregistered",
                                     "Didn't create thread, so need not destroy thread.\n")));
  EXPECT_TRUE(LoggedOnce(
      kLogCritical, eventLine("event_hub.cpp", 145, "onUnregistered", "Exit onUnregistered.\n")));

  EXPECT_EQ(hub.registerHandler(6, EventHandler()), 0);
  EXPECT_TRUE(handled.waitFor(1));
  hub.onHubUnregistered();
}

TEST_F(EventAllocationTest, EmptyWakeUpEventStillStopsTheThreadAndIsDroppedLater) {
  EventHub hub(1);
  WaitableCount handled;
  WaitableCount any_type_handled;
  ASSERT_EQ(hub.registerHandler(5, [&](std::shared_ptr<BrowserEvent>) { handled.add(); }), 0);
  ASSERT_EQ(hub.registerHandler(kAnyModule,
                                [&](std::shared_ptr<BrowserEvent>) { any_type_handled.add(); }),
            0);
  t_fail_nothrow_at = 1;  // the wake-up event's parameter
  hub.onHubUnregistered();
  EXPECT_EQ(t_fail_nothrow_at, 0);

  // The new thread pops the empty wake-up event, drops it, and goes on with real events.
  ASSERT_EQ(hub.registerHandler(6, EventHandler()), 0);
  ASSERT_EQ(hub.receiveEvent(hub.createEvent(5)), 0);
  EXPECT_TRUE(handled.waitFor(1));
  hub.onHubUnregistered();
  EXPECT_EQ(any_type_handled.value(), 0);
}

TEST_F(EventAllocationTest, FailedWakeUpEventAllocationStillStopsTheThreadAndLeavesNothing) {
  EventHub hub(1);
  WaitableCount handled;
  ASSERT_EQ(hub.registerHandler(5, [&](std::shared_ptr<BrowserEvent>) { handled.add(); }), 0);
  long allocations = 0;
  long live = 0;
  {
    AllocationWindow window;
    t_fail_nothrow_at = 2;  // the wake-up event itself, after its parameter
    hub.onHubUnregistered();
    allocations = window.allocations();
    live = window.live();
  }
  EXPECT_EQ(t_fail_nothrow_at, 0);
  EXPECT_EQ(allocations, 1);  // the parameter, freed again
  EXPECT_EQ(live, 0) << "the queued empty wake-up event owns no control block";

  // A new thread drops the empty entry and goes on with real events.
  ASSERT_EQ(hub.registerHandler(6, EventHandler()), 0);
  ASSERT_EQ(hub.receiveEvent(hub.createEvent(5)), 0);
  EXPECT_TRUE(handled.waitFor(1));
  hub.onHubUnregistered();
}

}  // namespace
