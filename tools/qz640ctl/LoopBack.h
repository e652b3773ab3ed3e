// What becomes of packets that are sent through a unit and come back: each carries noise that no
// other has, so that it is known again wherever it comes out.
#pragma once

#include <deque>

#include "wire/Audio.h"

namespace ctl {

constexpr uint64_t kNoisePackets = 250;
constexpr size_t kMustReturn = 200;  // of these

// The packet of that number, from 0; within the range that a unit keeps bit for bit.
wire::Frames Noise(uint64_t number);

struct Returned {
  size_t exact = 0;      // in their order
  size_t reordered = 0;  // after one that was sent later
  size_t repeated = 0;   // had come back before
  size_t altered = 0;    // neither silence nor anything that was sent
  double unevenMs = 0;   // how long the machine stood still

  size_t Lost() const { return kNoisePackets - exact - reordered; }
  bool IsEmpty() const { return exact + reordered + altered == 0; }
  bool IsGood() const { return altered + reordered + repeated == 0 && exact >= kMustReturn; }
};

// Silence may come before, between and after.
Returned SortNoise(const std::deque<wire::StreamPacket>& packets);

}  // namespace ctl
