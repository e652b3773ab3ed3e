#include "audio/Format.h"

#include <algorithm>
#include <iterator>

#include "audio/FormatFast.h"

namespace Network {

namespace {

struct PayloadFormat {
  uint32_t type;
  uint32_t frequency;  // Hz
};

constexpr PayloadFormat kFormats[] = {{100, 48000}, {101, 44100}};

// The sample's code in the low 24 bits. A float from 2^31 on, an infinity or NaN has no integer in
// C++, and each processor would give another: its code is 0.
uint32_t CodeOf(float sample) {
  const float product = sample * kCodeOfSample;
  const bool convertible = product > -0x1p31f && product < 0x1p31f;
  return convertible ? static_cast<uint32_t>(static_cast<int32_t>(product)) : 0;
}

// `code` stands in the upper 24 bits, so that the shift down extends its sign.
float SampleOf(uint32_t code) {
  return static_cast<float>(static_cast<int32_t>(code) >> 8) * kSampleOfCode;
}

}  // namespace

bool IsAudioPayloadType(uint32_t payloadType) {
  return std::any_of(std::begin(kFormats), std::end(kFormats),
                     [&](const PayloadFormat& format) { return format.type == payloadType; });
}

uint32_t PayloadChanCount(uint32_t payloadType) {
  return IsAudioPayloadType(payloadType) ? kPacketChannels : 0;
}

uint32_t PayloadSmplBytes(uint32_t payloadType) {
  return IsAudioPayloadType(payloadType) ? kSampleBytes : 0;
}

uint32_t PayloadTypeFromFreq(uint32_t frequency) {
  for (const PayloadFormat& format : kFormats)
    if (format.frequency == frequency) return format.type;
  return 0;
}

// What the fast path leaves, at most its last frames, goes channel by channel.
void PackFrames(const float* left, const float* right, size_t count, uint8_t* payload) {
  const size_t done = PackFramesFast(left, right, count, payload);
  payload += done * kFrameBytes;
  PackChannel(left + done, 1, count - done, payload);
  PackChannel(right + done, 1, count - done, payload + kSampleBytes);
}

void UnpackFrames(const uint8_t* payload, size_t count, float* left, float* right) {
  const size_t done = UnpackFramesFast(payload, count, left, right);
  payload += done * kFrameBytes;
  UnpackChannel(payload, count - done, left + done, 1);
  UnpackChannel(payload + kSampleBytes, count - done, right + done, 1);
}

void PackChannel(const float* source, size_t stride, size_t count, uint8_t* bytes) {
  for (size_t i = 0; i < count; ++i, bytes += kFrameBytes) {
    const uint32_t code = CodeOf(source[i * stride]);
    bytes[0] = static_cast<uint8_t>(code >> 16);
    bytes[1] = static_cast<uint8_t>(code >> 8);
    bytes[2] = static_cast<uint8_t>(code);
  }
}

void UnpackChannel(const uint8_t* bytes, size_t count, float* destination, size_t stride) {
  for (size_t i = 0; i < count; ++i, bytes += kFrameBytes)
    destination[i * stride] =
        SampleOf(uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8);
}

}  // namespace Network
