#include "runtime/ConcurrentQueue.h"

#include <gtest/gtest.h>

#include <memory>

TEST(ConcurrentQueue, KeepsTheOrderAndGivesNothingWhenEmpty) {
  ConcurrentQueue<int> queue;
  EXPECT_EQ(queue.TryPop(), 0);
  queue.Push(1);
  queue.PushAll({2, 3});
  queue.PushFront(9);
  for (const int expected : {9, 1, 2, 3, 0})
    EXPECT_EQ(queue.TryPop(), expected);
}

TEST(ConcurrentQueue, LetsGoOfItsElements) {
  ConcurrentQueue<std::shared_ptr<int>> queue;
  const auto element = std::make_shared<int>(1);
  queue.Push(element);
  queue.Push(element);
  queue.TryPop();
  EXPECT_EQ(element.use_count(), 2);
  queue.Clear();
  EXPECT_EQ(element.use_count(), 1);
}
