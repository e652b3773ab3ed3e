// Datagram sockets as their users see them.
#pragma once

#include <cstdint>
#include <memory>

#include "runtime/ErrInfo.h"
#include "sockets/NetAddr.h"
#include "sockets/Packet.h"

namespace Network {

class IUdpSock;

// What a socket delivers to, on the worker thread of the socket's manager. A callback must not
// block; it may send on the socket, close it, and create or remove sockets. The socket holds a
// plain pointer: close the socket before the receiver dies.
class IUdpReceiver {
 public:
  // One datagram; the packet's size is the datagram's.
  virtual void OnDatagramReceived(IUdpSock* sock, std::shared_ptr<Packet> packet,
                                  const NetAddr& from) = 0;
  virtual void OnError(IUdpSock* sock, ErrInfo err) = 0;

 protected:
  ~IUdpReceiver() = default;
};

struct UdpSockInfo {
  NetAddr BindAddr;                  // undefined: neither bound nor watched, a send-only socket
  NetAddr SendAddr;                  // default destination of Send
  bool Broadcast = false;            // permission to send to broadcast addresses
  uint32_t MaxPacketSize = 1432;     // bytes; a larger datagram is a receive error
  IUdpReceiver* Receiver = nullptr;  // not owned
};

// Any thread may call these.
class IUdpSock {
 public:
  virtual ~IUdpSock() = default;

  virtual ErrInfo Open(const UdpSockInfo& info) = 0;

  // When it returns, no callback of this socket runs on another thread and none can start. So the
  // caller must not hold a lock that a callback takes. May be called repeatedly, also from a
  // callback; but callbacks of two managers that close each other's sockets wait for ever.
  virtual void Close() = 0;

  // Close, then out of the manager's registry. Once the manager has gone, it only closes.
  virtual void Destroy() = 0;

  // Always succeeds.
  virtual ErrInfo SetSendAddr(const NetAddr& addr) = 0;

  // Sends one datagram on the caller's thread, without waiting: to `to` if that is defined, else to
  // SendAddr. A full send buffer is a failure.
  virtual ErrInfo Send(const uint8_t* data, uint64_t size, const NetAddr& to) = 0;

  // The address that the socket is bound to, with the port that the system chose for port 0;
  // undefined while it isn't bound, and for a socket of a user's own that doesn't know better.
  virtual NetAddr LocalAddr() { return NetAddr(); }
};

}  // namespace Network
