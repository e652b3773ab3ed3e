// Any bytes as a WAV stream: the same frames in whatever pieces they come, and never more than the
// header announces.
#include <algorithm>
#include <optional>
#include <string>

#include "Harness.h"
#include "Wav.h"

using fuzz::Require;

namespace {

struct Outcome {
  wire::Frames frames;
  bool refused = false;
};

Outcome Decode(ctl::SampleDecoder& decoder, std::string_view bytes, size_t piece) {
  Outcome outcome;
  try {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
      for (const wire::Frame& frame : decoder.Decode(bytes.substr(0, piece)))
        outcome.frames.push_back(frame);
    }
  } catch (const ctl::BadAudio&) {
    outcome.refused = true;
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t piece = 1 + data[0];
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  ctl::SampleDecoder whole;
  ctl::SampleDecoder pieces;
  const Outcome one = Decode(whole, bytes, bytes.size());
  const Outcome many = Decode(pieces, bytes, piece);
  Require(one.refused == many.refused, "pieces are refused as the whole is");
  Require(one.frames == many.frames, "pieces have the frames of the whole");

  const ctl::SampleFormat* format = whole.Format();
  Require(format || one.frames.empty(), "frames have a format");
  Require(!format || !one.refused, "what has a format is taken");
  if (!format) return 0;
  Require(format->channels == 1 || format->channels == 2, "one or two channels");
  Require(one.frames.size() <= bytes.size() / format->FrameBytes(), "no frame out of nothing");
  const auto count = whole.FrameCount();
  Require(!count || one.frames.size() <= *count, "no more than is announced");
  for (const wire::Frame& frame : one.frames) {
    for (const int32_t code : {frame.left, frame.right})
      Require(code >= -0x800000 && code <= 0x7FFFFF, "codes have 24 bits");
  }
  // Back as a file of 24-bit stereo it is the same.
  ctl::SampleDecoder again;
  const std::string file = ctl::WavHeader(format->sampleFreq, one.frames.size(), data[0] % 2 == 1) +
                           ctl::EncodeSamples(one.frames);
  Require(Decode(again, file, file.size()).frames == one.frames, "written and read it is the same");
  return 0;
}
