// The working datagram socket. Sends on its user's thread, receives in the turns that the worker of
// its manager gives it.
//
// The locks are those of ManagedSocket; the socket's own is "UdpSock::_SockMutex".
#pragma once

#include <memory>

#include "sockets/IUdpSock.h"
#include "sockets/ManagedSocket.h"

namespace Network {

class UdpSock final : public IUdpSock, private ManagedSocket {
 public:
  explicit UdpSock(const std::shared_ptr<SocketHome>& home);
  ~UdpSock() override;

  // On an open socket: closes it first.
  ErrInfo Open(const UdpSockInfo& info) override;
  void Close() override;
  void Destroy() override;
  ErrInfo SetSendAddr(const NetAddr& addr) override;
  ErrInfo Send(const uint8_t* data, uint64_t size, const NetAddr& to) override;
  NetAddr LocalAddr() override;

  // One turn on the worker: one datagram at most. True when there may be more to do.
  bool TryReceive();

 private:
  ErrInfo SendDirect(const uint8_t* data, uint64_t size, const NetAddr& to);

  UdpSockInfo info_;
};

}  // namespace Network
