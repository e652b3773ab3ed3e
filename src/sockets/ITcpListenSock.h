// Listening sockets as their users see them.
#pragma once

#include <cstdint>
#include <memory>

#include "sockets/ITcpSock.h"

namespace Network {

class ITcpListenSock;

// What a listening socket reports to its user, on the worker thread of the socket's manager. A
// callback must not block; it may use both sockets in every way. The socket holds a plain pointer:
// close the socket before the receiver dies.
class ITcpListenReceiver {
 public:
  // A new connection: gives the receiver that serves it from now on, or null to refuse it.
  virtual ITcpReceiver* OnAccept(ITcpListenSock* listener, std::shared_ptr<ITcpSock> sock) = 0;

  // The listening socket stays open.
  virtual void OnError(ITcpListenSock* listener, ErrInfo err) = 0;

 protected:
  ~ITcpListenReceiver() = default;
};

struct TcpListenSockInfo {
  NetAddr BindAddr;                              // address to listen on
  NetAddr PeerAddr;                              // this and the rest: options of the connections
  uint32_t SendChunkSize = 8192;                 // see TcpSockInfo
  uint32_t RecvBufBytes = 8192;                  // see TcpSockInfo
  ITcpReceiver* Receiver = nullptr;              // replaced by what OnAccept gives
  ITcpListenReceiver* ListenReceiver = nullptr;  // not owned; null: nothing is accepted
};

// Any thread may call these.
class ITcpListenSock {
 public:
  virtual ~ITcpListenSock() = default;

  // On an open socket: closes it first.
  virtual ErrInfo Open(const TcpListenSockInfo& info) = 0;

  // Connections already accepted stay. When it returns, no callback of this socket runs on another
  // thread and none can start. So the caller must not hold a lock that a callback takes. May be
  // called repeatedly, also from a callback; but callbacks of two managers that close each other's
  // sockets wait for ever.
  virtual void Close() = 0;

  // Close, then out of the manager's registry. Once the manager has gone, it only closes.
  virtual void Destroy() = 0;
};

}  // namespace Network
