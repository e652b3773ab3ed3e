#include "runtime/LogLine.h"

#include <cstdint>

#include "platform/clock.h"
#include "platform/thread.h"

namespace {

constexpr size_t kPrefixLength = 37;
constexpr size_t kLineEndLength = 2;

void AppendHex8(std::wstring& out, uint32_t value) {
  for (int shift = 28; shift >= 0; shift -= 4)
    out += L"0123456789ABCDEF"[(value >> shift) & 0xF];
}

}  // namespace

void AppendDigits(std::wstring& out, int value, int width) {
  wchar_t digits[8];
  for (int i = width; i-- > 0; value /= 10)
    digits[i] = static_cast<wchar_t>(L'0' + value % 10);
  out.append(digits, static_cast<size_t>(width));
}

std::wstring FormatLogLine(const wchar_t* text, size_t length) {
  const platform::LocalTime now = platform::GetClock().Local();
  std::wstring line;
  // As much as it takes and no more: in a flood many lines wait.
  line.reserve(kPrefixLength + length + kLineEndLength);
  AppendDigits(line, now.year, 4);
  line += L'/';
  AppendDigits(line, now.month, 2);
  line += L'/';
  AppendDigits(line, now.day, 2);
  line += L' ';
  AppendDigits(line, now.hour, 2);
  line += L':';
  AppendDigits(line, now.minute, 2);
  line += L':';
  AppendDigits(line, now.second, 2);
  line += L'.';
  AppendDigits(line, now.millisecond, 3);
  line += L" @ ";
  AppendHex8(line, platform::ThreadNumber());
  line += L" @ ";
  line.append(text, length);
  line += L"\r\n";
  return line;
}
