// The bytes of WAV files (RIFF, as Microsoft and IBM defined it in 1991, and RF64, EBU Tech 3306)
// and of raw streams. Plain arithmetic: bytes come from and go to whoever has the file or pipe.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "wire/Audio.h"

namespace ctl {

// How samples stand in a stream, little-endian, channel by channel.
struct SampleFormat {
  uint32_t sampleFreq = 48000;
  uint32_t channels = 2;  // 1 or 2; one is heard on both sides
  uint32_t bits = 24;     // 8 (from 0 to 255), 16, 24 or 32 (signed); 32 or 64 where it is a float
  bool isFloat = false;   // IEEE 754, 1.0 being full scale

  uint32_t FrameBytes() const { return channels * bits / 8; }
};

// Bytes that can't be taken as audio. The text says what the file is or has: "it has 6 channels".
struct BadAudio : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Turns the bytes of a stream into frames, however they are cut into pieces. What it holds in
// between is at most the part of a header or a frame: it may be fed from a pipe without an end.
class SampleDecoder {
 public:
  SampleDecoder() = default;                          // of a WAV stream, its header first
  explicit SampleDecoder(const SampleFormat& format)  // of a raw one, samples from the first byte
      : format_(format), inSamples_(true) {}

  // The frames that are whole with these bytes. 16 bits become the upper ones of 24, of 32 the
  // lower ones are cut off, a float beyond full scale is clipped. Throws BadAudio.
  wire::Frames Decode(std::string_view bytes);

  // Null until the header has come.
  const SampleFormat* Format() const { return inSamples_ ? &format_ : nullptr; }

  // Frames of the whole stream; nothing where the header leaves it open. A file that was cut off
  // has fewer.
  std::optional<uint64_t> FrameCount() const { return frameCount_; }

  // All announced samples have come; what follows isn't looked at.
  bool Ended() const { return ended_; }

 private:
  bool ReadChunk();
  void ReadFormat(std::string_view chunk);
  void BeginSamples(uint64_t size);
  wire::Frames TakeSamples();

  std::string pending_;  // bytes that aren't understood yet
  SampleFormat format_;
  bool hasRiff_ = false;
  bool hasFormat_ = false;
  bool inSamples_ = false;
  bool ended_ = false;
  uint64_t skip_ = 0;                 // bytes of a chunk without meaning here
  std::optional<uint64_t> longSize_;  // of the samples, from "ds64"
  uint64_t left_ = UINT64_MAX;        // bytes of samples
  std::optional<uint64_t> frameCount_;
};

// Whether a stream that begins so is one for SampleDecoder(); takes 12 bytes to tell.
bool IsWav(std::string_view begin);

// The header of 24-bit stereo, 80 bytes. The sizes in it have 32 bits; from 4 GiB on, or with
// `rf64`, those of 64 bits count. Without `frames` the sizes are the largest there are, which
// readers take for "until the end".
std::string WavHeader(uint32_t sampleFreq, std::optional<uint64_t> frames, bool rf64);

// Frames as 24-bit stereo.
std::string EncodeSamples(const wire::Frames& frames);

}  // namespace ctl
