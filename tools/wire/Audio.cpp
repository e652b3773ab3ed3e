#include "wire/Audio.h"

namespace wire {

namespace {

constexpr int32_t kMarks = 10'000;

uint32_t BigEndian(const uint8_t* bytes, size_t count) {
  uint32_t value = 0;
  for (size_t i = 0; i < count; ++i)
    value = value << 8 | bytes[i];
  return value;
}

void PutBigEndian(Bytes& bytes, uint32_t value, int count) {
  for (int shift = 8 * (count - 1); shift >= 0; shift -= 8)
    bytes.push_back(static_cast<uint8_t>(value >> shift & 0xFF));
}

// The sign is bit 23.
int32_t CodeAt(const uint8_t* bytes) {
  return static_cast<int32_t>(BigEndian(bytes, 3) << 8) >> 8;
}

}  // namespace

uint8_t PayloadTypeOf(uint32_t sampleFreq) {
  return sampleFreq == 48000 ? 100 : sampleFreq == 44100 ? 101 : 0;
}

uint32_t SampleFreqOf(uint8_t payloadType) {
  return payloadType == 100 ? 48000 : payloadType == 101 ? 44100 : 0;
}

StreamHeader StreamPacket::Header() const {
  if (bytes.size() < kHeaderBytes) return {0, false, 0, 0, 0, 0};
  const uint8_t* data = bytes.data();
  return {data[0],
          (data[1] & 1) != 0,
          static_cast<uint8_t>(data[1] >> 1),
          static_cast<uint16_t>(BigEndian(data + 2, 2)),
          BigEndian(data + 4, 4),
          BigEndian(data + 8, 4)};
}

size_t StreamPacket::FrameCount() const {
  if (bytes.size() < kHeaderBytes || SampleFreqOf(Header().payloadType) == 0) return 0;
  return (bytes.size() - kHeaderBytes) / kFrameBytes;
}

Frames StreamPacket::Audio() const {
  Frames frames(FrameCount());
  const uint8_t* at = bytes.data() + kHeaderBytes;
  for (Frame& frame : frames) {
    frame = {CodeAt(at), CodeAt(at + 3)};
    at += kFrameBytes;
  }
  return frames;
}

Bytes EncodePacket(const StreamHeader& header, const Frames& frames) {
  Bytes bytes;
  bytes.reserve(kHeaderBytes + frames.size() * kFrameBytes);
  bytes.push_back(header.first);
  bytes.push_back(static_cast<uint8_t>(header.payloadType << 1 | (header.marker ? 1 : 0)));
  PutBigEndian(bytes, header.sequence, 2);
  PutBigEndian(bytes, header.timestamp, 4);
  PutBigEndian(bytes, header.ssrc, 4);
  for (const Frame& frame : frames) {
    PutBigEndian(bytes, static_cast<uint32_t>(frame.left), 3);
    PutBigEndian(bytes, static_cast<uint32_t>(frame.right), 3);
  }
  return bytes;
}

int32_t CodeOf(float sample) {
  const float scaled = sample * static_cast<float>(kFullScale);
  return static_cast<int32_t>(scaled);
}

Frames Ramp(float level, bool right) {
  Frames frames(kPacketFrames);
  for (uint32_t i = 0; i < kPacketFrames; ++i) {
    const float scaled = static_cast<float>(i + 1) * level;
    const int32_t code = CodeOf(scaled / 192.0F);
    frames[i] = {code, right ? code : 0};
  }
  return frames;
}

Frames Pattern(int32_t mark) {
  Frames frames(kPacketFrames);
  for (uint32_t i = 0; i < kPacketFrames; ++i) {
    frames[i] = {CodeOf(static_cast<float>(i + 1) / 192.0F),
                 CodeOf(static_cast<float>(kPacketFrames - i) / 192.0F)};
  }
  frames[0].left += mark;
  return frames;
}

std::optional<int32_t> MarkOf(const Frames& frames) {
  if (frames.size() != kPacketFrames) return std::nullopt;
  const int32_t mark = frames[0].left - Pattern()[0].left;
  if (mark < 0 || mark >= kMarks || frames != Pattern(mark)) return std::nullopt;
  return mark;
}

}  // namespace wire
