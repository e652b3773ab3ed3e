// Who on this host has a UDP port. For people who look for the program in the way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// The programs with a socket on that UDP port, at any address, as "name (process number)" in UTF-8;
// "another user's program" for one that the system doesn't name. Empty when nobody has it.
std::vector<std::string> UdpPortOwners(uint16_t port);

}  // namespace platform
