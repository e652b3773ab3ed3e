// Fills the system's message formats: a small typed stand-in for wide printf, which means
// different things by %s on different systems.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

// One argument: a text or an integer. Refers to the text, which must outlive the call.
class FormatArg {
 public:
  FormatArg(const std::wstring& text) : text_(text) {}
  FormatArg(std::wstring_view text) : text_(text) {}
  FormatArg(const wchar_t* text) : text_(text) {}
  template <typename T>
  requires std::is_integral_v<T> FormatArg(T number) : number_(static_cast<int64_t>(number)) {}

  std::wstring_view Text() const { return text_; }
  int64_t Number() const { return number_; }

 private:
  std::wstring_view text_;
  int64_t number_ = 0;
};

// Replaces, in order, each "%s" by a text, each "%d" by an integer cut to signed 32 bits, and each
// "%I64d" by a signed 64-bit integer, all in decimal without grouping. "%%" gives one "%". Any
// other text stays as it is; a placeholder without an argument gives nothing.
std::wstring FormatText(std::wstring_view format, const FormatArg* args, size_t count);

template <typename... Args>
std::wstring Format(std::wstring_view format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg(0)};
  return FormatText(format, list, sizeof...(args));
}
