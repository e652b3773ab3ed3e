// What the system tells about the emulator while it runs.
#pragma once

#include <cstdint>

namespace soak {

struct Use {
  double memoryMiB = 0;  // resident
  int threads = 0;
  int descriptors = 0;
  double cpuSeconds = 0;  // of all threads since the start
};

// Throws std::runtime_error if there is no such process.
Use ReadUse(int process);

// Progress may overwrite itself.
bool OutputIsTerminal();

}  // namespace soak
