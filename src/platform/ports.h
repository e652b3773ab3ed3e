// Who on this host has which UDP port. For people who look for the program in the way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct PortOwner {
  uint16_t port = 0;
  std::string name;     // UTF-8; "another user's program" for one that the system doesn't name
  int process = 0;      // its number; 0: the system doesn't give it
  std::string program;  // the path of its file; empty: the system doesn't give it
};

// The UDP ports that are in use, at any address, each with a program that has it: a port that
// several programs have comes several times.
std::vector<PortOwner> UdpPortOwners();

}  // namespace platform
