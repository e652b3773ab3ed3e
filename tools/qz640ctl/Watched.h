// One input that "watch" hears: what came of it, and the figures that view, programs, alerts and
// metrics are given.
#pragma once

#include <array>
#include <deque>
#include <optional>
#include <string>

#include "Output.h"
#include "wire/StreamStats.h"
#include "wire/Units.h"

namespace ctl {

// A channel's level, 1.0 being full scale.
struct ChannelLevel {
  double peak = 0;       // since the figures before
  double hold = 0;       // the highest of the latest two seconds
  uint64_t clipped = 0;  // packets, since the beginning or the latest Reset
};

// What is known of an input at one moment.
struct Figures {
  std::string unit;  // its id, as it came from the network
  uint32_t input = 0;
  std::string passedOnTo;  // where the input goes at other times; empty: nowhere
  ChannelLevel channels[2];
  double rate = 0;  // packets a second since the figures before
  double jitterMs = 0;
  std::optional<double> driftPpm;
  uint64_t packets = 0;
  uint64_t lost = 0;         // goes down again where a packet comes after all
  uint64_t lostForGood = 0;  // those that were missing for a second
  uint64_t late = 0;
  uint64_t duplicates = 0;
  uint64_t outOfOrder = 0;
  bool pattern = false;
  double silentSeconds = 0;   // how long below -80 dB of full scale, or without a packet
  double longestSilence = 0;  // the same, or of one that has ended since ForgetSilences if longer
  std::array<uint64_t, wire::StreamTiming::kLimitsMs.size() + 1> delays{};

  uint64_t Faults() const { return lost + late + duplicates + outOfOrder; }
};

class Watched {
 public:
  Watched(const wire::Unit& unit, uint32_t input) : unit_(unit.id), input_(input) {}

  void PassedOnTo(const std::string& address) { passedOnTo_ = address; }

  // What has come since the call before, perhaps nothing. To be called some times a second.
  void Add(const std::deque<wire::StreamPacket>& packets);

  // Everything begins anew.
  void Reset();

  // Begins the next stretch of peaks and rate.
  Figures Take();

  // From here on only those silences count that end later.
  void ForgetSilences() { endedSilence_ = 0; }

 private:
  struct Hold {
    double peak = 0;
    wire::Clock::time_point since;
  };

  const std::string unit_;
  const uint32_t input_;
  std::string passedOnTo_;
  wire::StreamStats stats_;
  double peaks_[2] = {0, 0};
  Hold holds_[2];
  wire::Clock::time_point lastSound_ = wire::Clock::now();
  bool heard_ = false;       // any sound yet
  double endedSilence_ = 0;  // seconds, the longest since ForgetSilences
  wire::Clock::time_point lostAsked_ = wire::Clock::now();
  uint64_t lostBefore_ = 0;  // at that time
  uint64_t lostForGood_ = 0;
};

// As a program is given them: one object a line.
Fields ToFields(const Figures& figures);

}  // namespace ctl
