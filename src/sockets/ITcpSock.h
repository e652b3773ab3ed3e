// Stream sockets as their users see them.
#pragma once

#include <cstdint>
#include <memory>

#include "runtime/ErrInfo.h"
#include "sockets/NetAddr.h"
#include "sockets/Packet.h"

namespace Network {

class ITcpSock;

// What a stream socket reports to its user, on the worker thread of the socket's manager. A
// callback must not block; it may use the socket in every way, Destroy included. The socket holds a
// plain pointer: close the socket before the receiver dies.
class ITcpReceiver {
 public:
  // The connection that Open has made is being served now. Never comes for an accepted one.
  virtual void OnConnected(ITcpSock* sock) = 0;

  // Bytes from the peer, the packet's size many; their division into packets means nothing. A size
  // of 0 says that the peer has closed. True: the receiver keeps the packet. False: the socket
  // receives into the same packet again.
  virtual bool OnData(ITcpSock* sock, std::shared_ptr<Packet>& packet) = 0;

  // The connection has ended, by the peer or by a failure; the socket is closed already.
  virtual void OnError(ITcpSock* sock, ErrInfo err) = 0;

 protected:
  ~ITcpReceiver() = default;
};

struct TcpSockInfo {
  NetAddr BindAddr;                  // local address; undefined: the system chooses
  NetAddr PeerAddr;                  // address to connect to
  uint32_t SendChunkSize = 8192;     // bytes of the largest packet that Send makes of a byte range
  uint32_t RecvBufBytes = 8192;      // bytes of the largest packet that OnData gets
  ITcpReceiver* Receiver = nullptr;  // not owned
};

// Any thread may call these.
class ITcpSock {
 public:
  virtual ~ITcpSock() = default;

  // Connects, and blocks until the connection stands or fails. A socket must be closed before it is
  // opened again, also after an Open that failed for its undefined PeerAddr.
  virtual ErrInfo Open(const TcpSockInfo& info) = 0;

  // Drops what waits to be sent. When it returns, no callback of this socket runs on another thread
  // and none can start. So the caller must not hold a lock that a callback takes. May be called
  // repeatedly, also from a callback; but callbacks of two managers that close each other's sockets
  // wait for ever.
  virtual void Close() = 0;

  // Close, then out of the manager's registry. Once the manager has gone, it only closes.
  virtual void Destroy() = 0;

  // Queues a packet, which must not change any more; the worker sends it whole, in order. Never
  // waits. Success says nothing about its arrival; a failure to send it comes to OnError.
  virtual ErrInfo Send(std::shared_ptr<Packet> packet) = 0;

  // The same with a copy of a byte range, in packets of SendChunkSize.
  virtual ErrInfo Send(const uint8_t* data, uint64_t size) = 0;
};

}  // namespace Network
