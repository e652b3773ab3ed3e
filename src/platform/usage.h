// What a program of this host takes of it, for those who watch over one.
#pragma once

#include <cstdint>
#include <optional>

namespace platform {

struct Usage {
  uint64_t residentBytes = 0;
  uint32_t threads = 0;
  uint32_t handles = 0;   // open descriptors; handles on Windows
  double cpuSeconds = 0;  // of all threads since its start
};

// Nothing when there is no such process any more, or it may not be looked at.
std::optional<Usage> UsageOf(int processId);

}  // namespace platform
