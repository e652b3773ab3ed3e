#include "runtime/Clocks.h"

#include <limits>

#include "platform/clock.h"

uint64_t ClockFrequency() {
  return static_cast<uint64_t>(platform::kCounterFrequency);
}

int64_t ClockRead(uint32_t* frequency) {
  if (frequency) *frequency = static_cast<uint32_t>(ClockFrequency());
  return platform::GetClock().Counter();
}

int64_t ClockTicks100ns() {
  uint32_t frequency = 0;
  const int64_t counter = ClockRead(&frequency);
  return MulDiv64(counter, 10'000'000, frequency);
}

namespace {

uint64_t Magnitude(int64_t value) {
  return value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
}

}  // namespace

int64_t MulDiv64(int64_t a, int64_t b, int64_t c) {
  if (c == 0) return 0;
  const bool negative = (a < 0) != (b < 0) ? c > 0 : c < 0;
  const uint64_t x = Magnitude(a);
  const uint64_t y = Magnitude(b);
  const uint64_t divisor = Magnitude(c);

  // The 128-bit product as two halves, from four products of 32 bits by 32 bits.
  const uint64_t x0 = x & 0xFFFFFFFF, x1 = x >> 32;
  const uint64_t y0 = y & 0xFFFFFFFF, y1 = y >> 32;
  const uint64_t middle = x1 * y0 + (x0 * y0 >> 32);
  const uint64_t middle2 = x0 * y1 + (middle & 0xFFFFFFFF);
  uint64_t high = x1 * y1 + (middle >> 32) + (middle2 >> 32);
  uint64_t low = x * y;

  const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
  uint64_t quotient = 0;
  if (high == 0) {
    quotient = low / divisor;
  } else if (high >= divisor) {
    quotient = limit;
  } else {
    // Long division, a bit at a time. The divisor is at most 2^63, so the remainder, which is below
    // it, can be doubled without loss.
    for (int bit = 0; bit < 64; ++bit) {
      high = (high << 1) | (low >> 63);
      low <<= 1;
      quotient <<= 1;
      if (high >= divisor) {
        high -= divisor;
        quotient |= 1;
      }
    }
  }
  if (quotient > limit) quotient = limit;
  return negative ? static_cast<int64_t>(0 - quotient) : static_cast<int64_t>(quotient);
}

int64_t SaturatingAdd(int64_t a, int64_t b) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  if (b > 0 && a > kMax - b) return kMax;
  if (b < 0 && a < kMin - b) return kMin;
  return a + b;
}

int64_t SaturatingSub(int64_t a, int64_t b) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  if (b < 0 && a > kMax + b) return kMax;
  if (b > 0 && a < kMin + b) return kMin;
  return a - b;
}
