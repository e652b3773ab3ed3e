#include "runtime/Format.h"

std::wstring FormatText(std::wstring_view format, const FormatArg* args, size_t count) {
  static const FormatArg nothing(std::wstring_view{});
  size_t used = 0;
  const auto next = [&]() -> const FormatArg& { return used < count ? args[used++] : nothing; };

  std::wstring out;
  out.reserve(format.size() + 64);
  while (!format.empty()) {
    if (format.starts_with(L"%s")) {
      out += next().Text();
      format.remove_prefix(2);
    } else if (format.starts_with(L"%d")) {
      out += std::to_wstring(static_cast<int32_t>(next().Number()));
      format.remove_prefix(2);
    } else if (format.starts_with(L"%I64d")) {
      out += std::to_wstring(next().Number());
      format.remove_prefix(5);
    } else {
      if (format.starts_with(L"%%")) format.remove_prefix(1);
      out += format.front();
      format.remove_prefix(1);
    }
  }
  return out;
}
