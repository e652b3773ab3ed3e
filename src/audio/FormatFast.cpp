#include "audio/FormatFast.h"

#include "platform/processor.h"

// Built with leave to use SSSE3, which a processor of 2005 may lack: what stands here runs only
// where it has been asked for.
#if defined(__SSSE3__) || defined(_M_X64)
#include <tmmintrin.h>

namespace Network {

namespace {

// Four frames are 24 bytes, moved as two times 16 that overlap: the second ends four bytes after
// the frames, so that one more frame has to follow.
constexpr size_t kStep = 4;
constexpr size_t kHalfBytes = 12;

bool Usable() {
  static const bool usable = platform::HasSsse3();
  return usable;
}

// What no 32-bit integer can hold becomes 0x80000000 by the instruction, whose low 24 bits, the
// code, are 0: silence.
__m128i CodesOf(const float* samples) {
  return _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(samples), _mm_set1_ps(kCodeOfSample)));
}

// Two frames of a packet: left, right, left, right.
__m128 SamplesOf(const uint8_t* frames) {
  // The three bytes of each sample into the upper part of its number, most significant last.
  const __m128i order = _mm_setr_epi8(-1, 2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9);
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(frames));
  const __m128i codes = _mm_srai_epi32(_mm_shuffle_epi8(bytes, order), 8);
  return _mm_mul_ps(_mm_cvtepi32_ps(codes), _mm_set1_ps(kSampleOfCode));
}

}  // namespace

size_t PackFramesFast(const float* left, const float* right, size_t count, uint8_t* payload) {
  if (!Usable()) return 0;
  const __m128i order = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
  size_t done = 0;
  for (; done + kStep < count; done += kStep, payload += 2 * kHalfBytes) {
    const __m128i l = CodesOf(left + done);
    const __m128i r = CodesOf(right + done);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(payload),
                     _mm_shuffle_epi8(_mm_unpacklo_epi32(l, r), order));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(payload + kHalfBytes),
                     _mm_shuffle_epi8(_mm_unpackhi_epi32(l, r), order));
  }
  return done;
}

size_t UnpackFramesFast(const uint8_t* payload, size_t count, float* left, float* right) {
  if (!Usable()) return 0;
  size_t done = 0;
  for (; done + kStep < count; done += kStep, payload += 2 * kHalfBytes) {
    const __m128 first = SamplesOf(payload);
    const __m128 second = SamplesOf(payload + kHalfBytes);
    _mm_storeu_ps(left + done, _mm_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0)));
    _mm_storeu_ps(right + done, _mm_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1)));
  }
  return done;
}

}  // namespace Network

#else  // Every other processor: sample by sample.

namespace Network {

size_t PackFramesFast(const float*, const float*, size_t, uint8_t*) {
  return 0;
}
size_t UnpackFramesFast(const uint8_t*, size_t, float*, float*) {
  return 0;
}

}  // namespace Network

#endif
