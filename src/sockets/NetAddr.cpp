#include "sockets/NetAddr.h"

#include <algorithm>

namespace Network {

namespace {

bool IsDigit(wchar_t c) {
  return c >= L'0' && c <= L'9';
}

// Reads one to `maxDigits` decimal digits at `text`, up to `maxValue`, and moves `text` past
// them. False when they don't fit.
bool ReadNumber(const wchar_t*& text, int maxDigits, uint32_t maxValue, uint32_t* value) {
  int digits = 0;
  *value = 0;
  for (; IsDigit(*text); ++text) {
    if (++digits > maxDigits) return false;
    *value = *value * 10 + static_cast<uint32_t>(*text - L'0');
  }
  return digits > 0 && *value <= maxValue;
}

// Reads a.b.c.d at `text` and moves `text` past it. A part with a leading zero is refused: other
// programs take it for octal.
bool ReadAddress(const wchar_t*& text, uint8_t (&address)[4]) {
  for (size_t i = 0; i < 4; ++i) {
    if (i > 0 && *text++ != L'.') return false;
    if (text[0] == L'0' && IsDigit(text[1])) return false;
    uint32_t part = 0;
    if (!ReadNumber(text, 3, 255, &part)) return false;
    address[i] = static_cast<uint8_t>(part);
  }
  return *text != L'.';
}

void StorePort(uint32_t port, platform::SocketAddress* raw) {
  raw->port[0] = static_cast<uint8_t>(port >> 8);
  raw->port[1] = static_cast<uint8_t>(port);
}

}  // namespace

bool NetAddr::IsDefined() const {
  return std::any_of(std::begin(raw_.address), std::end(raw_.address),
                     [](uint8_t part) { return part != 0xFF; });
}

bool NetAddr::SetFromText(const wchar_t* text) {
  raw_ = {};
  platform::SocketAddress raw;
  uint32_t port = 0;
  if (!text || !ReadAddress(text, raw.address)) return false;
  if (*text == L':' && !ReadNumber(++text, 5, 65535, &port)) return false;
  if (*text != 0) return false;
  StorePort(port, &raw);
  raw_ = raw;
  return IsDefined();
}

bool NetAddr::SetFromText(const std::wstring& text) {
  // Nothing may follow the address, and so nothing may follow a NUL either.
  return SetFromText(text.find(L'\0') == std::wstring::npos ? text.c_str() : nullptr);
}

bool NetAddr::SetFromTextAndPort(const wchar_t* text, uint32_t port) {
  raw_ = {};
  platform::SocketAddress raw;
  if (!text || !ReadAddress(text, raw.address)) return false;
  StorePort(port, &raw);
  raw_ = raw;
  return IsDefined();
}

bool NetAddr::SetFromTextAndPort(const std::wstring& text, uint32_t port) {
  return SetFromTextAndPort(text.c_str(), port);
}

std::wstring NetAddr::ToText() const {
  std::wstring text;
  for (uint8_t part : raw_.address) {
    if (!text.empty()) text += L'.';
    text += std::to_wstring(part);
  }
  if (Port() != 0) text += L':' + std::to_wstring(Port());
  return text;
}

uint16_t NetAddr::Port() const {
  return static_cast<uint16_t>(raw_.port[0] << 8 | raw_.port[1]);
}

}  // namespace Network
