#include "platform/wakeset.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/interfaces.h"
#include "platform/socket.h"

namespace {

constexpr uint32_t kLongMs = 60'000;

// In milliseconds.
int64_t WaitTime(platform::Waiter& waiter, uint32_t milliseconds) {
  const int64_t start = platform::SystemClock().Counter();
  waiter.Wait(milliseconds);
  return (platform::SystemClock().Counter() - start) * 1000 / platform::kCounterFrequency;
}

}  // namespace

TEST(WakeSet, SignalEndsOneWaitAndNamesItsSet) {
  const auto waiter = std::make_shared<platform::Waiter>();
  platform::WakeSet one(waiter);
  platform::WakeSet other(waiter);
  waiter->Wait(0);  // a set that has just come may wake
  one.Signal();
  one.Signal();
  EXPECT_LT(WaitTime(*waiter, kLongMs), kLongMs / 2);
  EXPECT_TRUE(one.TakeNews());
  EXPECT_FALSE(one.TakeNews()) << "both signals were one";
  EXPECT_FALSE(other.TakeNews());
  EXPECT_GE(WaitTime(*waiter, 20), 19);
  waiter->Wake();
  EXPECT_LT(WaitTime(*waiter, kLongMs), kLongMs / 2);
  EXPECT_FALSE(one.TakeNews());
}

TEST(WakeSet, EndsAWaitInProgress) {
  const auto waiter = std::make_shared<platform::Waiter>();
  platform::WakeSet wakeSet(waiter);
  std::atomic<int> news{0};
  std::thread thread([&] {
    while (news < 1000) {
      waiter->Wait(kLongMs);
      if (wakeSet.TakeNews()) ++news;
    }
  });
  // Signals fall before, into and after the waits; each of them makes news once.
  for (int seen = 0; seen < 1000; ++seen) {
    wakeSet.Signal();
    while (news == seen)
      std::this_thread::yield();
  }
  thread.join();
}

// A socket that outlives the maker of its set would keep the worker of others awake.
TEST(WakeSet, ClosedSetWakesNobody) {
  const auto waiter = std::make_shared<platform::Waiter>();
  const auto wakeSet = std::make_shared<platform::WakeSet>(waiter);
  platform::SocketAddress local;
  local.address[0] = 127, local.address[1] = local.address[2] = 0, local.address[3] = 1;
  platform::Socket before, after;
  const auto deliver = [&](platform::Socket& socket) {
    ASSERT_TRUE(socket.OpenUdp().Ok());
    ASSERT_TRUE(socket.Bind(local).Ok());
    ASSERT_TRUE(socket.Watch(wakeSet, platform::kSocketRead).Ok());
    platform::SocketAddress bound;
    ASSERT_TRUE(socket.LocalAddress(&bound).Ok());
    ASSERT_TRUE(socket.SendTo("x", 1, bound).Ok());
  };
  deliver(before);
  while (!wakeSet->TakeNews())
    waiter->Wait(kLongMs);
  wakeSet->Close();
  deliver(after);
  waiter->Wait(0);
  EXPECT_GE(WaitTime(*waiter, 20), 19);
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
