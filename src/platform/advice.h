// What people type on this system to look at it or to change it, and what its packet filter says.
// For texts that help them. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// A command that brings up a network interface, and how to see which there are.
std::string CommandBringInterfaceUp();

// The text as one word of the system's shell.
std::string Quoted(const std::string& text);

// A command that opens the text file in an editor.
std::string CommandEdit(const std::string& path);

// A command that ends the process.
std::string CommandEndProcess(int process);

// A command that shows which program has the UDP port, whoever's it is.
std::string CommandShowPort(uint16_t port);

// A command that shows what keeps the machine busy.
std::string CommandShowLoad();

// A command that lets the program file run in time: at real-time priority. Empty where every
// program may.
std::string CommandPermitRealTime(const std::string& program);

// Both included.
struct PortRange {
  uint16_t first = 0;
  uint16_t last = 0;
};

// A command that lets UDP in to these ports, of that program where the system's filter knows
// programs. At most 7 ranges: iptables takes 15 numbers a rule.
std::string CommandPermitUdp(const std::string& program, const std::vector<PortRange>& ports);

// A packet filter of this host.
struct PacketFilter {
  std::string command;  // that shows its rules
  bool read = false;    // this user may see them
  std::string rules;    // as "nft list ruleset" or "iptables-save" shows them; unread: why
};

// Those that the system has tools for; empty where it has none. Runs these tools.
std::vector<PacketFilter> ReadPacketFilters();

}  // namespace platform
