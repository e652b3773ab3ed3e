#include "runtime/ConcurrentQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

TEST(ConcurrentQueue, KeepsTheOrderAndGivesNothingWhenEmpty) {
  ConcurrentQueue<int> queue;
  EXPECT_EQ(queue.TryPop(), 0);
  queue.Push(1);
  queue.PushAll({2, 3});
  queue.PushFront(9);
  for (const int expected : {9, 1, 2, 3, 0})
    EXPECT_EQ(queue.TryPop(), expected);
}

TEST(ConcurrentQueue, ClearLetsGoOfTheElements) {
  ConcurrentQueue<std::shared_ptr<int>> queue;
  const auto element = std::make_shared<int>(1);
  queue.Push(element);
  queue.Push(element);
  queue.TryPop();
  EXPECT_EQ(element.use_count(), 2) << "a popped element stayed behind";
  queue.Clear();
  EXPECT_EQ(element.use_count(), 1);
}

// A group that is pushed in one piece is taken in one piece, whatever others push meanwhile: the
// datagrams of one message rest on that.
TEST(ConcurrentQueue, PushAllStaysInOnePiece) {
  constexpr int kGroups = 2000;
  ConcurrentQueue<int> queue;
  std::atomic<int> producers{3};
  const auto produce = [&](bool groups) {
    for (int i = 0; i < kGroups; ++i)
      groups ? queue.PushAll({1, 2, 3}) : queue.Push(-1);
    --producers;
  };
  std::thread threads[] = {std::thread(produce, true), std::thread(produce, false),
                           std::thread(produce, true)};

  int expected = 1;
  int groups = 0;
  int single = 0;
  bool torn = false;
  for (bool last = false; !last;) {
    last = producers == 0;
    for (int item = queue.TryPop(); item != 0; item = queue.TryPop()) {
      if (item == -1) {
        ++single;
        torn = torn || expected != 1;
      } else {
        torn = torn || item != expected;
        expected = item == 3 ? 1 : item + 1;
        if (item == 3) ++groups;
      }
    }
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(torn);
  EXPECT_EQ(groups, 2 * kGroups);
  EXPECT_EQ(single, kGroups);
}

}  // namespace
