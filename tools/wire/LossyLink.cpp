#include "wire/LossyLink.h"

namespace wire {

namespace {

using std::chrono::milliseconds;

// The grain of the jitter.
using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10'000'000>>;

constexpr uint64_t kGolden = 0x9E3779B97F4A7C15;

// SplitMix64 (Steele, Lea and Flood, 2014). The library's distributions differ from system to
// system.
uint64_t Draw(uint64_t& state) {
  state += kGolden;
  uint64_t z = state;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

bool Hits(double percent, uint64_t draw) {
  constexpr uint64_t kMillion = 1'000'000;
  return draw % kMillion < static_cast<uint64_t>(percent * (kMillion / 100));
}

}  // namespace

LossyLink::LossyLink(uint64_t seed, uint64_t number) : seed_(Draw(seed) ^ (number * kGolden)) {}

// Each datagram has a row of draws of its own, and each question its place in the row, whether it
// is asked or not: so another share of one fault leaves the others where they were.
std::vector<Fate> LossyLink::Next() {
  uint64_t mix = seed_ + counts_.taken;
  uint64_t state = Draw(mix);
  ++counts_.taken;
  const bool lost = Hits(faults_.loss, Draw(state));
  const bool twice = Hits(faults_.duplicate, Draw(state));
  if (lost) {
    ++counts_.lost;
    return {};
  }
  std::vector<Fate> fates{NextFate(state)};
  if (twice) {
    ++counts_.duplicated;
    fates.push_back(NextFate(state));
  }
  return fates;
}

Fate LossyLink::NextFate(uint64_t& state) {
  const uint64_t jitter = Draw(state);
  const bool held = Hits(faults_.reorder, Draw(state));
  const uint64_t holding = Draw(state);
  const bool corrupt = Hits(faults_.corrupt, Draw(state));
  const uint64_t damage = Draw(state);

  Fate fate;
  fate.delay = milliseconds(faults_.delayMs);
  if (faults_.jitterMs > 0) {
    fate.delay += Ticks(static_cast<int64_t>(jitter % (uint64_t{faults_.jitterMs} * 10'000)));
  }
  if (held) {
    ++counts_.heldBack;
    fate.delay += milliseconds(5 + holding % 26);
  }
  if (corrupt) {
    ++counts_.corrupted;
    fate.damage = damage | 1;
  }
  return fate;
}

void Damage(uint64_t damage, Bytes& bytes) {
  if (bytes.empty()) return;
  uint64_t state = damage;
  const uint64_t changes = 1 + Draw(state) % 4;
  size_t first = 0;
  for (uint64_t i = 0; i < changes; ++i) {
    const auto place = static_cast<size_t>(Draw(state) % bytes.size());
    const auto mask = static_cast<uint8_t>(1 + Draw(state) % 255);
    // A second change of the same byte could take the first one back.
    if (i > 0 && place == first) continue;
    if (i == 0) first = place;
    bytes[place] = static_cast<uint8_t>(bytes[place] ^ mask);
  }
}

}  // namespace wire
