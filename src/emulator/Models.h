// The models of the QZ-640 family and the UDP ports that a unit of each takes. To add a model is to
// add a row to kModels (and one to the README, which a test holds against the table).
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace Network {

inline constexpr std::wstring_view kUnitTypeQZ610 = L"QZ610";
inline constexpr std::wstring_view kUnitTypeQZ820 = L"QZ820";

struct Model {
  std::wstring_view Name;  // as it stands in settings and messages, compared exactly
  int32_t Inputs;          // stereo streams that the unit sends to the network
  int32_t Outputs;         // stereo streams that it receives from the network
  int32_t Tuners;          // FM tuners; tuner i feeds input i
};

inline constexpr Model kModels[] = {
    {kUnitTypeQZ610, 1, 1, 0},
    {kUnitTypeQZ820, 4, 0, 4},
};

// What a unit with any other type text is: it can be found and asked, and has no audio.
inline constexpr Model kUnknownModel = {L"", 0, 0, 0};

constexpr const Model& FindModel(std::wstring_view unitType) {
  const auto model = std::ranges::find(kModels, unitType, &Model::Name);
  return model == std::end(kModels) ? kUnknownModel : *model;
}

// The port plan. A unit whose first port is `base` takes 2 ports for control and 2 for each input
// and output, used or not: a QZ610 at 8000 takes 8000 to 8005, and the next unit begins at 8006.
// Any number may stand in a settings file, so these are sums, not ports: SetFromTextAndPort takes
// their lowest 16 bits.
constexpr int64_t PortCount(const Model& model) {
  return 2 + 2 * (int64_t{model.Inputs} + model.Outputs);
}

// Where output `output`, counted from 0, receives its RTP stream. The control port is `base`.
constexpr int64_t RtpPort(int64_t base, int32_t output) {
  return base + 2 + 2 * int64_t{output};
}

constexpr int64_t NextUnitPort(int64_t base, const Model& model) {
  return base + PortCount(model);
}

}  // namespace Network
