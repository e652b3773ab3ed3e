#include "emulator/TestSignal.h"

#include <cfloat>
#include <cmath>

namespace Network {

// Wider intermediate results (as of the x87) would change samples on the wire.
static_assert(FLT_EVAL_METHOD == 0);

namespace {

constexpr float kSamples = static_cast<float>(kTickSamples);

// In double: the float next to 1/384 is larger and would let one value too many pass.
constexpr double kTolerance = 1.0 / 384.0;

bool IsNear(float sample, float expected) {
  return static_cast<double>(std::fabs(sample - expected)) <= kTolerance;
}

}  // namespace

bool IsTestPattern(const float* left, const float* right) {
  for (uint32_t i = 0; i < kTickSamples; ++i) {
    if (!IsNear(left[i], static_cast<float>(i + 1) / kSamples)) return false;
    if (!IsNear(right[i], static_cast<float>(kTickSamples - i) / kSamples)) return false;
  }
  return true;
}

float SweepAmplitude(int64_t ticks100ns) {
  constexpr int64_t kPeriod = 100'000'000;
  return static_cast<float>(static_cast<double>(ticks100ns % kPeriod) /
                            static_cast<double>(kPeriod));
}

void WriteRamp(float* samples, float amplitude) {
  for (uint32_t i = 0; i < kTickSamples; ++i) {
    // Multiplied first; a reciprocal or the other order rounds differently.
    const float scaled = static_cast<float>(i + 1) * amplitude;
    samples[i] = scaled / kSamples;
  }
}

void WriteTestSignal(int32_t mode, float* left, float* right, int64_t (*now)()) {
  if (mode < 1 || mode > 4) return;
  const bool sweeps = mode >= 3;
  const bool both = mode == 1 || mode == 3;
  const float amplitude = sweeps ? SweepAmplitude(now()) : 1.0f;
  WriteRamp(left, amplitude);
  if (both) WriteRamp(right, amplitude);
}

}  // namespace Network
