#include "runtime/ConcurrentQueue.h"

#include <gtest/gtest.h>

TEST(ConcurrentQueue, KeepsTheOrderAndGivesNothingWhenEmpty) {
  ConcurrentQueue<int> queue;
  EXPECT_EQ(queue.TryPop(), 0);
  queue.Push(1);
  queue.PushAll({2, 3});
  queue.PushFront(9);
  for (const int expected : {9, 1, 2, 3, 0})
    EXPECT_EQ(queue.TryPop(), expected);
}
