#include "wire/BroadcastPort.h"

#include <system_error>
#include <utility>

namespace wire {

namespace {

// The system's sockets that share a port for broadcasts are none that Asio waits for, so they are
// looked at. Whoever looks for units waits for longer.
constexpr auto kLook = std::chrono::milliseconds(5);

// At one look; what is beyond waits for the next, so that a flood leaves the loop its turn.
constexpr int kMostAtOnce = 64;

constexpr size_t kLongestDatagram = 65536;

platform::SocketAddress ToSystem(const Endpoint& endpoint) {
  platform::SocketAddress address;
  address.port[0] = static_cast<uint8_t>(endpoint.port >> 8);
  address.port[1] = static_cast<uint8_t>(endpoint.port & 0xFF);
  for (int i = 0; i < 4; ++i)
    address.address[i] = static_cast<uint8_t>(endpoint.address >> (24 - 8 * i) & 0xFF);
  return address;
}

Endpoint FromSystem(const platform::SocketAddress& address) {
  Endpoint endpoint;
  for (const uint8_t part : address.address)
    endpoint.address = endpoint.address << 8 | part;
  endpoint.port = static_cast<uint16_t>(address.port[0] << 8 | address.port[1]);
  return endpoint;
}

}  // namespace

BroadcastPort::BroadcastPort(Loop& loop, const Endpoint& local,
                             std::function<void(const Datagram&)> handler)
    : handler_(std::move(handler)), timer_(loop, [this] { Look(); }) {
  platform::SocketAddress bound;
  platform::SocketResult result = sock_.OpenUdp();
  if (result.Ok()) result = sock_.Bind(ToSystem(local));
  if (result.Ok()) result = sock_.LocalAddress(&bound);
  if (!result.Ok()) {
    throw SocketError("can't listen on " + local.ToText() + ": " +
                      std::system_category().message(static_cast<int>(result.error)));
  }
  local_ = FromSystem(bound);
  timer_.At(Clock::now() + kLook);
}

void BroadcastPort::Look() {
  Bytes buffer(kLongestDatagram);
  for (int i = 0; i < kMostAtOnce; ++i) {
    platform::SocketAddress from;
    const platform::SocketResult result = sock_.RecvFrom(buffer.data(), buffer.size(), &from);
    if (result.wouldBlock) break;
    if (!result.Ok()) continue;  // what an earlier datagram met
    const auto end = buffer.begin() + static_cast<std::ptrdiff_t>(result.count);
    handler_({Bytes(buffer.begin(), end), FromSystem(from), Clock::now()});
  }
  timer_.At(Clock::now() + kLook);
}

}  // namespace wire
