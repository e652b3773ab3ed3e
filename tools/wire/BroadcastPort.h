// A UDP port that only listens, and on an interface's own address hears the broadcasts of that
// interface too, which a UdpPort doesn't on every system. On the thread of its loop, and only while
// that runs: see Loop.h.
#pragma once

#include <functional>

#include "platform/socket.h"
#include "wire/Loop.h"

namespace wire {

class BroadcastPort {
 public:
  // Throws SocketError. `handler` mustn't destroy the port.
  BroadcastPort(Loop& loop, const Endpoint& local, std::function<void(const Datagram&)> handler);

  const Endpoint& Local() const { return local_; }

 private:
  void Look();

  const std::function<void(const Datagram&)> handler_;
  platform::Socket sock_;
  Endpoint local_;
  Timer timer_;
};

}  // namespace wire
