#include "runtime/LogLine.h"

#include <algorithm>
#include <cstdint>

#include "platform/clock.h"
#include "platform/text.h"
#include "platform/thread.h"

namespace {

void PutDigits(wchar_t* out, int value, int width) {
  for (int i = width; i-- > 0; value /= 10)
    out[i] = static_cast<wchar_t>(L'0' + value % 10);
}

void PutHex8(wchar_t* out, uint32_t value) {
  for (int shift = 28; shift >= 0; shift -= 4)
    *out++ = L"0123456789ABCDEF"[(value >> shift) & 0xF];
}

// No destructor: objects that outlive the thread's variables still write to the log.
struct Prefix {
  platform::LocalTime time;
  bool made = false;
  wchar_t text[38] = L"YYYY/MM/DD HH:MM:SS.mmm @ TTTTTTTT @ ";

  void Make(const platform::LocalTime& now) {
    PutDigits(text, now.year, 4);
    PutDigits(text + 5, now.month, 2);
    PutDigits(text + 8, now.day, 2);
    PutDigits(text + 11, now.hour, 2);
    PutDigits(text + 14, now.minute, 2);
    PutDigits(text + 17, now.second, 2);
    PutDigits(text + 20, now.millisecond, 3);
    PutHex8(text + 26, platform::ThreadNumber());
    time = now;
    made = true;
  }
};

bool IsHidden(wchar_t unit) {
  const auto code = static_cast<uint32_t>(unit);
  if (code >= 0x20 && code < 0x7F) return false;  // nearly all there is
  if (code < 0x20) return code != '\t' && code != '\r' && code != '\n';
  return code <= 0x9F || code == 0x61C || code == 0x200E || code == 0x200F ||
         (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

void AppendDigits(std::wstring& out, int value, int width) {
  out.resize(out.size() + static_cast<size_t>(width));
  PutDigits(out.data() + out.size() - width, value, width);
}

std::wstring_view LogPrefix() {
  thread_local Prefix prefix;
  const platform::LocalTime now = platform::GetClock().Local();
  if (!prefix.made || prefix.time != now) prefix.Make(now);
  return {prefix.text, std::size(prefix.text) - 1};
}

std::wstring FormatLogLine(const wchar_t* text, size_t length) {
  std::wstring line(LogPrefix());
  line.reserve(line.size() + length + kLogLineEnd.size());
  line.append(text, length);
  line += kLogLineEnd;
  return line;
}

void AppendShown(std::string& out, std::wstring_view line) {
  const size_t before = out.size();
  try {
    for (;;) {
      const auto hidden = std::find_if(line.begin(), line.end(), IsHidden);
      const auto plain = static_cast<size_t>(hidden - line.begin());
      out += platform::WideToUtf8Lossy(line.substr(0, plain));
      if (plain == line.size()) return;
      out += "\\u";
      for (int shift = 12; shift >= 0; shift -= 4)
        out += "0123456789abcdef"[(static_cast<uint32_t>(line[plain]) >> shift) & 0xF];
      line.remove_prefix(plain + 1);
    }
  } catch (...) {
    out.resize(before);
    throw;
  }
}
