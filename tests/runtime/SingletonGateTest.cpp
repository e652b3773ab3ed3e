#include "runtime/SingletonGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(SingletonGate, FirstReferenceAddsTheSingletonsOwn) {
  SingletonGate gate;
  gate.Acquire();
  EXPECT_EQ(gate.refs, 2u);
  EXPECT_NE(gate.mutex, nullptr);
  gate.Acquire();
  EXPECT_EQ(gate.refs, 3u);

  EXPECT_FALSE(gate.Release());
  EXPECT_FALSE(gate.Release());
  EXPECT_NE(gate.mutex, nullptr) << "scoped references ended the singleton";
  EXPECT_TRUE(gate.Release());
  EXPECT_EQ(gate.refs, 0u);
  EXPECT_EQ(gate.mutex, nullptr);
  EXPECT_EQ(gate.gateState, 0u);

  // It can begin again.
  gate.Acquire();
  EXPECT_EQ(gate.refs, 2u);
  EXPECT_FALSE(gate.Release());
  EXPECT_TRUE(gate.Release());
}

// Two threads come first at the same time: both see the one mutex, and the count is 3.
TEST(SingletonGate, ThreadsThatComeFirstTogetherShareOneMutex) {
  for (int round = 0; round < 100; ++round) {
    SingletonGate gate;
    std::atomic<int> ready{0};
    std::mutex* seen[2] = {};
    const auto acquire = [&](size_t index) {
      ++ready;
      while (ready != 2) {
      }
      gate.Acquire();
      seen[index] = gate.mutex;
    };
    std::thread other(acquire, 1);
    acquire(0);
    other.join();
    ASSERT_NE(seen[0], nullptr);
    ASSERT_EQ(seen[0], seen[1]);
    ASSERT_EQ(gate.refs, 3u);
    EXPECT_FALSE(gate.Release());
    EXPECT_FALSE(gate.Release());
    ASSERT_TRUE(gate.Release());
  }
}

}  // namespace
