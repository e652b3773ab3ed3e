// The stream's format, as the far end knows it: packets of 192 stereo frames of 24 bits,
// RTP-shaped, with the bit fields of the first two bytes in the opposite order to RFC 3550. Plain
// arithmetic.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "wire/Endpoint.h"

namespace wire {

constexpr uint32_t kPacketFrames = 192;
constexpr size_t kHeaderBytes = 12;
constexpr size_t kFrameBytes = 6;  // two channels of three bytes, the most significant first
constexpr size_t kPacketBytes = kHeaderBytes + kPacketFrames * kFrameBytes;  // 1164
constexpr int32_t kFullScale = 8388607;                                      // the code of 1.0

// Signed 24-bit codes.
struct Frame {
  int32_t left = 0;
  int32_t right = 0;

  bool operator==(const Frame&) const = default;
};
using Frames = std::vector<Frame>;

// 100 for 48000 Hz and 101 for 44100 Hz, and back; 0 for any other.
uint8_t PayloadTypeOf(uint32_t sampleFreq);
uint32_t SampleFreqOf(uint8_t payloadType);

// The header's numbers, in host order.
struct StreamHeader {
  uint8_t first = 2;  // version 2 in the two lowest bits, the rest 0
  bool marker = false;
  uint8_t payloadType = 100;
  uint16_t sequence = 0;
  uint32_t timestamp = 0;
  uint32_t ssrc = 0;
};

// One datagram as it came.
struct StreamPacket {
  Bytes bytes;
  Endpoint from;
  Clock::time_point time;

  // Whole frames of an audio payload type; 0 for anything else, also for what is too short.
  size_t FrameCount() const;
  StreamHeader Header() const;  // of at least 12 bytes; else all 0
  Frames Audio() const;         // FrameCount of them
};

Bytes EncodePacket(const StreamHeader& header, const Frames& frames);

// The code that a unit sends a sample as: by single precision, the fraction cut off.
int32_t CodeOf(float sample);

// What the test signals of a unit send: a ramp up to `level` on the left, and on the right if
// wanted, else silence there.
Frames Ramp(float level, bool right);

// The pattern that a unit looks for on output 0: a ramp up on the left, one down on the right, made
// individual by `mark`, which is added to the first code: marks of 0 to 9999 stay within what is
// recognised.
Frames Pattern(int32_t mark = 0);

// The mark of a Pattern; nothing for other frames.
std::optional<int32_t> MarkOf(const Frames& frames);

}  // namespace wire
