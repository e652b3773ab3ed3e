// Who on this host has a UDP port. For people who look for the program in the way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct PortOwner {
  std::string name;     // UTF-8; "another user's program" for one that the system doesn't name
  int process = 0;      // its number; 0: the system doesn't give it
  std::string program;  // the path of its file; empty: the system doesn't give it
};

// The programs with a socket on that UDP port, at any address. Empty when nobody has it.
std::vector<PortOwner> UdpPortOwners(uint16_t port);

}  // namespace platform
