// Makes sockets and serves them all from one worker thread.
#pragma once

#include <memory>

#include "sockets/IUdpSock.h"

namespace Network {

class ITcpSock;
class ITcpListenSock;

// Any thread may call these. Ends its worker when it is destroyed, and then closes the sockets that
// nobody else holds. A created socket is closed until its Open.
class INetManager {
 public:
  virtual ~INetManager() = default;

  virtual std::shared_ptr<IUdpSock> CreateUdpSock() = 0;
  virtual std::shared_ptr<ITcpSock> CreateTcpSock() = 0;
  virtual std::shared_ptr<ITcpListenSock> CreateTcpListenSock() = 0;

  // The working manager; its worker thread runs from now on. Throws std::system_error when the
  // system has no room for it.
  static std::unique_ptr<INetManager> Create();
};

}  // namespace Network
