#include "platform/wakeset.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "platform/clock.h"
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
  platform::Socket before, after;
  const auto deliver = [&](platform::Socket& socket) {
    platform::SocketAddress address{.address = {127, 0, 0, 1}};
    ASSERT_TRUE(socket.OpenUdp().Ok() && socket.Bind(address).Ok());
    ASSERT_TRUE(socket.Watch(wakeSet, platform::kSocketRead).Ok());
    ASSERT_TRUE(socket.LocalAddress(&address).Ok() && socket.SendTo("x", 1, address).Ok());
  };
  deliver(before);
  while (!wakeSet->TakeNews())
    waiter->Wait(kLongMs);
  wakeSet->Close();
  deliver(after);
  waiter->Wait(0);
  EXPECT_GE(WaitTime(*waiter, 20), 19);
}
