// What a "dev_info" says, as plain fields: what the benchmarks of other JSON libraries write and
// read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

constexpr size_t kDatagram = 1432;  // bytes

constexpr const char* kNumbers[] = {"msg_id",   "hardware",       "firmware",
                                    "software", "audio_protocol", "control_protocol",
                                    "rtp_port", "inputs",         "outputs"};

struct Fields {
  std::string msg = "dev_info", unit_id = "QZ820-000001", unit_type = "QZ820";
  uint32_t numbers[std::size(kNumbers)] = {1, 1, 1, 1, 1, 1, 8002, 4, 0};
};
