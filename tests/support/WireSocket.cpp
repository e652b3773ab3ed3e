#include "support/WireSocket.h"

#include "support/System.h"

namespace wire {

std::string OwnAddress() {
  // Wine binds a datagram socket on any other loopback address to all addresses, and then sends
  // from this one. The tests with ports of their own run one after the other there.
  if (UnderWine()) return "127.0.0.1";
  const auto id = static_cast<uint32_t>(OwnProcessId());
  return "127." + std::to_string(1 + (id >> 16) % 200) + "." + std::to_string((id >> 8) & 0xFF) +
         "." + std::to_string(id & 0xFF);
}

uint16_t OwnBroadcastPort() {
  return static_cast<uint16_t>(20000 + OwnProcessId() % 10000);
}

}  // namespace wire
