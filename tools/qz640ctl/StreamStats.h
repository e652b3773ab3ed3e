// What a receiver can tell about an RTP stream from the packets that came: rate, loss, order,
// jitter, level. Pure arithmetic, no lock, no clock of its own.
#pragma once

#include <bitset>
#include <cstdint>
#include <optional>

#include "audio/RtpPacket.h"

namespace ctl {

// The sample frequency of an audio payload type, in Hz.
inline uint32_t FreqOfPayloadType(uint32_t payloadType) {
  return payloadType == Network::PayloadTypeFromFreq(48000) ? 48000 : 44100;
}

class StreamStats {
 public:
  // One packet, with the counter (100 ns ticks) when it came. What isn't a whole audio packet is
  // counted in `foreign` alone. The result is the packet's place in the stream, from 0 for the
  // first; negative for a packet from before the first; nothing for a foreign one.
  std::optional<int64_t> Add(const Network::RtpPacket& packet, int64_t arrival);

  uint64_t packets = 0;     // audio packets that came
  uint64_t late = 0;        // came behind a packet with a higher number
  uint64_t duplicates = 0;  // had come before
  uint64_t foreign = 0;     // not audio, or shorter than a header
  uint64_t jumps = 0;       // the number went on elsewhere: the sender started anew

  // Numbers between the first and the highest that never came.
  uint64_t Lost() const { return expected_ - distinct_; }

  // Packets a second between the first and the latest arrival.
  double Rate() const;

  // The same since a call of the past, for a live view; 0 if nothing has come since.
  double TakeRate();

  // Smoothed deviation of the packets' spacing from that of their timestamps, in milliseconds
  // (the interarrival jitter of RFC 3550, section 6.4.1).
  double JitterMs() const { return jitterTicks_ / 10'000.0; }

  // Largest magnitude of the channel since the latest TakePeak, 1.0 being full scale.
  double TakePeak(int channel);

 private:
  // How many of the latest numbers are remembered, to tell late packets from duplicates.
  static constexpr size_t kWindow = 2048;

  int64_t PlaceOf(uint16_t seq);
  void Advance(uint16_t seq, int64_t step);
  void MeasureLevel(const Network::RtpPacket& packet);
  void MeasureJitter(const Network::RtpHeader& header, int64_t arrival);

  uint16_t highestSeq_ = 0;
  int64_t highestPlace_ = 0;
  std::bitset<kWindow> seen_;  // by place modulo kWindow
  uint64_t expected_ = 0;      // numbers from the first to the highest
  uint64_t distinct_ = 0;      // of these, how many came
  int64_t firstArrival_ = 0;
  int64_t lastArrival_ = 0;
  uint64_t packetsTaken_ = 0;  // at the last TakeRate
  int64_t arrivalTaken_ = 0;
  int64_t newestArrival_ = 0;  // of the packet with the highest number
  uint32_t newestTimestamp_ = 0;
  double jitterTicks_ = 0;
  double peak_[2] = {0, 0};
};

}  // namespace ctl
