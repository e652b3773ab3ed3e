// What the rules of a Linux packet filter do to UDP that comes from outside.
#pragma once

#include <cstdint>
#include <string>

namespace ctl {

struct FilterVerdict {
  enum class Kind {
    Passes,
    Unclear,  // by rules that look at more than interface, protocol and port
    Drops
  };
  Kind kind = Kind::Passes;
  std::string rule;  // that drops, as it stands in the text
};

// A new datagram to that port of this host. `rules` as "nft list ruleset" or "iptables-save" writes
// them; what is neither passes.
FilterVerdict JudgeUdp(const std::string& rules, uint16_t port);

}  // namespace ctl
