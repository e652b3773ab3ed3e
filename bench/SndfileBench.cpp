// The samples of a packet by libsndfile, which has them interleaved already, to and from memory.
#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

constexpr sf_count_t kCount = 192;

// A file of one payload.
struct Payload {
  std::vector<char> bytes = std::vector<char>(2 * 3 * kCount);
  sf_count_t at = 0;
};

SF_VIRTUAL_IO Calls() {
  SF_VIRTUAL_IO calls{};
  calls.get_filelen = [](void* user) {
    return static_cast<sf_count_t>(static_cast<Payload*>(user)->bytes.size());
  };
  calls.seek = [](sf_count_t to, int, void* user) { return static_cast<Payload*>(user)->at = to; };
  calls.tell = [](void* user) { return static_cast<Payload*>(user)->at; };
  calls.read = [](void* to, sf_count_t count, void* user) {
    auto& payload = *static_cast<Payload*>(user);
    std::memcpy(to, payload.bytes.data() + payload.at, static_cast<size_t>(count));
    payload.at += count;
    return count;
  };
  calls.write = [](const void* from, sf_count_t count, void* user) {
    auto& payload = *static_cast<Payload*>(user);
    std::memcpy(payload.bytes.data() + payload.at, from, static_cast<size_t>(count));
    payload.at += count;
    return count;
  };
  return calls;
}

void Samples(benchmark::State& state, int mode) {
  Payload payload;
  SF_VIRTUAL_IO calls = Calls();
  SF_INFO info{};
  info.samplerate = 48000;
  info.channels = 2;
  info.format = SF_FORMAT_RAW | SF_FORMAT_PCM_24 | SF_ENDIAN_BIG;
  SNDFILE* file = sf_open_virtual(&calls, mode, &info, &payload);
  if (!file) return state.SkipWithError(sf_strerror(nullptr));
  std::vector<float> samples(2 * kCount, 0.25f);
  for (auto _ : state) {
    const sf_count_t done = mode == SFM_WRITE ? sf_writef_float(file, samples.data(), kCount)
                                              : sf_readf_float(file, samples.data(), kCount);
    if (done != kCount) state.SkipWithError("libsndfile didn't take all samples");
    sf_seek(file, 0, SEEK_SET);
    benchmark::ClobberMemory();
  }
  sf_close(file);
}
BENCHMARK_CAPTURE(Samples, SndfileFromFloat, SFM_WRITE);
BENCHMARK_CAPTURE(Samples, SndfileToFloat, SFM_READ);

}  // namespace
