#include "AudioFile.h"

#include "ExitStatus.h"

#ifdef QZ_HAVE_SNDFILE

#include <sndfile.h>

#include <filesystem>
#include <vector>

namespace ctl {

namespace {

// libsndfile carries 24-bit samples in the upper bits of 32-bit integers, unchanged.
constexpr int kShift = 8;

[[noreturn]] void Fail(const std::string& what, const std::string& path, const std::string& why) {
  throw Failure{kRefused, what + " \"" + path + "\": " + why};
}

}  // namespace

struct WavWriter::Impl {
  std::string path;
  SNDFILE* file = nullptr;
};

WavWriter::WavWriter(const std::string& path, uint32_t sampleFreq, bool overwrite)
    : impl_(std::make_unique<Impl>()) {
  CheckFree(path, overwrite);
  impl_->path = path;
  SF_INFO info{};
  info.samplerate = static_cast<int>(sampleFreq);
  info.channels = 2;
  info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
  impl_->file = sf_open(path.c_str(), SFM_WRITE, &info);
  if (!impl_->file) Fail("can't write", path, sf_strerror(nullptr));
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

void WavWriter::Write(const wire::Frames& frames) {
  std::vector<int> samples;
  samples.reserve(frames.size() * 2);
  for (const wire::Frame& frame : frames) {
    samples.push_back(static_cast<int>(static_cast<uint32_t>(frame.left) << kShift));
    samples.push_back(static_cast<int>(static_cast<uint32_t>(frame.right) << kShift));
  }
  const auto count = static_cast<sf_count_t>(frames.size());
  if (sf_writef_int(impl_->file, samples.data(), count) != count) {
    Fail("can't write", impl_->path, sf_strerror(impl_->file));
  }
}

void WavWriter::Close() {
  if (!impl_->file) return;
  SNDFILE* file = impl_->file;
  impl_->file = nullptr;
  if (sf_close(file) != 0) Fail("can't finish", impl_->path, "the disk may be full");
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
             std::to_string(sampleFreq) + " Hz; convert it, or tell the unit's with --freq");
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
