// An IPv4 address with a port, and the words that the whole far end uses for bytes and time. Plain
// values.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wire {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

struct Endpoint {
  uint32_t address = 0;  // host byte order: 127.0.0.1 is 0x7F000001
  uint16_t port = 0;

  Endpoint() = default;  // 0.0.0.0, port 0: any local address, any free port
  constexpr Endpoint(uint32_t hostOrder, uint16_t portNumber)
      : address(hostOrder), port(portNumber) {}

  // Throws std::invalid_argument when `ip` isn't a.b.c.d.
  Endpoint(const std::string& ip, uint16_t portNumber);

  // a.b.c.d or a.b.c.d:port, four decimal parts without leading zeros; nothing for any other text.
  static std::optional<Endpoint> Parse(std::string_view text);

  std::string Ip() const;      // a.b.c.d
  std::string ToText() const;  // a.b.c.d:port, or a.b.c.d where the port is 0

  // By address, then by port.
  auto operator<=>(const Endpoint&) const = default;
};

}  // namespace wire
