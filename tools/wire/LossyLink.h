// What a bad network does to each datagram of one direction. Every decision follows from the seed
// and the datagram's place in the row, so a run can be repeated on any system: no clock, no socket,
// no random device. Not synchronised.
#pragma once

#include <cstdint>
#include <vector>

#include "wire/Endpoint.h"

namespace wire {

// The shares are in per cent of the datagrams, 0 to 100; each is decided for itself.
struct LinkFaults {
  double loss = 0;
  double duplicate = 0;   // a second copy, with delays and damage of its own
  double reorder = 0;     // held back for 5 to 30 ms, so that later ones overtake it
  double corrupt = 0;     // one to four bytes are changed
  uint32_t delayMs = 0;   // of every datagram
  uint32_t jitterMs = 0;  // up to that much more, which reorders too
};

struct LinkCounts {
  uint64_t taken = 0;  // datagrams that came in
  uint64_t lost = 0;
  uint64_t duplicated = 0;
  uint64_t heldBack = 0;  // copies
  uint64_t corrupted = 0;
};

// One copy that is to arrive.
struct Fate {
  Clock::duration delay{};
  uint64_t damage = 0;  // for Damage; 0: it arrives as it was sent
};

class LossyLink {
 public:
  // Links with different numbers under one seed decide independently.
  LossyLink(uint64_t seed, uint64_t number);

  // From the next datagram on. The other decisions stay as they would have been.
  void SetFaults(const LinkFaults& faults) { faults_ = faults; }

  // The fate of the next datagram: none, one or two arrivals.
  std::vector<Fate> Next();

  const LinkCounts& Counts() const { return counts_; }

 private:
  Fate NextFate(uint64_t& state);

  const uint64_t seed_;
  LinkFaults faults_;
  LinkCounts counts_;
};

// Changes one to four of the bytes, at least one of them for sure unless there is none.
void Damage(uint64_t damage, Bytes& bytes);

}  // namespace wire
