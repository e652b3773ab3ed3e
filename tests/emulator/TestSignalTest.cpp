#include "emulator/TestSignal.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>

namespace Network {
namespace {

using Channel = std::array<float, kTickSamples>;

struct Pattern {
  Pattern() {
    for (uint32_t i = 0; i < kTickSamples; ++i) {
      left[i] = static_cast<float>(i + 1) / 192.0f;
      right[i] = static_cast<float>(192 - i) / 192.0f;
    }
  }
  bool Passes() const { return IsTestPattern(left.data(), right.data()); }

  Channel left, right;
};

TEST(TestSignal, PatternIsKnownAndNothingElse) {
  EXPECT_TRUE(Pattern().Passes());
  Pattern swapped;
  std::swap(swapped.left, swapped.right);
  EXPECT_FALSE(swapped.Passes());
  Pattern silence;
  silence.left.fill(0.0f);
  silence.right.fill(0.0f);
  EXPECT_FALSE(silence.Passes());
  Pattern broken;
  broken.right[191] = std::nanf("");
  EXPECT_FALSE(broken.Passes());
}

// The limit is 1/384 itself. Around a sample of 1.0 it lies between two floats: the difference is
// exact there, and the next float beyond it fails.
TEST(TestSignal, PatternToleratesExactlyTheLimit) {
  for (const uint32_t i : {0u, 95u, 191u}) {
    Pattern pattern;
    Channel& channel = i == 95 ? pattern.right : pattern.left;
    const float expected = channel[i];
    for (const float direction : {2.0f, -2.0f}) {
      float sample = expected;
      while (static_cast<double>(std::fabs(sample - expected)) <= 1.0 / 384.0) {
        channel[i] = sample;
        ASSERT_TRUE(pattern.Passes()) << i;
        // Big steps first, single floats near the limit.
        const float step = static_cast<double>(std::fabs(sample - expected)) < 0.0026
                               ? sample + direction * 0.0001f
                               : std::nextafterf(sample, direction);
        sample = step;
      }
      channel[i] = sample;
      EXPECT_FALSE(pattern.Passes()) << i;
    }
  }
}

// The float next to 1/384 is larger than 1/384: it must fail, although a comparison in float would
// let it pass.
TEST(TestSignal, LimitIsTheDouble) {
  Pattern pattern;
  const float nearest = 1.0f / 384.0f;
  ASSERT_GT(static_cast<double>(nearest), 1.0 / 384.0);
  const float expected = pattern.left[0];  // 2/384: the difference below is exact
  pattern.left[0] = expected - nearest;
  ASSERT_EQ(expected - pattern.left[0], nearest);
  EXPECT_FALSE(pattern.Passes());
  pattern.left[0] = expected - std::nextafterf(nearest, 0.0f);
  EXPECT_TRUE(pattern.Passes());
}

TEST(TestSignal, SweepRunsFromZeroToOneInTenSeconds) {
  EXPECT_EQ(SweepAmplitude(0), 0.0f);
  EXPECT_EQ(SweepAmplitude(25'000'000), 0.25f);
  EXPECT_EQ(SweepAmplitude(100'000'000), 0.0f);
  // Taken modulo as integers, so that weeks of uptime don't blur it.
  EXPECT_EQ(SweepAmplitude(100'000'000 * 9'000'000'000LL + 33'333'333), SweepAmplitude(33'333'333));
  EXPECT_EQ(SweepAmplitude(33'333'333), static_cast<float>(0.33333333));
}

// Each value is a product rounded to float and then divided: other orders and wider steps give
// other bits on the wire.
TEST(TestSignal, RampIsRoundedStepByStep) {
  Channel ramp;
  WriteRamp(ramp.data(), 1.0f);
  EXPECT_EQ(ramp, Pattern().left);

  int differentInDouble = 0;
  for (int k = 0; k < 1000; ++k) {
    const float amplitude = SweepAmplitude(k * 99'991);
    WriteRamp(ramp.data(), amplitude);
    for (uint32_t i = 0; i < kTickSamples; ++i) {
      const volatile float product = static_cast<float>(i + 1) * amplitude;
      const volatile float value = product / 192.0f;
      ASSERT_EQ(ramp[i], value);
      const double wide = (i + 1.0) * static_cast<double>(amplitude) / 192.0;
      differentInDouble += static_cast<float>(wide) != ramp[i];
    }
  }
  EXPECT_GT(differentInDouble, 0);  // the difference is real
}

}  // namespace
}  // namespace Network
