// What all sockets of a network manager share: the handle with its lock, Close with its promise,
// and the steps of Open.
//
// deliveryMutex_ is held during a turn with its callbacks; sockMutex_ guards handle and options and
// isn't held during a callback. Taken in this order.
#pragma once

#include <memory>
#include <mutex>

#include "platform/socket.h"
#include "runtime/ErrInfo.h"
#include "runtime/TrackedMutex.h"
#include "sockets/SocketHome.h"

namespace Network {

class ManagedSocket {
 public:
  ManagedSocket(const ManagedSocket&) = delete;
  ManagedSocket& operator=(const ManagedSocket&) = delete;

 protected:
  ManagedSocket(const std::shared_ptr<SocketHome>& home, const wchar_t* mutexName,
                platform::Socket socket = platform::Socket());
  ~ManagedSocket() = default;  // an heir closes itself in its own destructor

  // Closes the handle at once, also in the middle of a turn. An heir with more to end adds to it.
  virtual void CloseHandle();

  // CloseHandle, and when it returns, no callback of this socket runs on another thread and none
  // can start.
  void CloseAndWait();

  // One step of Open. False when `result` is a failure: then the handle is closed, and `err` has
  // the error number and the text `failure`.
  bool Passed(const platform::SocketResult& result, const wchar_t* failure, ErrInfo* err);

  const std::weak_ptr<SocketHome> home_;  // gone: the manager has ended
  const std::shared_ptr<platform::WakeSet> event_;

  // Not tracked: it is held as long as a receiver takes. Recursive: a callback may close the
  // socket.
  std::recursive_mutex deliveryMutex_;

  TrackedRecursiveMutex sockMutex_;
  platform::Socket socket_;
};

}  // namespace Network
