// Frames packed and unpacked sixteen bytes at a time where the processor can, for Format.cpp alone:
// ten times as fast as sample by sample, to the same bits.
#pragma once

#include <bit>
#include <cfloat>
#include <cstddef>
#include <cstdint>

namespace Network {

// Samples are part of the wire format. Every product is rounded to single precision: with more
// precision half of all codes would come back one lower after a loop-back.
static_assert(FLT_EVAL_METHOD == 0);
constexpr float kCodeOfSample = 8388607.0f;                                  // full scale, 2^23 - 1
constexpr float kSampleOfCode = std::bit_cast<float>(uint32_t{0x34000001});  // 1 / full scale

// As PackFrames and UnpackFrames, from the first frame on. Return how many frames are done: all but
// the last four at most, or none on a processor without the instructions.
size_t PackFramesFast(const float* left, const float* right, size_t count, uint8_t* payload);
size_t UnpackFramesFast(const uint8_t* payload, size_t count, float* left, float* right);

}  // namespace Network
