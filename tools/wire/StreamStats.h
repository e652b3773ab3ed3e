// What a receiver can say about a stream from the packets that came: rate, loss, order, timing,
// level, test pattern. Plain arithmetic.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>

#include "wire/Audio.h"
#include "wire/StreamTiming.h"

namespace wire {

class StreamStats {
 public:
  // What isn't an audio packet is counted in `foreign` alone. The result is the packet's place in
  // the stream, from 0 for the first; negative for a packet from before the first, or from before
  // the one with which the sender started anew; nothing for a foreign one.
  std::optional<int64_t> Add(const StreamPacket& packet);

  uint64_t packets = 0;          // audio packets that came
  uint64_t outOfOrder = 0;       // came after a packet with a higher number
  uint64_t duplicates = 0;       // had come before
  uint64_t foreign = 0;          // not audio, or shorter than a header
  uint64_t jumps = 0;            // the number went on elsewhere: the sender started anew
  uint64_t clipped[2] = {0, 0};  // packets in which the channel clipped

  // So many samples in a row at full scale are taken for clipping: one alone may be a true peak.
  static constexpr uint32_t kClipRun = 3;

  // Numbers between the first and the highest that never came.
  uint64_t Lost() const { return expected_ - distinct_; }

  // Packets a second between the first and the latest arrival.
  double Rate() const;

  // The same since a call of the past, for a live view; 0 if nothing has come since.
  double TakeRate();

  // Smoothed deviation of the packets' spacing from that of their timestamps, in milliseconds
  // (the interarrival jitter of RFC 3550, section 6.4.1).
  double JitterMs() const { return jitterMs_; }

  // How much later than its timestamp says a packet came after the one before it, at worst, in
  // milliseconds: how long sender or receiver stood still.
  double WorstGapMs() const { return worstGapMs_; }

  // What came too late to be of use, the sender's drift, the spread of the delays.
  const StreamTiming& Timing() const { return timing_; }

  // The latest packets, ten at least, all had the pattern that units look for.
  bool HasPattern() const { return patternRun_ >= 10; }

  // Largest magnitude of the channel since the latest TakePeak, 1.0 being full scale.
  double TakePeak(int channel);

 private:
  // How many of the latest numbers are remembered, to distinguish late packets from duplicates.
  static constexpr size_t kWindow = 2048;

  int64_t PlaceOf(uint16_t sequence);
  void Advance(uint16_t sequence, int64_t step);
  void MeasureLevel(const StreamPacket& packet);
  void MeasureJitter(const StreamHeader& header, Clock::time_point arrival);

  uint16_t highestSequence_ = 0;
  int64_t highestPlace_ = 0;
  int64_t begin_ = 0;          // place of the packet with which the sender started anew
  std::bitset<kWindow> seen_;  // by place modulo kWindow
  uint64_t expected_ = 0;      // numbers from the first to the highest
  uint64_t distinct_ = 0;      // of these, how many came
  Clock::time_point firstArrival_;
  Clock::time_point lastArrival_;
  uint64_t packetsTaken_ = 0;  // at the last TakeRate
  Clock::time_point arrivalTaken_;
  Clock::time_point newestArrival_;  // of the packet with the highest number
  uint32_t newestTimestamp_ = 0;
  double jitterMs_ = 0;
  double worstGapMs_ = 0;
  double peak_[2] = {0, 0};
  uint32_t fullScaleRun_[2] = {0, 0};  // samples at full scale up to now
  uint64_t patternRun_ = 0;            // packets up to now
  StreamTiming timing_;
};

}  // namespace wire
