#include "base/event_dispatcher/browser_event.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <type_traits>

#include "base/event_dispatcher/event_hub.h"
#include "event_test_support.h"
#include "log_capture.h"

namespace {

using velmora::base::event_dispatcher::BrowserEvent;
using velmora::base::event_dispatcher::EventHub;
using velmora::base::event_dispatcher::EventParam;
using velmora::base::event_dispatcher::kAnyModule;
using velmora::testing::CountedParam;
using velmora::testing::WaitableCount;

TEST(BrowserEventTest, AnyModuleIsTheSmallestInt) {
  EXPECT_EQ(kAnyModule, INT_MIN);
  EXPECT_EQ(static_cast<long long>(kAnyModule), -2147483648LL);
}

TEST(BrowserEventTest, ConstructorStoresSourceTypeAndParameterInThatOrder) {
  EventParam* param = new EventParam();
  BrowserEvent event(7, 3, param);
  EXPECT_EQ(event.srcModuleId(), 7);
  EXPECT_EQ(event.eventType(), 3);
  EXPECT_EQ(event.param(), param);
}

TEST(BrowserEventTest, DestroyingTheEventDeletesADerivedParameterOnce) {
  WaitableCount destroyed;
  {
    std::shared_ptr<BrowserEvent> event(new BrowserEvent(1, 2, new CountedParam(5, &destroyed)));
    std::shared_ptr<BrowserEvent> second_holder = event;
    event.reset();
    EXPECT_EQ(destroyed.value(), 0);
  }
  EXPECT_EQ(destroyed.value(), 1);
}

TEST(BrowserEventTest, EventWhoseParameterIsNullDestroysWithoutDeletingAgain) {
  WaitableCount destroyed;
  {
    BrowserEvent event(1, 2, new CountedParam(3, &destroyed));
    event.setParam(nullptr);
    EXPECT_EQ(destroyed.value(), 1);
    EXPECT_EQ(event.param(), nullptr);
  }
  EXPECT_EQ(destroyed.value(), 1);
}

TEST(BrowserEventTest, SetParamDeletesTheReplacedParameterAndOwnsTheNewOne) {
  WaitableCount first_destroyed;
  WaitableCount second_destroyed;
  CountedParam* second = new CountedParam(2, &second_destroyed);
  {
    BrowserEvent event(1, 2, new CountedParam(1, &first_destroyed));
    event.setParam(second);
    EXPECT_EQ(first_destroyed.value(), 1);
    EXPECT_EQ(event.param(), second);
    event.setParam(second);  // the same payload again is kept, not deleted
    EXPECT_EQ(second_destroyed.value(), 0);
  }
  EXPECT_EQ(first_destroyed.value(), 1);
  EXPECT_EQ(second_destroyed.value(), 1);
}

TEST(BrowserEventTest, SetParamOnAnEventWithoutParameterOnlyAttaches) {
  WaitableCount destroyed;
  {
    BrowserEvent event(1, 2, nullptr);
    event.setParam(new CountedParam(9, &destroyed));
    EXPECT_EQ(static_cast<CountedParam*>(event.param())->value(), 9);
    EXPECT_EQ(destroyed.value(), 0);
  }
  EXPECT_EQ(destroyed.value(), 1);
}

TEST(BrowserEventTest, BaseParameterQueryReturnsZeroAndDerivedOverridesIt) {
  EventParam base_param;
  EXPECT_EQ(base_param.paramType(), 0);
  std::unique_ptr<EventParam> derived(new CountedParam(1, nullptr));
  EXPECT_EQ(derived->paramType(), 42);
}

TEST(BrowserEventTest, EventsAreNotCopyableAndBothClassesHaveVirtualDestructors) {
  EXPECT_FALSE(std::is_copy_constructible<BrowserEvent>::value);
  EXPECT_FALSE(std::is_copy_assignable<BrowserEvent>::value);
  EXPECT_TRUE(std::has_virtual_destructor<BrowserEvent>::value);
  EXPECT_TRUE(std::has_virtual_destructor<EventParam>::value);
}

class CreateEventTest : public velmora::testing::LogCaptureTest {};

TEST_F(CreateEventTest, CreateEventCarriesTheHubModuleTypeAndADefaultParameter) {
  EventHub hub(7);
  std::shared_ptr<BrowserEvent> event = hub.createEvent(3);
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->srcModuleId(), 7);
  EXPECT_EQ(event->eventType(), 3);
  ASSERT_NE(event->param(), nullptr);
  EXPECT_EQ(event->param()->paramType(), 0);
  EXPECT_EQ(event.use_count(), 1);
  EXPECT_EQ(velmora::testing::LogCapture::entries().size(), 0u);
}

TEST_F(CreateEventTest, EachCreateEventYieldsANewEvent) {
  EventHub hub(kAnyModule);
  std::shared_ptr<BrowserEvent> first = hub.createEvent(kAnyModule);
  std::shared_ptr<BrowserEvent> second = hub.createEvent(kAnyModule);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first.get(), second.get());
  EXPECT_NE(first->param(), second->param());
  EXPECT_EQ(first->srcModuleId(), kAnyModule);
  EXPECT_EQ(first->eventType(), kAnyModule);
}

}  // namespace
