#include "Wav.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace ctl {

namespace {

// Format tags of the "fmt " chunk (mmreg.h of the Windows SDK).
constexpr uint64_t kPcm = 1;
constexpr uint64_t kFloat = 3;
constexpr uint64_t kExtensible = 0xFFFE;  // the tag proper stands at the end of the chunk

// Sizes of 32 bits that say nothing: the length wasn't known when the header was written.
constexpr uint64_t kUnknown = 0xFFFFFFFF;

// A format, an RF64 size table: no chunk that is read as a whole has a reason to be longer.
constexpr uint64_t kLongestChunk = 4096;

uint64_t Number(std::string_view bytes, size_t at, size_t size) {
  uint64_t number = 0;
  for (size_t i = size; i > 0; --i)
    number = number << 8 | static_cast<uint8_t>(bytes[at + i - 1]);
  return number;
}

void Add(std::string& bytes, uint64_t number, size_t size) {
  for (size_t i = 0; i < size; ++i)
    bytes += static_cast<char>(number >> 8 * i & 0xFF);
}

// A code of 24 bits holds each sample of 16 and of 24 bits, and each float that was made of one.
int32_t FromFloat(double sample) {
  constexpr double kScale = wire::kFullScale + 1.0;
  if (std::isnan(sample)) return 0;
  const double code = std::clamp(sample * kScale, -kScale, kScale - 1.0);
  return static_cast<int32_t>(std::lround(code));
}

int32_t CodeAt(std::string_view bytes, size_t at, const SampleFormat& format) {
  const uint64_t raw = Number(bytes, at, format.bits / 8);
  if (format.isFloat && format.bits == 64) return FromFloat(std::bit_cast<double>(raw));
  if (format.isFloat) {
    return FromFloat(static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(raw))));
  }
  if (format.bits == 8) return (static_cast<int32_t>(raw) - 128) * 0x10000;
  // To the top of 32 bits, where its sign is, and from there down to 24.
  const auto top = static_cast<uint32_t>(raw << (32 - format.bits));
  return static_cast<int32_t>(top) >> 8;
}

}  // namespace

bool IsWav(std::string_view begin) {
  if (begin.size() < 12 || begin.substr(8, 4) != "WAVE") return false;
  const std::string_view form = begin.substr(0, 4);
  return form == "RIFF" || form == "RF64" || form == "BW64";  // BW64: ITU-R BS.2088
}

wire::Frames SampleDecoder::Decode(std::string_view bytes) {
  if (ended_) return {};
  pending_ += bytes;
  while (!inSamples_ && ReadChunk()) {
  }
  return inSamples_ ? TakeSamples() : wire::Frames();
}

// Takes the next piece of the header off the pending bytes; false when it isn't whole yet.
bool SampleDecoder::ReadChunk() {
  const auto take = [this](size_t size) { pending_.erase(0, size); };
  if (skip_ > 0) {
    const auto size = static_cast<size_t>(std::min<uint64_t>(skip_, pending_.size()));
    skip_ -= size;
    take(size);
    return skip_ == 0;
  }
  if (!hasRiff_) {
    if (pending_.size() < 12) return false;
    if (!IsWav(pending_)) throw BadAudio("it is no WAV");
    hasRiff_ = true;
    take(12);
    return true;
  }
  if (pending_.size() < 8) return false;
  const std::string id = pending_.substr(0, 4);
  const uint64_t size = Number(pending_, 4, 4);
  if (id == "data") {
    if (!hasFormat_) throw BadAudio("its samples come before their format");
    take(8);
    BeginSamples(size == kUnknown && longSize_ ? *longSize_ : size);
    return false;
  }
  const uint64_t padded = size + size % 2;  // chunks begin at even places
  if (id == "fmt " || id == "ds64") {
    if (size > kLongestChunk) throw BadAudio("its header makes no sense");
    if (pending_.size() < 8 + padded) return false;
    const std::string chunk = pending_.substr(8, static_cast<size_t>(size));
    if (id == "fmt ") ReadFormat(chunk);
    if (id == "ds64" && size >= 16) longSize_ = Number(chunk, 8, 8);
    take(static_cast<size_t>(8 + padded));
    return true;
  }
  take(8);
  skip_ = padded;
  return true;
}

void SampleDecoder::ReadFormat(std::string_view chunk) {
  if (chunk.size() < 16) throw BadAudio("its header makes no sense");
  uint64_t tag = Number(chunk, 0, 2);
  if (tag == kExtensible && chunk.size() >= 40) tag = Number(chunk, 24, 2);
  format_.channels = static_cast<uint32_t>(Number(chunk, 2, 2));
  format_.sampleFreq = static_cast<uint32_t>(Number(chunk, 4, 4));
  format_.bits = static_cast<uint32_t>(Number(chunk, 14, 2));
  format_.isFloat = tag == kFloat;

  const uint32_t bits = format_.bits;
  const bool known = tag == kPcm     ? bits == 8 || bits == 16 || bits == 24 || bits == 32
                     : tag == kFloat ? bits == 32 || bits == 64
                                     : false;
  if (!known) {
    throw BadAudio(
        "its samples are neither whole numbers of 8, 16, 24 or 32 bits nor floats "
        "(format " +
        std::to_string(tag) + ", " + std::to_string(bits) + " bits)");
  }
  if (format_.channels < 1 || format_.channels > 2) {
    throw BadAudio("it has " + std::to_string(format_.channels) + " channels");
  }
  if (format_.sampleFreq == 0 || Number(chunk, 12, 2) != format_.FrameBytes()) {
    throw BadAudio("its header makes no sense");
  }
  hasFormat_ = true;
}

// A program that writes the length when it ends, and was killed before, leaves a length of 0.
void SampleDecoder::BeginSamples(uint64_t size) {
  inSamples_ = true;
  if (size == 0 || size == kUnknown) return;
  left_ = size;
  frameCount_ = size / format_.FrameBytes();
}

wire::Frames SampleDecoder::TakeSamples() {
  const uint32_t frameBytes = format_.FrameBytes();
  const uint64_t whole = std::min<uint64_t>(pending_.size(), left_) / frameBytes;
  wire::Frames frames(static_cast<size_t>(whole));
  size_t at = 0;
  for (wire::Frame& frame : frames) {
    frame.left = CodeAt(pending_, at, format_);
    frame.right =
        format_.channels == 1 ? frame.left : CodeAt(pending_, at + format_.bits / 8, format_);
    at += frameBytes;
  }
  if (left_ != UINT64_MAX) left_ -= at;
  ended_ = left_ < frameBytes;
  pending_.erase(0, ended_ ? pending_.size() : at);
  return frames;
}

// The size of all that follows, a chunk without meaning, the format, and the samples' size. From 4
// GiB on the first chunk is a "ds64", which has sizes of 64 bits.
std::string WavHeader(uint32_t sampleFreq, std::optional<uint64_t> frames, bool rf64) {
  constexpr uint64_t kHeader = 80;  // bytes
  constexpr uint32_t kFrame = 6;
  const uint64_t data = frames.value_or(0) * kFrame;
  const uint64_t whole = kHeader - 8 + data;
  const bool isLong = rf64 || whole >= kUnknown;
  const bool isOpen = isLong || !frames;
  std::string bytes = isLong ? "RF64" : "RIFF";
  Add(bytes, isOpen ? kUnknown : whole, 4);
  bytes += isLong ? "WAVEds64" : "WAVEJUNK";
  Add(bytes, 28, 4);
  Add(bytes, isLong ? whole : 0, 8);
  Add(bytes, isLong ? data : 0, 8);
  Add(bytes, isLong ? frames.value_or(0) : 0, 8);
  Add(bytes, 0, 4);  // no further sizes
  bytes += "fmt ";
  Add(bytes, 16, 4);
  Add(bytes, kPcm, 2);
  Add(bytes, 2, 2);  // channels
  Add(bytes, sampleFreq, 4);
  Add(bytes, uint64_t{sampleFreq} * kFrame, 4);
  Add(bytes, kFrame, 2);
  Add(bytes, 24, 2);
  bytes += "data";
  Add(bytes, isOpen ? kUnknown : data, 4);
  return bytes;
}

std::string EncodeSamples(const wire::Frames& frames) {
  std::string bytes;
  bytes.reserve(frames.size() * 6);
  for (const wire::Frame& frame : frames) {
    Add(bytes, static_cast<uint32_t>(frame.left), 3);
    Add(bytes, static_cast<uint32_t>(frame.right), 3);
  }
  return bytes;
}

}  // namespace ctl
