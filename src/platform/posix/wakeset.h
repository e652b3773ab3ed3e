// The wake set as the sockets of this folder use it. All wake sets of a waiter share its one epoll
// set.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "platform/wakeset.h"

namespace platform {

// A file descriptor and what epoll has reported about it since it was last asked.
struct WatchedDescriptor {
  std::atomic<int> fd{-1};
  std::atomic<uint32_t> ready{0};  // EPOLL… bits, added by the thread in Waiter::Wait
  uint64_t watch = 0;              // key in the waiter; 0: not watched
};

// mutex guards `watches`, each change of the epoll set and the `closed` of the wake sets, so that
// an event read before a descriptor was removed finds nothing any more, instead of a socket that
// has gone.
struct Waiter::Impl {
  struct Watch {
    WatchedDescriptor* descriptor;
    std::atomic<bool>* news;  // of its wake set
  };

  int epoll = -1;
  int signal = -1;  // eventfd that Wake writes to
  std::mutex mutex;
  std::unordered_map<uint64_t, Watch> watches;
  uint64_t lastWatch = 0;
};

struct WakeSet::Impl {
  // `descriptor` stays where it is until Remove. `events`: EPOLL… bits. Returns the error number.
  uint32_t Add(WatchedDescriptor& descriptor, uint32_t events);
  void Remove(WatchedDescriptor& descriptor);

  std::shared_ptr<Waiter> waiter;
  std::atomic<bool>* news;
  bool closed = false;
};

}  // namespace platform
