// The converter between UTF-8 and the system's text. Units above 0x7F are written as numbers, as a
// wide literal beyond U+FFFF is one element here and two there.
#include "platform/text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

namespace {

std::wstring Units(std::initializer_list<uint32_t> units) {
  std::wstring text;
  for (const uint32_t unit : units)
    text += static_cast<wchar_t>(unit);
  return text;
}

TEST(Text, GoodTextComesBackAsItWas) {
  struct {
    std::string utf8;
    std::wstring wide;
  } const cases[] = {
      {"", Units({})},
      {std::string("a\0b", 3), Units({'a', 0, 'b'})},
      {"\xC2\x80\xDF\xBF", Units({0x80, 0x7FF})},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", Units({0x800, 0xD7FF, 0xE000, 0xFFFF})},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", Units({0xD800, 0xDC00, 0xDBFF, 0xDFFF})},
      {"\xF0\x9D\x84\x9E", Units({0xD834, 0xDD1E})},
      {"\xEF\xBB\xBFx", Units({0xFEFF, 'x'})},  // a byte order mark is a character like others
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Utf8ToWide(c.utf8), c.wide);
    EXPECT_EQ(WideToUtf8(c.wide), c.utf8);
    EXPECT_EQ(platform::Utf8ToWideLossy(c.utf8), c.wide);
    EXPECT_EQ(platform::WideToUtf8Lossy(c.wide), c.utf8);
  }
}

TEST(Text, MalformedUtf8IsRefusedOrReplaced) {
  const std::wstring bad = Units({0xFFFD});
  struct {
    const char* what;
    std::string utf8;
    std::wstring lossy;
  } const cases[] = {
      {"byte that never occurs", "\xFF", bad},
      {"truncated at the end, 4", "\xF0\x9D\x84", bad},
      {"truncated by a lead", "\xE2\xC3\xA4", bad + L"\u00E4"},
      {"overlong, 4", "\xF0\x8F\xBF\xBF", bad},
      {"above U+10FFFF", "\xF4\x90\x80\x80", bad},
      {"5-byte form", "\xF8\x88\x80\x80\x80", bad + bad + bad + bad + bad},
  };
  for (const auto& c : cases) {
    try {
      Utf8ToWide(c.utf8);
      ADD_FAILURE() << c.what << " was accepted";
    } catch (const std::range_error& error) {
      EXPECT_STREQ(error.what(), "bad conversion") << c.what;
    }
    EXPECT_EQ(platform::Utf8ToWideLossy(c.utf8), c.lossy) << c.what;
  }
}

TEST(Text, UnitsThatAreNoUtf16AreRefusedOrReplaced) {
  const std::string bad = "\xEF\xBF\xBD";
  struct {
    const char* what;
    std::wstring wide;
    std::string lossy;
  } const cases[] = {
      {"high surrogate at the end", Units({'a', 0xD800}), "a" + bad},
      {"high surrogate before a character", Units({0xDBFF, 'z'}), bad + "z"},
      {"low surrogate alone", Units({0xDC00, 'z'}), bad + "z"},
      {"two high ones and a low one", Units({0xD800, 0xD834, 0xDD1E}), bad + "\xF0\x9D\x84\x9E"},
  };
  for (const auto& c : cases) {
    EXPECT_THROW(WideToUtf8(c.wide), std::range_error) << c.what;
    EXPECT_EQ(platform::WideToUtf8Lossy(c.wide), c.lossy) << c.what;
  }
}

// Where wchar_t has 32 bits, an element can hold what is no UTF-16 unit.
TEST(Text, ElementsBeyondAUnitAreRefused) {
  if constexpr (sizeof(wchar_t) > 2) {
    for (const uint32_t element : {0x10000u, 0x10FFFFu, 0x80000041u}) {
      EXPECT_THROW(WideToUtf8(Units({element})), std::range_error) << element;
      EXPECT_EQ(platform::WideToUtf8Lossy(Units({element})), "\xEF\xBF\xBD") << element;
    }
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
