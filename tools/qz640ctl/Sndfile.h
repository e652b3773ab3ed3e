// What libsndfile reads and writes beyond WAV. In a build without that library nothing.
#pragma once

#include "AudioFile.h"

namespace ctl {

bool HasSndfile();

// Null where the library is missing. The first throws BadAudio, the second Failure.
std::unique_ptr<AudioReader> OpenBySndfile(const std::string& path);
std::unique_ptr<AudioWriter> OpenFlac(const std::string& path, uint32_t sampleFreq);

}  // namespace ctl
