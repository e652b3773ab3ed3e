#include "runtime/Format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

TEST(Format, TakesTextsAndSignedNumbersAndLeavesTheRest) {
  EXPECT_EQ(Format(L"%s.%s", std::wstring(L"b\0\u00e4", 3), L"%d %s"),
            std::wstring(L"b\0\u00e4.%d %s", 9));
  EXPECT_EQ(Format(L"%d %d", 4294967295u, int64_t{0x1'0000'0002}), L"-1 2") << "32 bits of each";
  EXPECT_EQ(Format(L"%I64d", std::numeric_limits<uint64_t>::max()), L"-1");
  EXPECT_EQ(Format(L"100%% of %d %x %I64x 50%", 3), L"100% of 3 %x %I64x 50%");
  EXPECT_EQ(Format(L"%s%d!", L"only one"), L"only one0!") << "a missing argument";
}
