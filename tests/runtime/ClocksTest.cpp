#include "runtime/Clocks.h"

#include <gtest/gtest.h>

#include <limits>

#include "support/ManualClock.h"

namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// Results of arithmetic without limit, truncated toward zero and cut to 64 bits: the corners, then
// positions at long uptimes, then random operands of 8 to 63 bits.
constexpr struct {
  int64_t a, b, c, result;
} kMulDivCases[] = {
    {kMin, -1, 1, kMax},
    {kMin, 1, -1, kMax},
    {kMin, 1, 1, kMin},
    {kMin, kMin, kMin, kMin},
    {kMin, kMin, kMax, kMax},
    {kMax, kMax, kMax, kMax},
    {kMax, kMax, kMin, -9223372036854775806},
    {kMin, kMax, kMin, kMax},
    {kMax, 2, 1, kMax},
    {kMin, 2, 1, kMin},
    {kMax, -2, 1, kMin},
    {1, 1, kMin, 0},
    {kMin, 1, 2, -4611686018427387904},
    {7, 1, 2, 3},
    {-7, 1, 2, -3},
    {7, -1, 2, -3},
    {7, 1, -2, -3},
    {-7, -1, -2, -3},
    {5, 5, 0, 0},
    {0, -5, 3, 0},
    {9460800000000000, 48000, 10000000, 45411840000000},
    {2592000000000, 10000000, 10000000, 2592000000000},
    {4611686018427387904, 10000000, 10000001, 4611685557258832178},
    {-4606078771, -785310972, -2340134294005112212, -1},
    {898017869, -61, -141, 388504184},
    {-1029508020017303645, -147, 9004364052552606364, 16},
    {-621931211, 36, -2845242645790811736, 0},
    {-898638452777906691, -1211971681, -158, kMin},
    {1669086092, 2700427446312873744, 2764862546695465304, 1630188053},
    {-1233565527, 1127850896, 1879343459, -740300011},
    {-4802055952, 3491696257875506388, 4947735893, -3388887596330559094},
    {-2573670155099499166, 3206483921635263042, 152, kMin},
    {-431635339158233342, 6429078281892299305, -3371877269848459275, 822988846448770966},
    {3077892946, 8675951697430228743, 774986344253338153, 34456930405},
    {-7085698644851848955, 33, -1802937280120004432, 129},
    {2533844356324010102, 226, -1759390060, -325481448115},
    {1654539947753413450, 2128307065518415709, -356416554, kMin},
    {-1041449535, -564244066, 8790956, 66845030297},
    {1309562235, 578727438272313792, -8296727583369108061, -91346809},
    {954961129277557933, 1846715685214932235, -310586055408208253, -5678109707435446962},
    {-730259658, -1075812437953696, -1152379865, -681739109535910},
    {-18, -2637406236, -2326667139398281863, 0},
    {527603371, 9018825293094976218, 2063281256, 2306211338497698481},
    {-3219824981, 122, -1108819937, 354},
    {37, -1628099605, 5929863373272321707, 0},
    {232, -5822670703, -4995075030851778980, 0},
    {-2207961541223590546, 7472697703, -429320600, kMax},
};

TEST(Clocks, MulDivIsExactBeyond64BitsAndSaturates) {
  for (const auto& c : kMulDivCases) {
    EXPECT_EQ(MulDiv64(c.a, c.b, c.c), c.result) << c.a << " * " << c.b << " / " << c.c;
    EXPECT_EQ(MulDiv64(c.b, c.a, c.c), c.result) << c.b << " * " << c.a << " / " << c.c;
  }
}

TEST(Clocks, SaturatingSumsStopAtTheLimits) {
  EXPECT_EQ(SaturatingAdd(kMax, 1), kMax);
  EXPECT_EQ(SaturatingAdd(kMin, -1), kMin);
  EXPECT_EQ(SaturatingAdd(kMax, kMin), -1);
  EXPECT_EQ(SaturatingSub(kMin, 1), kMin);
  EXPECT_EQ(SaturatingSub(kMax, -1), kMax);
  EXPECT_EQ(SaturatingSub(0, kMin), kMax);
  EXPECT_EQ(SaturatingSub(-1, kMin), kMax);
  EXPECT_EQ(SaturatingSub(kMin, kMin), 0);
  EXPECT_EQ(SaturatingSub(kMin, kMax), kMin);
}

TEST(Clocks, CounterAndItsFrequency) {
  ManualClock clock;
  clock.SetCounter(123'456'789'012'345'678);
  uint32_t frequency = 0;
  EXPECT_EQ(ClockRead(&frequency), 123'456'789'012'345'678);
  EXPECT_EQ(frequency, 10'000'000u);
  EXPECT_EQ(ClockFrequency(), 10'000'000u);
  EXPECT_EQ(ClockRead(nullptr), 123'456'789'012'345'678);
  EXPECT_EQ(ClockTicks100ns(), 123'456'789'012'345'678);
}

}  // namespace
