#include "runtime/Clocks.h"

#include <gtest/gtest.h>

#include <limits>

static constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
static constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// Results of arithmetic without limit, truncated toward zero and cut to 64 bits: the corners, then
// positions at long uptimes, then random operands.
TEST(Clocks, ProductsAndSumsAreExactBeyond64BitsAndSaturate) {
  constexpr struct {
    int64_t a, b, c, result;
  } cases[] = {
      {kMin, -1, 1, kMax},
      {kMin, kMax, kMin, kMax},
      {kMax, -2, 1, kMin},
      {7, 1, -2, -3},
      {5, 5, 0, 0},
      {9460800000000000, 48000, 10000000, 45411840000000},
      {4611686018427387904, 10000000, 10000001, 4611685557258832178},
      {954961129277557933, 1846715685214932235, -310586055408208253, -5678109707435446962},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MulDiv64(c.a, c.b, c.c), c.result) << c.a << " * " << c.b << " / " << c.c;
    EXPECT_EQ(MulDiv64(c.b, c.a, c.c), c.result) << c.b << " * " << c.a << " / " << c.c;
  }
  EXPECT_EQ(SaturatingAdd(kMax, 1), kMax);
  EXPECT_EQ(SaturatingAdd(kMin, -1), kMin);
  EXPECT_EQ(SaturatingAdd(kMax, kMin), -1);
  EXPECT_EQ(SaturatingSub(kMin, 1), kMin);
  EXPECT_EQ(SaturatingSub(-1, kMin), kMax);
}
