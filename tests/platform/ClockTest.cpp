#include "platform/clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "platform/thread.h"

namespace {

TEST(SystemClock, CounterRunsAtItsFrequencyAndNeverBack) {
  platform::Clock& clock = platform::SystemClock();
  const auto outerStart = std::chrono::steady_clock::now();
  const int64_t start = clock.Counter();
  int64_t last = start;
  bool back = false;
  while (last - start < platform::kCounterFrequency / 50) {
    const int64_t now = clock.Counter();
    back = back || now < last;
    last = now;
  }
  const std::chrono::duration<double> outer = std::chrono::steady_clock::now() - outerStart;
  EXPECT_FALSE(back);
  EXPECT_GE(outer.count(), 0.019) << "the counter is fast";
}

TEST(SystemClock, LocalTimeFollowsTheWallClock) {
  platform::Clock& clock = platform::SystemClock();
  // Read between two equal readings of the seconds, so that both stand in the same second.
  for (;;) {
    const int64_t before = clock.WallSeconds();
    const platform::LocalTime local = clock.Local();
    if (clock.WallSeconds() != before) continue;
    EXPECT_EQ(local.second, before % 60);
    EXPECT_TRUE(local.year >= 2024 && local.month >= 1 && local.month <= 12);
    EXPECT_TRUE(local.millisecond >= 0 && local.millisecond < 1000);
    break;
  }
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_NEAR(static_cast<double>(clock.WallSeconds()),
              static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(now).count()),
              2);
}

TEST(Thread, NumbersTellThreadsApart) {
  const uint32_t own = platform::ThreadNumber();
  EXPECT_EQ(platform::ThreadNumber(), own);
  uint32_t other = own;
  std::thread([&] { other = platform::ThreadNumber(); }).join();
  EXPECT_NE(other, own);
}

}  // namespace
