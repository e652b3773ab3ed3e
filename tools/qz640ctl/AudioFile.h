// Audio in files and pipes, sample for sample: WAV, RF64 and raw 24-bit stereo without help, FLAC
// and whatever else libsndfile has in a build with that library. Names are UTF-8; "-" is standard
// input or output.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "wire/Audio.h"

namespace ctl {

enum class AudioFormat { Wav, Rf64, Flac, Raw };

inline bool IsPipe(const std::string& path) {
  return path == "-";
}

// What `name`, one of wav, rf64, flac and raw, says; where it is empty, what the ending of `path`
// says, and for a pipe WAV. Throws Failure (kUsage) for an ending without a meaning, and for a
// format that this build doesn't write or that a pipe doesn't take.
AudioFormat FormatToWrite(const std::string& path, const std::string& name);

// Throws Failure when the file exists; of several parts, see NameOfPart, when any of them does.
void CheckFree(const std::string& path, bool parts);

// "night.wav" with "-2" before its ending: "night-2.wav".
std::string NameWith(const std::string& path, const std::string& addition);

// The file of the part `number`, from 1: "night-001.wav".
std::string NameOfPart(const std::string& path, size_t number);

class AudioWriter {
 public:
  virtual ~AudioWriter() = default;

  // All of it is with the system at the end of the call. False once nobody reads the pipe any more
  // or the program is asked to stop. Throws Failure when the disk doesn't take it.
  virtual bool Write(const wire::Frames& frames) = 0;

  // Ends the file; throws Failure when the disk doesn't take it. A WAV file that isn't ended so, as
  // that of a program that is killed, can be read up to its last second.
  virtual void Close() = 0;
};

// Replaces a file that exists. Throws Failure.
std::unique_ptr<AudioWriter> OpenToWrite(const std::string& path, AudioFormat format,
                                         uint32_t sampleFreq);

class AudioReader {
 public:
  virtual ~AudioReader() = default;

  virtual uint32_t SampleFreq() const = 0;

  // Of the whole stream, as far as that is known.
  virtual std::optional<uint64_t> FrameCount() const = 0;

  // The next frames, some 50 ms of them, mono on both sides. None: the pipe has none now, or
  // the stream has ended. Throws Failure.
  virtual wire::Frames Read() = 0;
  virtual bool Ended() const = 0;
};

// A stream of one or two channels. What is named raw, by `name` or by its ending, is taken for
// 24-bit stereo at `rawFreq`. Waits until a pipe has given its header. Throws Failure for any other
// stream, saying what it has, and wire::Interrupted when the program is asked to stop meanwhile.
std::unique_ptr<AudioReader> OpenToRead(const std::string& path, const std::string& name,
                                        uint32_t rawFreq);

}  // namespace ctl
