#include "platform/wakeset.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/interfaces.h"

namespace {

constexpr uint32_t kLongMs = 60'000;

// In milliseconds.
int64_t WaitTime(platform::WakeSet& wakeSet, uint32_t milliseconds) {
  const int64_t start = platform::SystemClock().Counter();
  wakeSet.Wait(milliseconds);
  return (platform::SystemClock().Counter() - start) * 1000 / platform::kCounterFrequency;
}

}  // namespace

TEST(WakeSet, RemembersASignalForTheNextWaitOnce) {
  platform::WakeSet wakeSet;
  wakeSet.Signal();
  wakeSet.Signal();
  EXPECT_LT(WaitTime(wakeSet, kLongMs), kLongMs / 2);
  EXPECT_GE(WaitTime(wakeSet, 20), 19) << "both signals were one";
  EXPECT_LT(WaitTime(wakeSet, 0), kLongMs / 2);
}

TEST(WakeSet, EndsAWaitInProgress) {
  platform::WakeSet wakeSet;
  std::atomic<int> waits{0};
  std::thread waiter([&] {
    for (; waits < 1000; ++waits)
      wakeSet.Wait(kLongMs);
  });
  // Signals fall before, into and behind the waits; each of them ends one more.
  for (int seen = 0; seen < 1000; ++seen) {
    wakeSet.Signal();
    while (waits == seen)
      std::this_thread::yield();
  }
  waiter.join();
}

TEST(Interfaces, HaveTheLoopbackWithItsBroadcastAddress) {
  const std::vector<platform::Interface> interfaces = platform::ListInterfaces();
  const auto loopback = std::find_if(interfaces.begin(), interfaces.end(), [](const auto& each) {
    return each.loopback && each.address.address[0] == 127;
  });
  ASSERT_NE(loopback, interfaces.end());
  platform::SocketAddress expected;
  expected.address[0] = 127;  // 127.255.255.255
  EXPECT_EQ(loopback->broadcast, expected);
}
