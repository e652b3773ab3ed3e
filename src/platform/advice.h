// What people type on this system to look at it or to change it, and what its packet filter says.
// For texts that help them. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// A command that brings up a network interface, and how to see which there are.
std::string CommandBringInterfaceUp();

// A command that lets the program file run in time: at real-time priority.
std::string CommandPermitRealTime(const std::string& program);

// A command that lets UDP in to these ports, of that program where the system's filter knows
// programs.
std::string CommandPermitUdp(const std::string& program, const std::vector<uint16_t>& ports);

// A packet filter of this host.
struct PacketFilter {
  std::string command;  // that shows its rules
  bool read = false;    // this user may see them
  std::string rules;    // in the form of "nft list ruleset" or "iptables-save"
};

// Those that the system has tools for; empty where it has none. Runs these tools.
std::vector<PacketFilter> ReadPacketFilters();

}  // namespace platform
