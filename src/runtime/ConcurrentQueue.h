// A locked double-ended queue for handing work between threads. No operation waits for data or for
// longer than one container operation; a consumer polls and sleeps on an event of its own. The lock
// is a leaf: nothing else is called while it is held.
#pragma once

#include <deque>
#include <mutex>
#include <utility>
#include <vector>

// A default-constructed T must be recognisable as "nothing": TryPop gives it on an empty queue.
template <typename T>
class ConcurrentQueue {
 public:
  ConcurrentQueue() = default;
  virtual ~ConcurrentQueue() = default;
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

  void Push(T item) {
    std::lock_guard lock(lock_);
    items_.push_back(std::move(item));
  }

  // Gives back an element that the consumer has popped and can't handle yet.
  void PushFront(T item) {
    std::lock_guard lock(lock_);
    items_.push_front(std::move(item));
  }

  // Appends all elements in one piece: no other producer comes between them.
  void PushAll(const std::vector<T>& items) {
    std::lock_guard lock(lock_);
    items_.insert(items_.end(), items.begin(), items.end());
  }

  T TryPop() {
    std::lock_guard lock(lock_);
    if (items_.empty()) return T();
    T item = std::move(items_.front());
    items_.pop_front();
    return item;
  }

  void Clear() {
    std::deque<T> dropped;  // destroyed after the unlock: an element's destructor may be long
    std::lock_guard lock(lock_);
    dropped.swap(items_);
  }

  size_t Size() const {
    std::lock_guard lock(lock_);
    return items_.size();
  }

 private:
  mutable std::mutex lock_;
  std::deque<T> items_;
};
