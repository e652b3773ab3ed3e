#include "platform/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "platform/clock.h"

namespace {

using platform::Event;

TEST(Event, SignalsCountAsOneAndStayOnlyWhereTheyAreResetByHand) {
  Event event(Event::Mode::AutoReset);
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));

  Event manual(Event::Mode::ManualReset);
  manual.Set();
  EXPECT_TRUE(manual.Wait(0));
  EXPECT_TRUE(manual.Wait(1000));
  manual.Reset();
  EXPECT_FALSE(manual.Wait(0));
}

TEST(Event, WaitLastsItsTimeAndNoShorter) {
  Event event(Event::Mode::AutoReset);
  const int64_t start = platform::SystemClock().Counter();
  EXPECT_FALSE(event.Wait(20));
  EXPECT_GE(platform::SystemClock().Counter() - start, 20 * platform::kCounterFrequency / 1000);
}

// Two threads hand a token to and fro: a lost signal would cost its ten seconds.
TEST(Event, NoSignalIsLost) {
  Event there(Event::Mode::AutoReset);
  Event back(Event::Mode::AutoReset);
  std::thread other([&] {
    for (int i = 0; i < 2000; ++i) {
      if (!there.Wait(10'000)) return;
      back.Set();
    }
  });
  bool lost = false;
  for (int i = 0; i < 2000 && !lost; ++i) {
    there.Set();
    lost = !back.Wait(10'000);
  }
  other.join();
  EXPECT_FALSE(lost);
}

// Who has seen the signal may destroy the event while Set is still returning.
TEST(Event, WaiterMayDestroyTheEventAtOnce) {
  for (int i = 0; i < 500; ++i) {
    auto event = std::make_unique<Event>(Event::Mode::ManualReset);
    const std::jthread setter([raw = event.get()] { raw->Set(); });
    ASSERT_TRUE(event->Wait(10'000));
    event.reset();
  }
}

}  // namespace
