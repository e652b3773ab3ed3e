#include "AudioFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "ExitStatus.h"
#include "Sndfile.h"
#include "Wav.h"
#include "platform/startup.h"
#include "wire/Loop.h"

namespace ctl {

namespace files = std::filesystem;

namespace {

// As old the header may get, in which the file's length stands.
constexpr auto kHeaderAge = std::chrono::seconds(1);

constexpr std::pair<const char*, AudioFormat> kFormats[] = {
    {"wav", AudioFormat::Wav}, {"rf64", AudioFormat::Rf64}, {"flac", AudioFormat::Flac},
    {"raw", AudioFormat::Raw}, {"pcm", AudioFormat::Raw},
};

files::path PathOf(const std::string& utf8) {
  return std::u8string(utf8.begin(), utf8.end());
}

std::string TextOf(const files::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

[[noreturn]] void Fail(const std::string& what, const std::string& path, const std::string& why) {
  throw Failure{kRefused, what + " \"" + path + "\": " + why};
}

// Why the latest operation on a file didn't succeed.
std::string Reason() {
  return errno == 0 ? "the disk may be full" : std::generic_category().message(errno);
}

std::string Reason(const platform::PipeResult& result) {
  return std::system_category().message(static_cast<int>(result.error));
}

// Without the dot, in lower case.
std::string EndingOf(const std::string& path) {
  std::string ending = TextOf(PathOf(path).extension());
  ending.erase(0, 1);
  std::transform(ending.begin(), ending.end(), ending.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return ending;
}

std::optional<AudioFormat> FormatNamed(const std::string& name) {
  for (const auto& [known, format] : kFormats) {
    if (name == known) return format;
  }
  return std::nullopt;
}

// WAV, RF64 or raw.
class FileWriter : public AudioWriter {
 public:
  FileWriter(const std::string& path, AudioFormat format, uint32_t sampleFreq)
      : path_(path), format_(format), sampleFreq_(sampleFreq) {
    errno = 0;
    file_.open(PathOf(path), std::ios::binary);
    WriteHeader();
    if (!file_.flush()) Fail("can't write", path_, Reason());
  }

  bool Write(const wire::Frames& frames) override {
    errno = 0;
    file_ << EncodeSamples(frames);
    frames_ += frames.size();
    if (std::chrono::steady_clock::now() - headerTime_ >= kHeaderAge) WriteHeader();
    if (!file_.flush()) Fail("can't write", path_, Reason());
    return true;
  }

  void Close() override {
    if (!file_.is_open()) return;
    errno = 0;
    WriteHeader();
    file_.close();
    if (!file_) Fail("can't finish", path_, Reason());
  }

 private:
  void WriteHeader() {
    headerTime_ = std::chrono::steady_clock::now();
    if (format_ == AudioFormat::Raw) return;
    file_.seekp(0);
    file_ << WavHeader(sampleFreq_, frames_, format_ == AudioFormat::Rf64);
    file_.seekp(0, std::ios::end);
  }

  const std::string path_;
  const AudioFormat format_;
  const uint32_t sampleFreq_;
  std::ofstream file_;
  uint64_t frames_ = 0;
  std::chrono::steady_clock::time_point headerTime_;  // of the latest header
};

// WAV of a length that isn't known, or raw.
class PipeWriter : public AudioWriter {
 public:
  PipeWriter(AudioFormat format, uint32_t sampleFreq) {
    if (format != AudioFormat::Raw) Pass(WavHeader(sampleFreq, std::nullopt, false));
  }

  bool Write(const wire::Frames& frames) override { return Pass(EncodeSamples(frames)); }
  void Close() override {}

 private:
  bool Pass(const std::string& bytes) {
    if (!open_) return false;
    const platform::PipeResult result = platform::WriteBytes(bytes);
    if (result.state == platform::PipeState::Failed) {
      throw Failure{kRefused, "can't write to standard output: " + Reason(result)};
    }
    open_ = result.state == platform::PipeState::Open;
    return open_;
  }

  bool open_ = true;
};

// What makes of nearly any file one that can be played.
std::string Conversion(const std::string& path) {
  if (IsPipe(path)) return "ffmpeg -i FILE -ac 2 -c:a pcm_s24le -f wav - | qz640ctl play UNIT -";
  return "ffmpeg -i \"" + path + "\" -ac 2 -c:a pcm_s24le out.wav";
}

// A stream that SampleDecoder understands.
class DecodedReader : public AudioReader {
 public:
  DecodedReader(const std::string& path, SampleDecoder decoder)
      : path_(path), decoder_(std::move(decoder)) {
    if (!IsPipe(path_)) {
      errno = 0;
      file_.open(PathOf(path_), std::ios::binary);
      if (!file_) Fail("can't read", path_, Reason());
    }
    while (!decoder_.Format()) {
      constexpr uint32_t kTurn = 100;  // milliseconds
      first_ = decoder_.Decode(Bytes(kTurn));
      if (ended_ && !decoder_.Format()) throw BadAudio("it ends before its samples begin");
      if (platform::WaitForStop(0)) throw wire::Interrupted();
    }
  }

  uint32_t SampleFreq() const override { return decoder_.Format()->sampleFreq; }

  // A file that was cut off has less than it announces.
  std::optional<uint64_t> FrameCount() const override {
    if (IsPipe(path_)) return decoder_.FrameCount();
    std::error_code error;
    const uint64_t size = files::file_size(PathOf(path_), error);
    const uint64_t most = error ? UINT64_MAX : size / decoder_.Format()->FrameBytes();
    return std::min(decoder_.FrameCount().value_or(most), most);
  }

  bool Ended() const override { return first_.empty() && (ended_ || decoder_.Ended()); }

  wire::Frames Read() override {
    if (!first_.empty()) return std::exchange(first_, {});
    return Ended() ? wire::Frames() : decoder_.Decode(Bytes(0));
  }

 private:
  // What there is, after `milliseconds` at most.
  std::string Bytes(uint32_t milliseconds) {
    std::array<char, 8192> buffer;
    if (!IsPipe(path_)) {
      errno = 0;
      file_.read(buffer.data(), buffer.size());
      if (file_.bad()) Fail("can't read", path_, Reason());
      ended_ = !file_;
      return {buffer.data(), static_cast<size_t>(file_.gcount())};
    }
    const auto result = platform::ReadBytes(buffer.data(), buffer.size(), milliseconds);
    if (result.state == platform::PipeState::Failed) {
      throw Failure{kRefused, "can't read standard input: " + Reason(result)};
    }
    ended_ = result.state != platform::PipeState::Open;
    return {buffer.data(), result.count};
  }

  const std::string path_;
  SampleDecoder decoder_;
  std::ifstream file_;
  wire::Frames first_;  // came with the header
  bool ended_ = false;  // of bytes
};

bool BeginsAsWav(const std::string& path) {
  std::array<char, 12> begin{};
  errno = 0;
  std::ifstream file(PathOf(path), std::ios::binary);
  if (!file) Fail("can't read", path, Reason());
  file.read(begin.data(), begin.size());
  return IsWav({begin.data(), begin.size()});
}

// A WAV file with samples of another kind may be one that libsndfile knows.
std::unique_ptr<AudioReader> OpenAny(const std::string& path) {
  if (IsPipe(path)) return std::make_unique<DecodedReader>(path, SampleDecoder());
  if (BeginsAsWav(path)) {
    try {
      return std::make_unique<DecodedReader>(path, SampleDecoder());
    } catch (const BadAudio&) {
      if (!HasSndfile()) throw;
    }
  }
  if (HasSndfile()) return OpenBySndfile(path);
  throw BadAudio("it is no WAV, and this qz640ctl was built without libsndfile, which knows more");
}

}  // namespace

AudioFormat FormatToWrite(const std::string& path, const std::string& name) {
  const std::string ending = EndingOf(path);
  const auto format =
      name.empty() && IsPipe(path) ? AudioFormat::Wav : FormatNamed(name.empty() ? ending : name);
  if (!format) {
    throw Failure{kUsage, "\"" + path + "\" " +
                              (ending.empty() ? "has no ending that names a format"
                                              : "would be a ." + ending + " file") +
                              "; what can be written is .wav, .rf64, .flac and .raw, or say with "
                              "--format what it is to be"};
  }
  if (IsPipe(path) && (format == AudioFormat::Rf64 || format == AudioFormat::Flac)) {
    throw Failure{kUsage,
                  "a pipe takes WAV, of any length, or --format raw; encode behind it "
                  "(qz640ctl record UNIT - | flac -o take.flac -)"};
  }
  if (format == AudioFormat::Flac && !HasSndfile()) {
    throw Failure{kUsage,
                  "this qz640ctl was built without libsndfile, which writes FLAC; take .wav "
                  "and encode it afterwards (flac take.wav)"};
  }
  return *format;
}

void CheckFree(const std::string& path, bool parts) {
  const auto refuse = [](const files::path& taken) {
    Fail("will not replace", TextOf(taken), "it exists; give another name or --force");
  };
  std::error_code ignored;
  const files::path whole = PathOf(path);
  if (!parts) {
    if (files::exists(whole, ignored)) refuse(whole);
    return;
  }
  const std::string begin = TextOf(whole.stem()) + "-";
  const std::string end = TextOf(whole.extension());
  const files::path folder = whole.has_parent_path() ? whole.parent_path() : files::path(".");
  for (const files::directory_entry& entry : files::directory_iterator(folder, ignored)) {
    const std::string name = TextOf(entry.path().filename());
    const bool fits = name.size() >= begin.size() + 3 + end.size() && name.starts_with(begin) &&
                      name.ends_with(end);
    if (!fits) continue;
    const std::string number = name.substr(begin.size(), name.size() - begin.size() - end.size());
    if (number.find_first_not_of("0123456789") == std::string::npos) refuse(entry.path());
  }
}

std::string NameWith(const std::string& path, const std::string& addition) {
  const files::path whole = PathOf(path);
  files::path name = whole.stem();
  name += PathOf(addition);
  name += whole.extension();
  return TextOf(whole.parent_path() / name);
}

std::string NameOfPart(const std::string& path, size_t number) {
  constexpr size_t kDigits = 3;
  const std::string digits = std::to_string(number);
  const size_t zeros = kDigits - std::min(kDigits, digits.size());
  return NameWith(path, "-" + std::string(zeros, '0') + digits);
}

std::unique_ptr<AudioWriter> OpenToWrite(const std::string& path, AudioFormat format,
                                         uint32_t sampleFreq) {
  if (IsPipe(path)) return std::make_unique<PipeWriter>(format, sampleFreq);
  if (format == AudioFormat::Flac) return OpenFlac(path, sampleFreq);
  return std::make_unique<FileWriter>(path, format, sampleFreq);
}

std::unique_ptr<AudioReader> OpenToRead(const std::string& path, const std::string& name,
                                        uint32_t rawFreq) {
  const auto format = FormatNamed(name.empty() && !IsPipe(path) ? EndingOf(path) : name);
  try {
    if (format != AudioFormat::Raw) return OpenAny(path);
    return std::make_unique<DecodedReader>(path, SampleDecoder(SampleFormat{rawFreq}));
  } catch (const BadAudio& error) {
    throw Failure{kRefused, "can't play " + (IsPipe(path) ? "standard input" : "\"" + path + "\"") +
                                ": " + error.what() + "; convert it first: " + Conversion(path)};
  }
}

}  // namespace ctl
