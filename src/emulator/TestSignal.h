// The arithmetic of a unit's audio: the ramps that it plays and the pattern that it listens for.
// Pure functions over the samples of one tick, in single precision: the results go to the wire, so
// every step is rounded to float.
#pragma once

#include <cstdint>

#include "audio/Format.h"

namespace Network {

// Whether left and right, kTickSamples each, hold a ramp that rises from 1/192 to 1 and one that
// falls from 1 to 1/192. Each sample may be off by 1/384.
bool IsTestPattern(const float* left, const float* right);

// A sawtooth from 0 to 1 in ten seconds of ClockTicks100ns.
float SweepAmplitude(int64_t ticks100ns);

// A ramp of kTickSamples that rises to `amplitude`.
void WriteRamp(float* samples, float amplitude);

// Puts the test signal of `mode` into one input: 1 and 2 play a full ramp, 3 and 4 one whose
// amplitude sweeps; 2 and 4 leave the right channel as it is, every other mode leaves both.
// `now` is only called when the amplitude sweeps.
void WriteTestSignal(int32_t mode, float* left, float* right, int64_t (*now)());

}  // namespace Network
