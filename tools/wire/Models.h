// The unit models and their port plan, as the far end knows them.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "wire/Endpoint.h"

namespace wire {

constexpr uint16_t kDiscoveryPort = 15001;

struct Model {
  std::string_view name;  // exact, in its case
  uint32_t inputs = 0;    // stereo streams that the unit sends
  uint32_t outputs = 0;   // stereo streams that it receives
  uint32_t tuners = 0;

  // How many ports a unit takes from its control port on.
  constexpr uint32_t Ports() const { return 2 + 2 * (inputs + outputs); }
};

constexpr std::array<Model, 2> kModels{{
    {"QZ610", 1, 1, 0},
    {"QZ820", 4, 0, 4},
}};

// A model of any other name has no streams and no tuners, and takes two ports.
constexpr Model FindModel(std::string_view name) {
  for (const Model& model : kModels) {
    if (model.name == name) return model;
  }
  return {name};
}

// The RTP port of the unit's output `output`, counted from 0; also beyond 65535, for who checks.
constexpr int64_t OutputPort(int64_t controlPort, uint32_t output) {
  return controlPort + 2 + int64_t{2} * output;
}

}  // namespace wire
