// The form of an audio stream, once: how long a tick is, how deep the rings are, which payload
// types there are, and how samples lie in a packet. Pure functions and constants; any thread.
//
// A packet carries one stereo pair as interleaved frames, left before right; a sample is a 24-bit
// two's-complement integer, most significant byte first. All payload types have that form and
// differ in their sample frequency alone.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Network {

// Samples per channel in one tick, and in each packet that is sent: 4 ms at 48000 Hz.
constexpr uint32_t kTickSamples = 192;

constexpr uint32_t kRingPackets = 9;  // slots of a receive ring
constexpr uint32_t kRingDelay = 5;    // ticks that a stream's first packet waits in it

constexpr uint32_t kHeaderBytes = 12;
constexpr uint32_t kPacketChannels = 2;
constexpr uint32_t kSampleBytes = 3;
constexpr uint32_t kFrameBytes = kPacketChannels * kSampleBytes;

// Payload types 100 (48000 Hz) and 101 (44100 Hz).
bool IsAudioPayloadType(uint32_t payloadType);
uint32_t PayloadChanCount(uint32_t payloadType);   // channels in a packet; 0 if it isn't audio
uint32_t PayloadSmplBytes(uint32_t payloadType);   // bytes of a sample; 0 if it isn't audio
uint32_t PayloadTypeFromFreq(uint32_t frequency);  // 0: no type has that frequency in Hz

// Full scale is 1.0. A sample beyond it isn't clipped: the low 24 bits of its code go out. What no
// 32-bit integer can hold, and what is no number, goes out as silence.
//
// Frames of a payload, from and to `count` samples of each channel.
void PackFrames(const float* left, const float* right, size_t count, uint8_t* payload);
void UnpackFrames(const uint8_t* payload, size_t count, float* left, float* right);

// One channel alone: `bytes` is its sample in the first frame, the floats lie `stride` apart.
void PackChannel(const float* source, size_t stride, size_t count, uint8_t* bytes);
void UnpackChannel(const uint8_t* bytes, size_t count, float* destination, size_t stride);

}  // namespace Network
