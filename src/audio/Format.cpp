#include "audio/Format.h"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cstring>
#include <iterator>

namespace Network {

namespace {

struct PayloadFormat {
  uint32_t type;
  uint32_t frequency;  // Hz
};

constexpr PayloadFormat kFormats[] = {{100, 48000}, {101, 44100}};

// Samples are part of the wire format. Every product is rounded to single precision: with more
// precision half of all codes would come back one lower after a loop-back.
static_assert(FLT_EVAL_METHOD == 0);
constexpr float kCodeOfSample = 8388607.0f;                                  // full scale, 2^23 - 1
constexpr float kSampleOfCode = std::bit_cast<float>(uint32_t{0x34000001});  // 1 / full scale

// Frames that are worked on at once. They go through small arrays in loops of one kind each, which
// compilers turn into vector instructions; a single loop from floats to bytes takes three times as
// long.
constexpr size_t kBlock = 64;

// The sample's code in the low 24 bits. A float from 2^31 on, an infinity or NaN has no integer in
// C++, and each processor would give another: its code is 0. The exponent is looked at as an
// integer, 0x4F000000 being the bits of 2^31, because the compilers vectorise that comparison.
uint32_t CodeOf(float sample) {
  const uint32_t product = std::bit_cast<uint32_t>(sample * kCodeOfSample);
  const auto magnitude = static_cast<int32_t>(product & 0x7FFFFFFF);
  const uint32_t convertible = magnitude < 0x4F000000 ? product : 0;
  return static_cast<uint32_t>(static_cast<int32_t>(std::bit_cast<float>(convertible)));
}

// `code` stands in the upper 24 bits, so that the shift down extends its sign.
float SampleOf(uint32_t code) {
  return static_cast<float>(static_cast<int32_t>(code) >> 8) * kSampleOfCode;
}

// Between a number and its big-endian bytes; the same both ways.
uint64_t SwapBigEndian(uint64_t v) {
  if constexpr (std::endian::native == std::endian::big) return v;
  return v >> 56 | (v >> 40 & 0xFF00) | (v >> 24 & 0xFF0000) | (v >> 8 & 0xFF000000) |
         (v & 0xFF000000) << 8 | (v & 0xFF0000) << 24 | (v & 0xFF00) << 40 | v << 56;
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

// A frame is the upper six bytes of a 64-bit number. Each store writes two bytes of the next frame
// too, which that frame's own store then replaces; the last of a block leaves them out.
void PackFrames(const float* left, const float* right, size_t count, uint8_t* payload) {
  uint32_t leftCodes[kBlock];
  uint32_t rightCodes[kBlock];
  uint64_t frames[kBlock];
  while (count != 0) {
    const size_t block = std::min(count, kBlock);
    for (size_t i = 0; i < block; ++i)
      leftCodes[i] = CodeOf(left[i]) << 8;
    for (size_t i = 0; i < block; ++i)
      rightCodes[i] = CodeOf(right[i]) << 8;
    for (size_t i = 0; i < block; ++i)
      frames[i] = uint64_t{leftCodes[i]} << 32 | uint64_t{rightCodes[i]} << 8;
    for (size_t i = 0; i + 1 < block; ++i, payload += kFrameBytes) {
      const uint64_t bytes = SwapBigEndian(frames[i]);
      std::memcpy(payload, &bytes, sizeof bytes);
    }
    const uint64_t last = SwapBigEndian(frames[block - 1]);
    std::memcpy(payload, &last, kFrameBytes);

    payload += kFrameBytes;
    left += block;
    right += block;
    count -= block;
  }
}

// As PackFrames: all but the very last frame are read with two bytes of the next.
void UnpackFrames(const uint8_t* payload, size_t count, float* left, float* right) {
  uint64_t frames[kBlock];
  while (count != 0) {
    const size_t block = std::min(count, kBlock);
    const size_t whole = block < count ? block : block - 1;
    for (size_t i = 0; i < whole; ++i, payload += kFrameBytes) {
      uint64_t bytes = 0;
      std::memcpy(&bytes, payload, sizeof bytes);
      frames[i] = SwapBigEndian(bytes);
    }
    if (whole < block) {
      uint64_t bytes = 0;
      std::memcpy(&bytes, payload, kFrameBytes);
      frames[whole] = SwapBigEndian(bytes);
    }
    for (size_t i = 0; i < block; ++i) {
      left[i] = SampleOf(static_cast<uint32_t>(frames[i] >> 32));
      right[i] = SampleOf(static_cast<uint32_t>(frames[i] >> 8));
    }
    left += block;
    right += block;
    count -= block;
  }
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
