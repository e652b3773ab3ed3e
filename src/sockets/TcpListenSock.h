// The working listening socket. Accepts in the turns that the worker of its manager gives it.
//
// deliveryMutex_ is held during a turn with its callback; "TcpListenSock::_SockMutex" guards handle
// and options and isn't held during a callback. Taken in this order.
#pragma once

#include <memory>
#include <mutex>

#include "platform/socket.h"
#include "runtime/TrackedMutex.h"
#include "sockets/ITcpListenSock.h"

namespace Network {

class NetManager;

class TcpListenSock final : public ITcpListenSock {
 public:
  // The manager must live during turns and when Destroy is called, and only then.
  explicit TcpListenSock(NetManager* manager);
  ~TcpListenSock() override;
  TcpListenSock(const TcpListenSock&) = delete;
  TcpListenSock& operator=(const TcpListenSock&) = delete;

  ErrInfo Open(const TcpListenSockInfo& info) override;
  void Close() override;
  void Destroy() override;

  // One turn on the worker: takes one connection at most. True when it took one.
  bool TryAccept();

 private:
  void CloseHandle();
  void Hand(platform::Socket connection, const TcpListenSockInfo& info);

  NetManager* const manager_;
  const std::shared_ptr<platform::WakeSet> event_;

  // Not tracked: it is held as long as a receiver takes. Recursive: a callback may close the
  // socket.
  std::recursive_mutex deliveryMutex_;

  TrackedRecursiveMutex sockMutex_{L"TcpListenSock::_SockMutex"};
  TcpListenSockInfo info_;
  platform::Socket socket_;
};

}  // namespace Network
