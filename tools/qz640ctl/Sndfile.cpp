#include "Sndfile.h"

#include "ExitStatus.h"
#include "Wav.h"

#ifdef QZ_HAVE_SNDFILE

#include <sndfile.h>

#include <vector>

namespace ctl {

namespace {

// libsndfile carries 24-bit samples in the upper bits of 32-bit integers, unchanged.
constexpr int kShift = 8;

struct Closer {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using File = std::unique_ptr<SNDFILE, Closer>;

[[noreturn]] void Fail(const std::string& what, const std::string& path, const std::string& why) {
  throw Failure{kRefused, what + " \"" + path + "\": " + why};
}

class Reader : public AudioReader {
 public:
  explicit Reader(const std::string& path) : file_(sf_open(path.c_str(), SFM_READ, &info_)) {
    if (!file_) throw BadAudio(sf_strerror(nullptr));
    if (info_.channels > 2)
      throw BadAudio("it has " + std::to_string(info_.channels) + " channels");
  }

  uint32_t SampleFreq() const override { return static_cast<uint32_t>(info_.samplerate); }
  std::optional<uint64_t> FrameCount() const override {
    return static_cast<uint64_t>(info_.frames);
  }
  bool Ended() const override { return ended_; }

  wire::Frames Read() override {
    constexpr size_t kCount = 2048;
    const auto channels = static_cast<size_t>(info_.channels);
    std::vector<int> samples(kCount * channels);
    const sf_count_t got = sf_readf_int(file_.get(), samples.data(), kCount);
    ended_ = got < static_cast<sf_count_t>(kCount);
    wire::Frames frames(static_cast<size_t>(got > 0 ? got : 0));
    for (size_t i = 0; i < frames.size(); ++i) {
      const int* frame = &samples[i * channels];
      frames[i] = {frame[0] >> kShift, frame[channels - 1] >> kShift};
    }
    return frames;
  }

 private:
  SF_INFO info_{};
  File file_;
  bool ended_ = false;
};

class FlacWriter : public AudioWriter {
 public:
  FlacWriter(const std::string& path, uint32_t sampleFreq) : path_(path) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(sampleFreq);
    info.channels = 2;
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
    file_.reset(sf_open(path.c_str(), SFM_WRITE, &info));
    if (!file_) Fail("can't write", path, sf_strerror(nullptr));
  }

  bool Write(const wire::Frames& frames) override {
    std::vector<int> samples;
    samples.reserve(frames.size() * 2);
    for (const wire::Frame& frame : frames) {
      samples.push_back(frame.left * (1 << kShift));
      samples.push_back(frame.right * (1 << kShift));
    }
    const auto count = static_cast<sf_count_t>(frames.size());
    if (sf_writef_int(file_.get(), samples.data(), count) != count) {
      Fail("can't write", path_, sf_strerror(file_.get()));
    }
    return true;
  }

  void Close() override {
    if (!file_) return;
    if (sf_close(file_.release()) != 0) Fail("can't finish", path_, "the disk may be full");
  }

 private:
  const std::string path_;
  File file_;
};

}  // namespace

bool HasSndfile() {
  return true;
}
std::unique_ptr<AudioReader> OpenBySndfile(const std::string& path) {
  return std::make_unique<Reader>(path);
}
std::unique_ptr<AudioWriter> OpenFlac(const std::string& path, uint32_t sampleFreq) {
  return std::make_unique<FlacWriter>(path, sampleFreq);
}

}  // namespace ctl

#else

namespace ctl {

bool HasSndfile() {
  return false;
}
std::unique_ptr<AudioReader> OpenBySndfile(const std::string&) {
  return nullptr;
}
std::unique_ptr<AudioWriter> OpenFlac(const std::string&, uint32_t) {
  return nullptr;
}

}  // namespace ctl

#endif
