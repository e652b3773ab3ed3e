#include "platform/clock.h"

#include <gtest/gtest.h>

#include <ctime>
#include <thread>

#include "platform/thread.h"

TEST(SystemClock, LocalTimeFollowsTheWallClock) {
  platform::Clock& clock = platform::SystemClock();
  int64_t before = 0;
  platform::LocalTime local;
  do {  // until both stand in the same second
    before = clock.WallSeconds();
    local = clock.Local();
  } while (clock.WallSeconds() != before);
  EXPECT_EQ(local.second, before % 60);
  EXPECT_TRUE(local.year >= 2024 && local.month >= 1 && local.month <= 12);
  EXPECT_NEAR(static_cast<double>(before), static_cast<double>(std::time(nullptr)), 2);
}

TEST(Thread, NumbersTellThreadsApart) {
  const uint32_t own = platform::ThreadNumber();
  uint32_t other = own;
  std::thread([&] { other = platform::ThreadNumber(); }).join();
  EXPECT_NE(other, own);
}
