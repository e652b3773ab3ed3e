// The working listening socket. Accepts in the turns that the worker of its manager gives it.
//
// The locks are those of ManagedSocket; the socket's own is "TcpListenSock::_SockMutex".
#pragma once

#include <memory>

#include "sockets/ITcpListenSock.h"
#include "sockets/ManagedSocket.h"

namespace Network {

class TcpListenSock final : public ITcpListenSock, private ManagedSocket {
 public:
  explicit TcpListenSock(const std::shared_ptr<SocketHome>& home);
  ~TcpListenSock() override;

  ErrInfo Open(const TcpListenSockInfo& info) override;
  void Close() override;
  void Destroy() override;

  // One turn on the worker: takes one connection at most. True when it took one.
  bool TryAccept();

 private:
  void Hand(platform::Socket connection, const TcpListenSockInfo& info);

  TcpListenSockInfo info_;
};

}  // namespace Network
