// The network interfaces of this host. Any thread.
#pragma once

#include <string>
#include <vector>

#include "platform/socketaddress.h"

namespace platform {

// One IPv4 address of an interface that is up; an interface with several comes several times.
struct Interface {
  std::string name;         // as the system calls it, UTF-8
  SocketAddress address;    // port 0
  SocketAddress broadcast;  // of the address's subnet, port 0; all-ones when it has none
  bool loopback = false;
};

// Empty when the system can't list them.
std::vector<Interface> ListInterfaces();

}  // namespace platform
