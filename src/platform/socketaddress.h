// An IPv4 endpoint as the socket calls of every system take it. A plain value.
#pragma once

#include <cstdint>

namespace platform {

// The bytes of the system's IPv4 socket address (sockaddr_in). All-ones until it is filled in.
struct SocketAddress {
  uint16_t family = 2;                            // the IPv4 family, host order
  uint8_t port[2] = {};                           // network byte order
  uint8_t address[4] = {0xFF, 0xFF, 0xFF, 0xFF};  // network byte order: a.b.c.d from the front
  uint8_t filler[8] = {};                         // zero

  bool operator==(const SocketAddress&) const = default;
};

static_assert(sizeof(SocketAddress) == 16);

}  // namespace platform
