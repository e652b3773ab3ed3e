// A stream as it may come in: the statistics against a model that remembers every number, and the
// packets against what they were read from.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>

#include "Harness.h"
#include "wire/StreamStats.h"

using fuzz::Input;
using fuzz::Require;
using wire::Bytes;

namespace {

class Model {
 public:
  // The packet's place: at or above `begin` it belongs to the stream, below it nobody expected it.
  int64_t Add(uint16_t sequence) {
    const auto step = static_cast<int16_t>(static_cast<uint16_t>(sequence - sequence_));
    int64_t place = first_ ? 0 : highest_ + step;
    if (!first_ && std::abs(static_cast<int>(step)) > 1000) {
      ++jumps;
      place = begin_ = highest_ + 1;
    }
    if (place < begin_ || (!first_ && place < highest_ && !came_.contains(place))) ++late;
    if (place >= begin_ && !came_.insert(place).second) ++duplicates;
    if (first_ || place > highest_) {
      highest_ = place;
      sequence_ = sequence;
    }
    first_ = false;
    return place - (place < begin_ ? begin_ : 0);
  }

  uint64_t Lost() const { return static_cast<uint64_t>(highest_) + 1 - came_.size(); }

  uint64_t late = 0;
  uint64_t duplicates = 0;
  uint64_t jumps = 0;

 private:
  bool first_ = true;
  uint16_t sequence_ = 0;  // of the highest place
  int64_t highest_ = 0;
  int64_t begin_ = 0;  // where the sender started anew
  std::set<int64_t> came_;
};

bool IsLevel(double peak) {
  return peak >= 0 && peak <= 1.000001;  // the lowest code is one below minus full scale
}

// An audio packet with that number, now and then with a byte of the header changed.
Bytes MakePacket(Input& input, uint16_t sequence) {
  const uint8_t form = input.U8();
  wire::Frames frames(form % 4);
  for (wire::Frame& frame : frames)
    frame.left = input.U8() << 16;
  wire::StreamHeader header;
  header.payloadType = static_cast<uint8_t>(100 + form / 4 % 2);
  header.sequence = sequence;
  header.timestamp = sequence * wire::kPacketFrames;
  Bytes bytes = wire::EncodePacket(header, frames);
  if (form >= 240) bytes[input.U8() % bytes.size()] = input.U8();
  if (form >= 250) bytes.resize(input.U8() % bytes.size());
  return bytes;
}

// Of what can be read each byte comes back, but those after the last whole frame.
void RequireRoundTrip(const wire::StreamPacket& packet) {
  const size_t count = packet.FrameCount();
  if (count == 0) return;
  const auto size = static_cast<std::ptrdiff_t>(wire::kHeaderBytes + count * wire::kFrameBytes);
  Require(wire::EncodePacket(packet.Header(), packet.Audio()) ==
              Bytes(packet.bytes.begin(), packet.bytes.begin() + size),
          "a packet is read byte by byte");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 2048) return 0;
  Input input(data, size);
  wire::StreamStats stats;
  Model model;
  uint64_t packets = 0, foreign = 0;
  uint16_t sequence = input.U16();
  wire::Clock::time_point time;
  while (input.Left() > 0) {
    const uint8_t step = input.U8();
    // Mostly the next number; else one near by, or any.
    sequence = step < 128   ? static_cast<uint16_t>(sequence + 1)
               : step < 224 ? static_cast<uint16_t>(sequence + step - 176)
                            : input.U16();
    time += std::chrono::milliseconds(step % 16);
    const wire::StreamPacket packet{MakePacket(input, sequence), {}, time};
    RequireRoundTrip(packet);
    const auto place = stats.Add(packet);
    if (packet.FrameCount() == 0) {
      ++foreign;
      Require(!place, "what isn't audio has no place");
    } else {
      ++packets;
      Require(place == model.Add(packet.Header().sequence), "a packet has its place");
    }
    Require(stats.packets == packets && stats.foreign == foreign, "each packet counts");
    Require(packets == 0 || stats.Lost() == model.Lost(), "lost is what never came");
    Require(stats.outOfOrder == model.late && stats.duplicates == model.duplicates &&
                stats.jumps == model.jumps,
            "out of order, doubled and started anew are told apart");
    Require(std::isfinite(stats.Rate()) && stats.Rate() >= 0, "there is a rate");
    Require(std::isfinite(stats.JitterMs()) && stats.WorstGapMs() >= 0, "there is a jitter");
    if (step % 8 == 0) {
      Require(IsLevel(stats.TakePeak(0)) && IsLevel(stats.TakePeak(1)), "levels have their range");
      Require(std::isfinite(stats.TakeRate()), "so has the rate of late");
    }
  }
  return 0;
}
