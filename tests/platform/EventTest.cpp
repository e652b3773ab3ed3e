#include "platform/event.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "platform/clock.h"

using platform::Event;

TEST(Event, SignalsCountAsOneAndStayOnlyWhereTheyAreResetByHand) {
  Event event(Event::Mode::AutoReset);
  event.Set();
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  const int64_t start = platform::SystemClock().Counter();
  EXPECT_FALSE(event.Wait(20));
  EXPECT_GE(platform::SystemClock().Counter() - start, 20 * platform::kCounterFrequency / 1000);

  Event manual(Event::Mode::ManualReset);
  manual.Set();
  EXPECT_TRUE(manual.Wait(0) && manual.Wait(1000));
  manual.Reset();
  EXPECT_FALSE(manual.Wait(0));
}

// No signal is lost; and who has seen it may destroy the event while Set is still returning.
TEST(Event, WaiterMayDestroyTheEventAtOnce) {
  for (int i = 0; i < 500; ++i) {
    auto event = std::make_unique<Event>(Event::Mode::ManualReset);
    const std::jthread setter([raw = event.get()] { raw->Set(); });
    ASSERT_TRUE(event->Wait(10'000));
    event.reset();
  }
}
