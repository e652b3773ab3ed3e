// Makes sockets and serves them all from one worker thread: their callbacks run there, one at a
// time.
#pragma once

#include <memory>

#include "sockets/IUdpSock.h"

namespace Network {

class ITcpSock;
class ITcpListenSock;

// Which worker thread serves a manager.
enum class NetWorker {
  Own,    // one for this manager alone
  Shared  // one of a few in the process, at most one a core, that all such managers share. For many
          // managers with short callbacks, as each callback holds up the sockets of the others
};

// Any thread may call these. A created socket is closed until its Open. When the manager has been
// destroyed, no callback of its sockets runs and none can start, and the sockets that nobody else
// holds are closed. So it mustn't be destroyed in such a callback, and the thread that destroys
// it holds no lock that one of them takes.
class INetManager {
 public:
  virtual ~INetManager() = default;

  virtual std::shared_ptr<IUdpSock> CreateUdpSock() = 0;
  virtual std::shared_ptr<ITcpSock> CreateTcpSock() = 0;
  virtual std::shared_ptr<ITcpListenSock> CreateTcpListenSock() = 0;

  // The working manager. Throws std::system_error when the system has no room for it.
  static std::unique_ptr<INetManager> Create(NetWorker worker = NetWorker::Own);
};

}  // namespace Network
