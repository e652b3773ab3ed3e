#include "emulator/TestSignal.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>

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

// Whether the pattern is known with one sample that far off.
bool PassesWith(Channel Pattern::*channel, uint32_t sample, float offset) {
  Pattern pattern;
  (pattern.*channel)[sample] += offset;
  return pattern.Passes();
}

TEST(TestSignal, PatternIsKnownUpToTheLimitAtEachSample) {
  EXPECT_TRUE(Pattern().Passes());
  for (Channel Pattern::*channel : {&Pattern::left, &Pattern::right}) {
    for (uint32_t i = 0; i < kTickSamples; ++i) {
      for (const float sign : {1.0f, -1.0f}) {
        EXPECT_TRUE(PassesWith(channel, i, sign * 0.002604f)) << i;
        EXPECT_FALSE(PassesWith(channel, i, sign * 0.002605f)) << i;
      }
    }
  }
  EXPECT_FALSE(PassesWith(&Pattern::right, 191, std::nanf("")));

  // The float next to 1/384 is larger than 1/384: it must fail, although a comparison in float
  // would let it pass. The first sample is 2/384, so the differences are exact.
  const float nearest = 1.0f / 384.0f;
  ASSERT_GT(static_cast<double>(nearest), 1.0 / 384.0);
  EXPECT_FALSE(PassesWith(&Pattern::left, 0, -nearest));
  EXPECT_TRUE(PassesWith(&Pattern::left, 0, -std::nextafterf(nearest, 0.0f)));
}

TEST(TestSignal, SweepRunsFromZeroToOneInTenSeconds) {
  EXPECT_EQ(SweepAmplitude(25'000'000), 0.25f);
  EXPECT_EQ(SweepAmplitude(100'000'000), 0.0f);
  // Taken modulo as integers, so that weeks of uptime don't blur it.
  EXPECT_EQ(SweepAmplitude(100'000'000 * 9'000'000'000LL + 33'333'333),
            static_cast<float>(0.33333333));
}

// Each value is a product rounded to float and then divided: other orders and wider steps give
// other bits on the wire.
TEST(TestSignal, RampIsRoundedStepByStep) {
  Channel ramp;
  for (int k = 0; k < 1000; ++k) {
    const float amplitude = SweepAmplitude(k * 99'991);
    WriteRamp(ramp.data(), amplitude);
    for (uint32_t i = 0; i < kTickSamples; ++i) {
      const volatile float product = static_cast<float>(i + 1) * amplitude;
      ASSERT_EQ(ramp[i], product / 192.0f);
    }
  }
}

}  // namespace
}  // namespace Network
