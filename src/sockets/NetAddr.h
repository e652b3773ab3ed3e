// The one value type for an IPv4 endpoint. Laid out as the platform's IPv4 socket address, so that
// it goes to the socket calls unchanged.
#pragma once

#include <cstdint>
#include <string>

#include "platform/socketaddress.h"

namespace Network {

class NetAddr {
 public:
  // Undefined.
  NetAddr() = default;

  explicit NetAddr(const platform::SocketAddress& raw) : raw_(raw) {}

  // The address isn't the undefined one. The port plays no part. So 255.255.255.255 can't be held:
  // no socket binds to it or sends to it.
  bool IsDefined() const;

  // Takes a.b.c.d or a.b.c.d:port, strictly: four decimal parts without leading zeros, nothing
  // after them. Without a port the port is 0. On a text that can't be taken the address becomes
  // undefined with port 0. True when the address is defined now.
  bool SetFromText(const wchar_t* text);
  bool SetFromText(const std::wstring& text);

  // Takes a.b.c.d, ignoring text after the address such as a colon and a port, and the low 16 bits
  // of `port` (host order). Failure and result as above.
  bool SetFromTextAndPort(const wchar_t* text, uint32_t port);
  bool SetFromTextAndPort(const std::wstring& text, uint32_t port);

  // a.b.c.d:port, or a.b.c.d when the port is 0. Undefined prints as 255.255.255.255.
  std::wstring ToText() const;

  uint16_t Port() const;  // host order; 0 when none

  // As the socket calls take it.
  const platform::SocketAddress& Raw() const { return raw_; }

  bool operator==(const NetAddr&) const = default;

 private:
  platform::SocketAddress raw_;
};

static_assert(sizeof(NetAddr) == 16);

}  // namespace Network
