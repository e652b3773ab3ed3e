#include "wire/PlatformAddress.h"

namespace wire {

platform::SocketAddress ToPlatform(const Endpoint& endpoint) {
  platform::SocketAddress address;
  address.port[0] = static_cast<uint8_t>(endpoint.port >> 8);
  address.port[1] = static_cast<uint8_t>(endpoint.port & 0xFF);
  for (int i = 0; i < 4; ++i)
    address.address[i] = static_cast<uint8_t>(endpoint.address >> (24 - 8 * i) & 0xFF);
  return address;
}

Endpoint ToEndpoint(const platform::SocketAddress& address) {
  Endpoint endpoint;
  for (const uint8_t part : address.address)
    endpoint.address = endpoint.address << 8 | part;
  endpoint.port = static_cast<uint16_t>(address.port[0] << 8 | address.port[1]);
  return endpoint;
}

}  // namespace wire
