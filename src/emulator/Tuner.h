// The FM tuner of an input, as far as a controller sees one: there is no radio, so a frequency is
// kept and read back, and the figures of reception stay as they are. A value class.
#pragma once

#include <cstdint>

namespace Network {

struct Tuner {
  int32_t Freq = 100'500;  // kHz; any number that a controller sets, but for 0
  int32_t Rssi = 40;
  int32_t Snr = 80;
  int32_t Multipath = 50;
  int32_t Pilot = 1;
};

}  // namespace Network
