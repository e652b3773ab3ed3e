// What a worker of network managers sleeps on. The worker sleeps on one Waiter; each manager has a
// WakeSet on it, which its sockets and any thread can signal. No wake-up is ever lost.
//
// A watched socket shares the ownership of its wake set, so it can be closed after the maker of the
// set has gone. Wait and TakeNews belong to the worker; any thread may call the rest.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace platform {

class Waiter {
 public:
  // Wake sets that a Waiter can have at a time.
  static const size_t kMostWakeSets;

  // Throws std::system_error when the system has no room for another one.
  Waiter();
  ~Waiter();
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  // Sleeps until a wake set has news, Wake was called, or the time is over; 0 only looks. May also
  // return early. What happened on a socket is fetched here alone: Socket::Pending reports what
  // happened before the latest Wait.
  void Wait(uint32_t milliseconds);

  // Ends the Wait in progress, else the next one. Several calls before a wake-up count as one.
  void Wake();

  struct Impl;
  Impl& GetImpl() { return *impl_; }  // for the wake sets of the same system

 private:
  std::unique_ptr<Impl> impl_;
};

class WakeSet {
 public:
  // Also keeps the system's socket library started. Throws std::system_error when the system has no
  // room for another set.
  explicit WakeSet(std::shared_ptr<Waiter> waiter);
  ~WakeSet();
  WakeSet(const WakeSet&) = delete;
  WakeSet& operator=(const WakeSet&) = delete;

  // Makes news, which wakes the worker.
  void Signal();

  // True when there was news, a signal or an event of a watched socket, since the latest call.
  bool TakeNews() { return news_.load(std::memory_order_relaxed) && news_.exchange(false); }

  // From now on its sockets, also those that are opened later, are watched no more, and the worker
  // isn't woken by them.
  void Close();

  struct Impl;
  Impl& GetImpl() { return *impl_; }  // for the sockets of the same system

 private:
  std::atomic<bool> news_{false};
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
