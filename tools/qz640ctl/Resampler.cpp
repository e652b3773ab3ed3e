#include "Resampler.h"

#ifdef QZ_HAVE_SAMPLERATE

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "ExitStatus.h"

namespace ctl {

namespace {

constexpr double kScale = wire::kFullScale + 1.0;

int32_t CodeOf(float sample) {
  const double code = std::clamp(static_cast<double>(sample) * kScale, -kScale, kScale - 1.0);
  return static_cast<int32_t>(std::lround(code));
}

class Converter : public Resampler {
 public:
  Converter(uint32_t from, uint32_t to) : ratio_(static_cast<double>(to) / from) {
    int error = 0;
    if (src_is_valid_ratio(ratio_)) state_.reset(src_new(SRC_SINC_BEST_QUALITY, 2, &error));
    if (state_) return;
    throw Failure{kRefused, "can't convert " + std::to_string(from) + " Hz to " +
                                std::to_string(to) +
                                " Hz: " + (error ? src_strerror(error) : "they are too far apart")};
  }

  wire::Frames Convert(const wire::Frames& frames, bool last) override {
    std::vector<float> in;
    in.reserve(frames.size() * 2);
    for (const wire::Frame& frame : frames) {
      in.push_back(static_cast<float>(frame.left / kScale));
      in.push_back(static_cast<float>(frame.right / kScale));
    }
    std::vector<float> out(8192);
    wire::Frames result;
    SRC_DATA data{};
    data.data_in = in.data();
    data.input_frames = static_cast<long>(frames.size());
    data.data_out = out.data();
    data.output_frames = static_cast<long>(out.size() / 2);
    data.src_ratio = ratio_;
    data.end_of_input = last ? 1 : 0;
    do {
      if (const int error = src_process(state_.get(), &data)) {
        throw Failure{kRefused, std::string("can't convert: ") + src_strerror(error)};
      }
      for (long i = 0; i < data.output_frames_gen; ++i) {
        const auto at = static_cast<size_t>(2 * i);
        result.push_back({CodeOf(out[at]), CodeOf(out[at + 1])});
      }
      data.data_in += 2 * data.input_frames_used;
      data.input_frames -= data.input_frames_used;
    } while (data.input_frames > 0 || data.output_frames_gen == data.output_frames);
    return result;
  }

 private:
  struct Closer {
    void operator()(SRC_STATE* state) const { src_delete(state); }
  };

  const double ratio_;
  std::unique_ptr<SRC_STATE, Closer> state_;
};

}  // namespace

std::unique_ptr<Resampler> Resampler::Create(uint32_t from, uint32_t to) {
  return std::make_unique<Converter>(from, to);
}

}  // namespace ctl

#else

namespace ctl {

std::unique_ptr<Resampler> Resampler::Create(uint32_t, uint32_t) {
  return nullptr;
}

}  // namespace ctl

#endif
