#include "wire/BroadcastPort.h"

#include <system_error>
#include <utility>

#include "wire/PlatformAddress.h"

namespace wire {

namespace {

// The system's sockets that share a port for broadcasts are none that Asio waits for, so they are
// looked at. Whoever looks for units waits for longer.
constexpr auto kLook = std::chrono::milliseconds(5);

// At one look; what is beyond waits for the next, so that a flood leaves the loop its turn.
constexpr int kMostAtOnce = 64;

constexpr size_t kLongestDatagram = 65536;

}  // namespace

BroadcastPort::BroadcastPort(Loop& loop, const Endpoint& local,
                             std::function<void(const Datagram&)> handler)
    : handler_(std::move(handler)), timer_(loop, [this] { Look(); }) {
  platform::SocketAddress bound;
  platform::SocketResult result = sock_.OpenUdp();
  if (result.Ok()) result = sock_.Bind(ToPlatform(local));
  if (result.Ok()) result = sock_.LocalAddress(&bound);
  if (!result.Ok()) {
    throw SocketError("can't listen on " + local.ToText() + ": " +
                      std::system_category().message(static_cast<int>(result.error)));
  }
  local_ = ToEndpoint(bound);
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
    handler_({Bytes(buffer.begin(), end), ToEndpoint(from), Clock::now()});
  }
  timer_.At(Clock::now() + kLook);
}

}  // namespace wire
