#include "AudioFile.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "ExitStatus.h"
#include "Resampler.h"
#include "Sndfile.h"
#include "Wav.h"
#include "support/System.h"

namespace ctl {
namespace {

using wire::Frame;
using wire::Frames;

std::string Little(uint64_t number, size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i)
    bytes += static_cast<char>(number >> 8 * i & 0xFF);
  return bytes;
}

std::string Chunk(const std::string& id, const std::string& bytes) {
  return id + Little(bytes.size(), 4) + bytes + std::string(bytes.size() % 2, '\0');
}

// A file with a chunk of odd length that means nothing here before the format, and one at its end.
std::string Wav(uint32_t tag, uint32_t channels, uint32_t bits, const std::string& samples) {
  const std::string format = Little(tag, 2) + Little(channels, 2) + Little(44100, 4) +
                             Little(0, 4) + Little(channels * bits / 8, 2) + Little(bits, 2);
  const std::string chunks = "WAVE" + Chunk("LIST", "odd") + Chunk("fmt ", format) +
                             Chunk("data", samples) + Chunk("LIST", "end");
  return Chunk("RIFF", chunks);
}

std::string Float(float sample) {
  return Little(std::bit_cast<uint32_t>(sample), 4);
}

// The stream that a decoder makes of bytes, in one piece and byte by byte.
Frames DecodeBothWays(const std::string& bytes) {
  SampleDecoder whole;
  const Frames frames = whole.Decode(bytes);
  SampleDecoder single;
  Frames pieces;
  for (const char byte : bytes) {
    for (const Frame& frame : single.Decode(std::string(1, byte)))
      pieces.push_back(frame);
  }
  EXPECT_EQ(frames, pieces);
  return frames;
}

TEST(SampleDecoder, TakesEverySampleFormatInPiecesOfAnySize) {
  const struct {
    uint32_t tag, channels, bits;
    std::string samples;
    Frames frames;
  } rows[] = {
      {1, 2, 8, Little(0xFF00, 2), {{-0x800000, 0x7F0000}}},
      {1, 2, 16, Little(0x7FFF8000, 4), {{-0x800000, 0x7FFF00}}},
      {1, 1, 16, Little(0x0001FFFF, 4), {{-0x100, -0x100}, {0x100, 0x100}}},
      {1, 2, 24, Little(0x7FFFFF800000, 6), {{-0x800000, 0x7FFFFF}}},
      {1, 2, 32, Little(0x7FFFFFFF800000FF, 8), {{-0x800000, 0x7FFFFF}}},
      {3, 2, 32, Float(-0.5F) + Float(1.5F), {{-0x400000, 0x7FFFFF}}},
      {3, 1, 32, Float(std::nanf("")) + Float(1.0F / 0x800000), {{0, 0}, {1, 1}}},
      {3, 1, 64, Little(std::bit_cast<uint64_t>(0.25), 8), {{0x200000, 0x200000}}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(DecodeBothWays(Wav(row.tag, row.channels, row.bits, row.samples)), row.frames)
        << row.tag << " " << row.bits;
  }
  for (const auto& [bytes, why] :
       {std::pair(Wav(1, 6, 16, ""), "6 channels"), std::pair(Wav(2, 2, 4, ""), "format 2, 4 bits"),
        std::pair(Chunk("RIFF", "WAVE" + Chunk("data", "x")), "before their format")}) {
    try {
      SampleDecoder().Decode(bytes);
      ADD_FAILURE() << why;
    } catch (const BadAudio& error) {
      EXPECT_NE(std::string(error.what()).find(why), std::string::npos) << error.what();
    }
  }
}

// Of 4 GiB and more, and of a length that isn't known, only the headers are here.
TEST(SampleDecoder, TakesTheLengthsOfLongAndOfOpenFiles) {
  const Frames frames{{-1, 1}, {0x7FFFFF, -0x800000}};
  const struct {
    std::optional<uint64_t> frames;
    bool rf64;
    std::string form;
  } rows[] = {
      {2, false, "RIFF"}, {2, true, "RF64"}, {1'000'000'000, false, "RF64"}, {{}, false, "RIFF"}};
  for (const auto& row : rows) {
    const std::string header = WavHeader(48000, row.frames, row.rf64);
    ASSERT_EQ(header.size(), 80u);
    EXPECT_EQ(header.substr(0, 4), row.form);
    EXPECT_EQ(DecodeBothWays(header + EncodeSamples(frames)), frames);
    SampleDecoder decoder;
    decoder.Decode(header);
    EXPECT_EQ(decoder.FrameCount(), row.frames);
  }
}

TEST(AudioFile, EveryFormatGivesBackWhatWasWritten) {
  const auto folder = std::filesystem::temp_directory_path();
  Frames frames;
  for (int32_t i = 0; i < 10000; ++i)
    frames.push_back({i * 838 - 0x3FFFFF, 0x7FFFFF - i});
  for (const std::string format : {"wav", "rf64", "raw", "flac"}) {
    if (format == "flac" && !HasSndfile()) continue;
    // Beyond every code page of Windows.
    const std::u8string name = u8"ears-Grüße-\u65E5\u672C-";
    const std::string path = (folder / "").string() + std::string(name.begin(), name.end()) +
                             std::to_string(OwnProcessId()) + "." + format;
    const auto writer = OpenToWrite(path, FormatToWrite(path, ""), 44100);
    EXPECT_TRUE(writer->Write(frames));
    writer->Close();
    EXPECT_THROW(CheckFree(path, false), Failure);
    auto reader = OpenToRead(path, "", 44100);
    EXPECT_EQ(reader->SampleFreq(), 44100u);
    EXPECT_EQ(reader->FrameCount(), frames.size());
    Frames read;
    while (!reader->Ended()) {
      for (const Frame& frame : reader->Read())
        read.push_back(frame);
    }
    EXPECT_EQ(read, frames) << format;
    reader.reset();  // Windows removes no open file
    std::filesystem::remove(std::u8string(path.begin(), path.end()));
  }
}

// At the end nothing is held back, and the level stays as it was.
TEST(Resampler, KeepsLengthAndLevel) {
  const auto resampler = Resampler::Create(44100, 48000);
  if (!resampler) GTEST_SKIP() << "built without libsamplerate, which is optional";
  Frames out;
  for (int part = 0; part < 10; ++part) {
    Frames in(4410);
    for (size_t i = 0; i < in.size(); ++i) {
      const double angle = 0.1 * (static_cast<double>(i) + 4410.0 * part);
      in[i] = {static_cast<int32_t>(4'000'000 * std::sin(angle)), 0};
    }
    for (const Frame& frame : resampler->Convert(in, part == 9))
      out.push_back(frame);
  }
  EXPECT_NEAR(static_cast<double>(out.size()), 48000, 2);
  int32_t peak = 0;
  for (size_t i = 1000; i + 1000 < out.size(); ++i) {
    peak = std::max(peak, out[i].left);
    ASSERT_EQ(out[i].right, 0);
  }
  EXPECT_NEAR(peak, 4'000'000, 40'000);
}

}  // namespace
}  // namespace ctl
