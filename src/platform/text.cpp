#include "platform/text.h"

#include <cstdint>
#include <stdexcept>

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kBad = 0xFFFFFFFF;

bool IsHighSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(char32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}
bool IsSurrogate(char32_t unit) {
  return unit >= 0xD800 && unit <= 0xDFFF;
}

[[noreturn]] void ThrowBadConversion() {
  throw std::range_error("bad conversion");
}

// Reads the code point at `pos` and moves `pos` past it. On malformed input the result is kBad and
// `pos` moves on by at least one byte, past what can't be part of a good sequence.
char32_t DecodeUtf8(std::string_view text, size_t& pos) {
  const auto byteAt = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byteAt(pos++);
  if (lead < 0x80) return lead;

  size_t continuations = 0;
  char32_t lowest = 0;
  char32_t code = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    continuations = 1;
    lowest = 0x80;
    code = lead & 0x1Fu;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    continuations = 2;
    lowest = 0x800;
    code = lead & 0x0Fu;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    continuations = 3;
    lowest = 0x10000;
    code = lead & 0x07u;
  } else {
    return kBad;
  }
  for (size_t i = 0; i < continuations; ++i) {
    if (pos == text.size() || (byteAt(pos) & 0xC0u) != 0x80u) return kBad;
    code = (code << 6) | (byteAt(pos++) & 0x3Fu);
  }
  if (code < lowest || code > 0x10FFFF || IsSurrogate(code)) return kBad;
  return code;
}

void AppendUtf16(std::wstring& out, char32_t code) {
  if (code < 0x10000) {
    out.push_back(static_cast<wchar_t>(code));
    return;
  }
  code -= 0x10000;
  out.push_back(static_cast<wchar_t>(0xD800 + (code >> 10)));
  out.push_back(static_cast<wchar_t>(0xDC00 + (code & 0x3FF)));
}

// The same for UTF-16. wchar_t is signed on some systems, so elements are looked at as char32_t.
char32_t DecodeUtf16(std::wstring_view text, size_t& pos) {
  const char32_t unit = static_cast<char32_t>(text[pos++]);
  if (unit > 0xFFFF) return kBad;
  if (!IsSurrogate(unit)) return unit;
  if (!IsHighSurrogate(unit) || pos == text.size()) return kBad;
  const char32_t low = static_cast<char32_t>(text[pos]);
  if (!IsLowSurrogate(low)) return kBad;
  ++pos;
  return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
}

void AppendUtf8(std::string& out, char32_t code) {
  const auto push = [&](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (code < 0x80) {
    push(code);
  } else if (code < 0x800) {
    push(0xC0 | (code >> 6));
    push(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    push(0xE0 | (code >> 12));
    push(0x80 | ((code >> 6) & 0x3F));
    push(0x80 | (code & 0x3F));
  } else {
    push(0xF0 | (code >> 18));
    push(0x80 | ((code >> 12) & 0x3F));
    push(0x80 | ((code >> 6) & 0x3F));
    push(0x80 | (code & 0x3F));
  }
}

enum class OnBad { Throw, Replace };

// Nearly all text is ASCII, which goes the short way in both directions: each datagram and each
// line of the log passes here.
std::wstring ToWide(std::string_view text, OnBad onBad) {
  std::wstring out(text.size(), L'\0');
  size_t pos = 0;
  for (; pos < text.size() && static_cast<uint8_t>(text[pos]) < 0x80; ++pos)
    out[pos] = static_cast<wchar_t>(text[pos]);
  out.resize(pos);
  while (pos < text.size()) {
    char32_t code = DecodeUtf8(text, pos);
    if (code == kBad) {
      if (onBad == OnBad::Throw) ThrowBadConversion();
      code = kReplacement;
    }
    AppendUtf16(out, code);
  }
  return out;
}

std::string ToUtf8(std::wstring_view text, OnBad onBad) {
  std::string out(text.size(), '\0');
  size_t pos = 0;
  for (; pos < text.size() && static_cast<char32_t>(text[pos]) < 0x80; ++pos)
    out[pos] = static_cast<char>(text[pos]);
  out.resize(pos);
  while (pos < text.size()) {
    char32_t code = DecodeUtf16(text, pos);
    if (code == kBad) {
      if (onBad == OnBad::Throw) ThrowBadConversion();
      code = kReplacement;
    }
    AppendUtf8(out, code);
  }
  return out;
}

}  // namespace

std::wstring Utf8ToWide(const std::string& text) {
  return ToWide(text, OnBad::Throw);
}
std::wstring Utf8ToWide(const char* text) {
  return ToWide(text, OnBad::Throw);
}
std::string WideToUtf8(const std::wstring& text) {
  return ToUtf8(text, OnBad::Throw);
}
std::string WideToUtf8(const wchar_t* text) {
  return ToUtf8(text, OnBad::Throw);
}

namespace platform {

std::wstring Utf8ToWideLossy(std::string_view text) {
  return ToWide(text, OnBad::Replace);
}
std::string WideToUtf8Lossy(std::wstring_view text) {
  return ToUtf8(text, OnBad::Replace);
}

std::string QuotedForSh(const std::string& text) {
  constexpr const char* kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.,:/@%+";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
  std::string quoted = "'";
  for (const char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace platform
