#include "runtime/Format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

TEST(Format, TextsOfEveryKind) {
  const std::wstring text = L"b\u00e4r";
  EXPECT_EQ(Format(L"%s.%s", text, L"literal"), L"b\u00e4r.literal");
  EXPECT_EQ(Format(L"%s", std::wstring(L"a\0b", 3)), std::wstring(L"a\0b", 3));
  EXPECT_EQ(Format(L"%s", L"%d %s"), L"%d %s") << "an argument was read as a format";
}

TEST(Format, NumbersAreCutToTheirSize) {
  EXPECT_EQ(Format(L"%d", 4294967295u), L"-1") << "unsigned values print as signed";
  EXPECT_EQ(Format(L"%d", int64_t{0x1'0000'0002}), L"2");
  EXPECT_EQ(Format(L"%I64d", std::numeric_limits<int64_t>::min()), L"-9223372036854775808");
  EXPECT_EQ(Format(L"%I64d", std::numeric_limits<uint64_t>::max()), L"-1");
}

TEST(Format, WhatIsNoPlaceholderStays) {
  EXPECT_EQ(Format(L"100%% of %d", 3), L"100% of 3");
  EXPECT_EQ(Format(L"%x %I64x 50%", 3), L"%x %I64x 50%");
  EXPECT_EQ(Format(L"%s%d!", L"only one"), L"only one0!") << "a missing argument";
}

}  // namespace
