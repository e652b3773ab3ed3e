// How a wake set and its sockets know each other here: all sockets of a set signal its one event,
// and the waiter waits for the events of all its sets.
#pragma once

#include <mutex>
#include <vector>

#include "platform/wakeset.h"
#include "platform/win32/win.h"

namespace platform {

// An auto-reset event.
struct SocketEventHandle {
  SocketEventHandle();
  ~SocketEventHandle();
  SocketEventHandle(const SocketEventHandle&) = delete;
  SocketEventHandle& operator=(const SocketEventHandle&) = delete;

  HANDLE handle;
};

// mutex guards `sets`. A Wait in progress keeps the events that it waits for.
struct Waiter::Impl {
  struct Set {
    std::shared_ptr<SocketEventHandle> event;
    std::atomic<bool>* news;
  };

  void Note(size_t index);

  SocketEventHandle wake;
  std::mutex mutex;
  std::vector<Set> sets;
  std::atomic<bool> changed{false};  // `sets`, since Wait has copied it

  // Of the thread in Wait: what it waits for.
  std::vector<Set> waited;
  std::vector<HANDLE> handles;  // of `wake`, then of `waited`
};

struct WakeSet::Impl {
  std::shared_ptr<Waiter> waiter;
  std::shared_ptr<SocketEventHandle> event;
};

// Starts the system's socket library, once for the process; it ends with the process.
void StartSockets();

}  // namespace platform
