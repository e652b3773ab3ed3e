// How a wake set and its sockets know each other here: all sockets signal the set's one event.
#pragma once

#include "platform/wakeset.h"
#include "platform/win32/win.h"

namespace platform {

struct WakeSet::Impl {
  Impl();
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  HANDLE event = nullptr;  // auto-reset
};

// Starts the system's socket library, once for the process; it ends with the process.
void StartSockets();

}  // namespace platform
