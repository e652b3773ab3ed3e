#include "runtime/SingletonGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(SingletonGate, FirstReferenceAddsTheSingletonsOwn) {
  SingletonGate gate;
  for (int life = 0; life < 2; ++life) {  // it can begin again
    gate.Acquire();
    gate.Acquire();
    EXPECT_EQ(gate.refs, 3u);
    EXPECT_FALSE(gate.Release());
    EXPECT_FALSE(gate.Release());
    EXPECT_NE(gate.mutex, nullptr) << "scoped references ended the singleton";
    EXPECT_TRUE(gate.Release());
    EXPECT_EQ(gate.mutex, nullptr);
    EXPECT_EQ(gate.gateState, 0u);
  }
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
    while (!gate.Release()) {
    }
  }
}

}  // namespace
