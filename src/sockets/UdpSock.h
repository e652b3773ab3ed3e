// The working datagram socket. Sends on its user's thread, receives in the turns that the worker of
// its manager gives it.
//
// deliveryMutex_ is held during a turn with its callback; "UdpSock::_SockMutex" guards handle and
// options and isn't held during a callback. Taken in this order.
#pragma once

#include <memory>
#include <mutex>

#include "platform/socket.h"
#include "runtime/TrackedMutex.h"
#include "sockets/IUdpSock.h"

namespace Network {

class NetManager;

class UdpSock final : public IUdpSock {
 public:
  // The manager must live when Destroy is called, and only then.
  explicit UdpSock(NetManager* manager);
  ~UdpSock() override;
  UdpSock(const UdpSock&) = delete;
  UdpSock& operator=(const UdpSock&) = delete;

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
  void CloseHandle();

  NetManager* const manager_;
  const std::shared_ptr<platform::WakeSet> event_;

  // Not tracked: it is held as long as a receiver takes. Recursive: a callback may close the
  // socket.
  std::recursive_mutex deliveryMutex_;

  TrackedRecursiveMutex sockMutex_{L"UdpSock::_SockMutex"};
  UdpSockInfo info_;
  platform::Socket socket_;
};

}  // namespace Network
