// Converts a stream to another sample frequency, by libsamplerate at its best quality.
#pragma once

#include <cstdint>
#include <memory>

#include "wire/Audio.h"

namespace ctl {

class Resampler {
 public:
  // Null in a build without that library. Both in Hz; throws Failure for two that are too far apart
  // (a factor of 256).
  static std::unique_ptr<Resampler> Create(uint32_t from, uint32_t to);

  virtual ~Resampler() = default;

  // The frames that are ready with these; the converter holds some milliseconds of them back, which
  // come with `last`.
  virtual wire::Frames Convert(const wire::Frames& frames, bool last) = 0;
};

}  // namespace ctl
