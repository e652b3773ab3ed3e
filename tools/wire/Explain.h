// What a unit makes of a datagram, in words, for who writes a controller. Plain values.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "wire/Message.h"

namespace wire {

struct Explanation {
  std::vector<std::string> refused;  // why a unit drops it; none: it is taken
  std::vector<std::string> remarks;  // what of it has no effect, or another one than it seems
  std::string name;                  // "msg", if there is one
  std::optional<uint32_t> id;        // "msg_id", likewise
};

// Texts of the datagram stand in it with all but ASCII escaped.
Explanation Explain(const Bytes& datagram);

// JSON with all but printable ASCII escaped: safe to show on a terminal.
std::string ToAscii(const Json& value);

}  // namespace wire
