// Audio files of 24-bit stereo, sample for sample, by libsndfile. In a build without that library
// every operation fails and says so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "wire/Audio.h"

namespace ctl {

// A WAV file, from 4 GiB (some 4 hours at 48000 Hz) on an RF64 one (EBU Tech 3306). Its header is
// brought up to date once a second, so that a program that is killed leaves all but the last second
// to be read. Throws Failure when the file exists (unless `overwrite`) or can't be made.
class WavWriter {
 public:
  WavWriter(const std::string& path, uint32_t sampleFreq, bool overwrite);

  // What the constructor throws for a file that exists, and in a build without audio files.
  static void CheckFree(const std::string& path, bool overwrite);

  ~WavWriter();
  WavWriter(const WavWriter&) = delete;
  WavWriter& operator=(const WavWriter&) = delete;

  // Throws Failure when the disk doesn't take it.
  void Write(const wire::Frames& frames);

  // Ends the file; called by the destructor too, which then ignores a failure.
  void Close();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A file of two channels at `sampleFreq`; throws Failure, naming what the file has, for any other.
class AudioReader {
 public:
  AudioReader(const std::string& path, uint32_t sampleFreq);
  ~AudioReader();
  AudioReader(const AudioReader&) = delete;
  AudioReader& operator=(const AudioReader&) = delete;

  uint64_t FrameCount() const;

  // Up to `count` frames; fewer at the end of the file.
  wire::Frames Read(size_t count);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ctl
