#include "wire/Endpoint.h"

#include <charconv>
#include <stdexcept>

namespace wire {

namespace {

// Takes a decimal number up to `limit` off the front of `text`. A leading zero is refused: half of
// the world's programs read the number as octal then.
std::optional<uint32_t> TakeNumber(std::string_view& text, uint32_t limit) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const auto digits = static_cast<size_t>(end - text.data());
  if (error != std::errc() || value > limit || (digits > 1 && text[0] == '0')) return std::nullopt;
  text.remove_prefix(digits);
  return value;
}

bool TakeChar(std::string_view& text, char c) {
  if (!text.starts_with(c)) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

std::optional<Endpoint> Endpoint::Parse(std::string_view text) {
  Endpoint endpoint;
  for (int part = 0; part < 4; ++part) {
    if (part > 0 && !TakeChar(text, '.')) return std::nullopt;
    const auto value = TakeNumber(text, 255);
    if (!value) return std::nullopt;
    endpoint.address = endpoint.address << 8 | *value;
  }
  if (TakeChar(text, ':')) {
    const auto value = TakeNumber(text, 65535);
    if (!value) return std::nullopt;
    endpoint.port = static_cast<uint16_t>(*value);
  }
  if (!text.empty()) return std::nullopt;
  return endpoint;
}

Endpoint::Endpoint(const std::string& ip, uint16_t portNumber) : port(portNumber) {
  const auto parsed = Parse(ip);
  if (!parsed || ip.find(':') != std::string::npos) {
    throw std::invalid_argument("\"" + ip + "\" is no address; it must read a.b.c.d");
  }
  address = parsed->address;
}

std::string Endpoint::Ip() const {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (!text.empty()) text += '.';
    text += std::to_string(address >> shift & 0xFF);
  }
  return text;
}

std::string Endpoint::ToText() const {
  return port == 0 ? Ip() : Ip() + ":" + std::to_string(port);
}

}  // namespace wire
