#include "runtime/SingletonGate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

// Two threads come first at the same time, life after life: both see the one mutex, and the first
// reference adds the singleton's own, so that theirs don't end it.
TEST(SingletonGate, ThreadsThatComeFirstTogetherShareOneMutex) {
  SingletonGate gate;
  for (int life = 0; life < 100; ++life) {
    std::atomic<int> ready{0};
    std::mutex* seen[2] = {};
    const auto acquire = [&](size_t index) {
      ++ready;
      while (ready != 2)
        std::this_thread::yield();
      gate.Acquire();
      seen[index] = gate.mutex;
    };
    std::thread other(acquire, 1);
    acquire(0);
    other.join();
    ASSERT_NE(seen[0], nullptr);
    ASSERT_EQ(seen[0], seen[1]);
    ASSERT_FALSE(gate.Release() || gate.Release());
    ASSERT_TRUE(gate.Release());
    ASSERT_EQ(gate.mutex, nullptr);
  }
}
