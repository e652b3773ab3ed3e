#include "runtime/ConcurrentQueue.h"

#include <gtest/gtest.h>

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
  const auto produce = [&](bool groups) {
    for (int i = 0; i < kGroups; ++i)
      groups ? queue.PushAll({1, 2, 3}) : queue.Push(-1);
  };
  {
    std::jthread threads[] = {std::jthread(produce, true), std::jthread(produce, false),
                              std::jthread(produce, true)};
  }
  int expected = 1;
  int torn = 0;
  int items = 0;
  for (int item = queue.TryPop(); item != 0; item = queue.TryPop(), ++items) {
    torn += item == -1 ? expected != 1 : item != expected;
    if (item != -1) expected = item % 3 + 1;
  }
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(items, 7 * kGroups);
}

}  // namespace
