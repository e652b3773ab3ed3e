// The converter between UTF-8 and the system's text. Units above 0x7F are written as numbers, as a
// wide literal beyond U+FFFF is one element here and two there.
#include "platform/text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

std::wstring Units(std::initializer_list<uint32_t> units) {
  std::wstring text;
  for (const uint32_t unit : units)
    text += static_cast<wchar_t>(unit);
  return text;
}

TEST(Text, GoodTextComesBackAsItWas) {
  const std::pair<std::string, std::wstring> cases[] = {
      {"", Units({})},
      {std::string("a\0b", 3), Units({'a', 0, 'b'})},
      {"\xC2\x80\xDF\xBF", Units({0x80, 0x7FF})},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", Units({0x800, 0xD7FF, 0xE000, 0xFFFF})},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", Units({0xD800, 0xDC00, 0xDBFF, 0xDFFF})},
      {"\xEF\xBB\xBFx", Units({0xFEFF, 'x'})},  // a byte order mark is a character like others
  };
  for (const auto& [utf8, wide] : cases) {
    EXPECT_EQ(Utf8ToWide(utf8), wide);
    EXPECT_EQ(WideToUtf8(wide), utf8);
    EXPECT_EQ(platform::Utf8ToWideLossy(utf8), wide);
    EXPECT_EQ(platform::WideToUtf8Lossy(wide), utf8);
  }
}

TEST(Text, MalformedUtf8IsRefusedOrReplaced) {
  const std::wstring bad = Units({0xFFFD});
  const std::pair<std::string, std::wstring> cases[] = {
      {"\xFF", bad},
      {"\xF0\x9D\x84", bad},              // ends too early
      {"\xE2\xC3\xA4", bad + L"\u00E4"},  // a character begins too early
      {"\xF0\x8F\xBF\xBF", bad},          // longer than it has to be
      {"\xF4\x90\x80\x80", bad},          // above U+10FFFF
      {"\xF8\x88\x80\x80\x80", bad + bad + bad + bad + bad},
  };
  for (const auto& [utf8, lossy] : cases) {
    EXPECT_THROW(Utf8ToWide(utf8), std::range_error) << testing::PrintToString(utf8);
    EXPECT_EQ(platform::Utf8ToWideLossy(utf8), lossy) << testing::PrintToString(utf8);
  }
}

TEST(Text, ElementsThatAreNoUtf16AreRefusedOrReplaced) {
  const std::string bad = "\xEF\xBF\xBD";
  std::vector<std::pair<std::wstring, std::string>> cases = {
      {Units({'a', 0xD800}), "a" + bad},
      {Units({0xDBFF, 'z'}), bad + "z"},
      {Units({0xDC00, 'z'}), bad + "z"},
      {Units({0xD800, 0xD834, 0xDD1E}), bad + "\xF0\x9D\x84\x9E"},
  };
  // Where wchar_t has 32 bits, an element can hold what is no UTF-16 unit.
  if (sizeof(wchar_t) > 2) {
    for (const uint32_t element : {0x10000u, 0x10FFFFu, 0x80000041u})
      cases.emplace_back(Units({element}), bad);
  }
  for (const auto& [wide, lossy] : cases) {
    EXPECT_THROW(WideToUtf8(wide), std::range_error) << lossy;
    EXPECT_EQ(platform::WideToUtf8Lossy(wide), lossy);
  }
}

// Of all sequences of two and three bytes, as many are good as there are characters of that length.
TEST(Text, EveryShortSequenceIsJudgedRightly) {
  const auto lossy = [](const std::string& bytes) {
    return platform::WideToUtf8Lossy(platform::Utf8ToWideLossy(bytes)) == bytes;
  };
  int lossy2 = 0;
  int lossy3 = 0;
  for (int a = 0x80; a < 0x100; ++a) {
    for (int b = 0; b < 0x100; ++b) {
      const std::string two{static_cast<char>(a), static_cast<char>(b)};
      lossy2 += lossy(two);
      for (int c = 0x80; c < 0x100; ++c)
        lossy3 += lossy(two + static_cast<char>(c));
    }
  }
  EXPECT_EQ(lossy2, 0x800 - 0x80);
  EXPECT_EQ(lossy3, 0x10000 - 0x800 - 0x800) << "all but the surrogates";
}

}  // namespace
