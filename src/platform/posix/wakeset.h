// The wake set as the sockets of this folder use it.
//
// mutex guards `watches` and each change of the epoll set, so that an event read before a
// descriptor was removed finds nothing any more, instead of a socket that has gone.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "platform/wakeset.h"

namespace platform {

// A file descriptor and what epoll has told about it since it was last asked.
struct WatchedDescriptor {
  std::atomic<int> fd{-1};
  std::atomic<uint32_t> ready{0};  // EPOLL… bits, added by the thread in WakeSet::Wait
  uint64_t watch = 0;              // key in the wake set; 0: not watched
};

struct WakeSet::Impl {
  // `descriptor` stays where it is until Remove. `events`: EPOLL… bits. Returns the error number.
  uint32_t Add(WatchedDescriptor& descriptor, uint32_t events);
  void Remove(WatchedDescriptor& descriptor);

  int epoll = -1;
  int signal = -1;  // eventfd behind WakeSet::Signal
  std::mutex mutex;
  std::unordered_map<uint64_t, WatchedDescriptor*> watches;
  uint64_t lastWatch = 0;
};

}  // namespace platform
