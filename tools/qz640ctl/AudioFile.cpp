#include "AudioFile.h"

#include "ExitStatus.h"

#ifdef QZ_HAVE_SNDFILE

#include <sndfile.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace ctl {

namespace {

// libsndfile carries 24-bit samples in the upper bits of 32-bit integers, unchanged.
constexpr int kShift = 8;

// As old the header may get, in which the file's length stands.
constexpr auto kHeaderAge = std::chrono::seconds(1);

[[noreturn]] void Fail(const std::string& what, const std::string& path, const std::string& why) {
  throw Failure{kRefused, what + " \"" + path + "\": " + why};
}

// Why the latest write didn't succeed.
std::string Reason() {
  return errno == 0 ? "the disk may be full" : std::generic_category().message(errno);
}

// How a WAV file begins (RIFF, as Microsoft and IBM defined it in 1991), numbers little-endian: the
// size of all that follows, a chunk without meaning, the format, and the samples' size. The sizes
// have 32 bits; from 4 GiB on they stand in the first chunk, which then is a "ds64" (EBU Tech
// 3306).
std::string WavHeader(uint32_t sampleFreq, uint64_t frames) {
  constexpr uint64_t kHeader = 80;  // bytes
  constexpr uint32_t kFrame = 6;
  const uint64_t data = frames * kFrame;
  const uint64_t whole = kHeader - 8 + data;
  const bool isLong = whole > UINT32_MAX;
  std::string bytes;
  const auto add = [&bytes](uint64_t number, int size) {
    for (int i = 0; i < size; ++i)
      bytes += static_cast<char>(number >> 8 * i & 0xFF);
  };
  bytes += isLong ? "RF64" : "RIFF";
  add(isLong ? UINT32_MAX : whole, 4);
  bytes += isLong ? "WAVEds64" : "WAVEJUNK";
  add(28, 4);
  add(isLong ? whole : 0, 8);
  add(isLong ? data : 0, 8);
  add(isLong ? frames : 0, 8);
  add(0, 4);  // no further sizes
  bytes += "fmt ";
  add(16, 4);
  add(1, 2);  // PCM
  add(2, 2);  // channels
  add(sampleFreq, 4);
  add(uint64_t{sampleFreq} * kFrame, 4);
  add(kFrame, 2);
  add(24, 2);
  bytes += "data";
  add(isLong ? UINT32_MAX : data, 4);
  return bytes;
}

}  // namespace

struct WavWriter::Impl {
  std::string path;
  std::ofstream file;
  uint32_t sampleFreq = 0;
  uint64_t frames = 0;
  std::chrono::steady_clock::time_point headerTime;  // of the latest header

  void WriteHeader() {
    file.seekp(0);
    file << WavHeader(sampleFreq, frames);
    file.seekp(0, std::ios::end);
    headerTime = std::chrono::steady_clock::now();
  }
};

WavWriter::WavWriter(const std::string& path, uint32_t sampleFreq, bool overwrite)
    : impl_(std::make_unique<Impl>()) {
  CheckFree(path, overwrite);
  impl_->path = path;
  impl_->sampleFreq = sampleFreq;
  errno = 0;
  impl_->file.open(path, std::ios::binary);
  impl_->WriteHeader();
  if (!impl_->file.flush()) Fail("can't write", path, Reason());
}

void WavWriter::CheckFree(const std::string& path, bool overwrite) {
  std::error_code ignored;
  if (!overwrite && std::filesystem::exists(std::filesystem::path(path), ignored)) {
    Fail("will not replace", path, "it exists; give another name or --force");
  }
}

WavWriter::~WavWriter() {
  try {
    Close();
  } catch (const Failure&) {
    // Who wants to know calls Close.
  }
}

// All of it is with the system at the end of the call: a program that is killed leaves what the
// latest header names, and what came since.
void WavWriter::Write(const wire::Frames& frames) {
  std::string bytes;
  bytes.reserve(frames.size() * 6);
  for (const wire::Frame& frame : frames) {
    for (const int32_t code : {frame.left, frame.right}) {
      for (int shift = 0; shift < 24; shift += 8)
        bytes += static_cast<char>(static_cast<uint32_t>(code) >> shift & 0xFF);
    }
  }
  errno = 0;
  impl_->file << bytes;
  impl_->frames += frames.size();
  if (std::chrono::steady_clock::now() - impl_->headerTime >= kHeaderAge) impl_->WriteHeader();
  if (!impl_->file.flush()) Fail("can't write", impl_->path, Reason());
}

void WavWriter::Close() {
  if (!impl_->file.is_open()) return;
  errno = 0;
  impl_->WriteHeader();
  impl_->file.close();
  if (!impl_->file) Fail("can't finish", impl_->path, Reason());
}

struct AudioReader::Impl {
  SNDFILE* file = nullptr;
  SF_INFO info{};
};

AudioReader::AudioReader(const std::string& path, uint32_t sampleFreq)
    : impl_(std::make_unique<Impl>()) {
  impl_->file = sf_open(path.c_str(), SFM_READ, &impl_->info);
  if (!impl_->file) Fail("can't read", path, sf_strerror(nullptr));
  if (impl_->info.channels != 2) {
    Fail("can't play", path,
         "it has " + std::to_string(impl_->info.channels) +
             " channel(s), a unit's output takes 2; convert it first");
  }
  if (impl_->info.samplerate != static_cast<int>(sampleFreq)) {
    Fail("can't play", path,
         "it has " + std::to_string(impl_->info.samplerate) + " Hz, the unit is said to run at " +
             std::to_string(sampleFreq) + " Hz; convert it, or give the unit's with --freq");
  }
}

AudioReader::~AudioReader() {
  if (impl_->file) sf_close(impl_->file);
}

uint64_t AudioReader::FrameCount() const {
  return static_cast<uint64_t>(impl_->info.frames);
}

wire::Frames AudioReader::Read(size_t count) {
  std::vector<int> samples(count * 2);
  const sf_count_t got = sf_readf_int(impl_->file, samples.data(), static_cast<sf_count_t>(count));
  wire::Frames frames(static_cast<size_t>(got > 0 ? got : 0));
  for (size_t i = 0; i < frames.size(); ++i) {
    frames[i] = {samples[2 * i] >> kShift, samples[2 * i + 1] >> kShift};
  }
  return frames;
}

}  // namespace ctl

#else  // without libsndfile

namespace ctl {

namespace {
[[noreturn]] void Missing() {
  throw Failure{kRefused,
                "this qz640ctl was built without libsndfile and has no audio files; "
                "use --tone or --pattern, or build it with the library"};
}
}  // namespace

struct WavWriter::Impl {};
WavWriter::WavWriter(const std::string&, uint32_t, bool) {
  Missing();
}
WavWriter::~WavWriter() = default;
void WavWriter::Write(const wire::Frames&) {}
void WavWriter::Close() {}
void WavWriter::CheckFree(const std::string&, bool) {
  Missing();
}

struct AudioReader::Impl {};
AudioReader::AudioReader(const std::string&, uint32_t) {
  Missing();
}
AudioReader::~AudioReader() = default;
uint64_t AudioReader::FrameCount() const {
  return 0;
}
wire::Frames AudioReader::Read(size_t) {
  return {};
}

}  // namespace ctl

#endif
