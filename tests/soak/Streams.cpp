#include "soak/Streams.h"

#include <algorithm>

namespace soak {

namespace {

constexpr double kTicksPerSecond = 48000.0 / 192;

}  // namespace

Stream::Stream(const std::string& address)
    : socket_({address, 0}, [this](const wire::Datagram& datagram) { OnDatagram(datagram); }) {}

Stream::Result Stream::SoFar() const {
  std::lock_guard lock(mutex_);
  if (received_ == 0) return {};
  const double due = std::chrono::duration<double>(last_ - first_).count() * kTicksPerSecond;
  return {received_, std::max(0.0, due - static_cast<double>(ticks_)),
          static_cast<uint64_t>(ticks_) + 1 - std::min<uint64_t>(received_, ticks_ + 1ULL),
          std::chrono::duration<double, std::milli>(longestPause_).count()};
}

void Stream::OnDatagram(const wire::Datagram& datagram) {
  if (datagram.bytes.size() < 12) return;
  const auto number = static_cast<uint16_t>(datagram.bytes[2] << 8 | datagram.bytes[3]);
  std::lock_guard lock(mutex_);
  if (received_ == 0) {
    first_ = datagram.time;
  } else {
    // Through the wrap of the 16 bits; on loopback nothing overtakes.
    ticks_ += static_cast<uint16_t>(number - lastNumber_);
    longestPause_ = std::max(longestPause_, datagram.time - last_);
  }
  ++received_;
  lastNumber_ = number;
  last_ = datagram.time;
}

}  // namespace soak
