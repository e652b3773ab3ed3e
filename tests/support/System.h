// What the tests have to know of the system below them. All else about it stands in the files that
// are named for their system, so that every test is the same everywhere.
#pragma once

#include <cstdint>
#include <string>

// A number that no other process has now, for addresses and names of a test's own.
int OwnProcessId();

// Makes this program one that starts children as a shell at a terminal does: a child that has gone
// makes writing to it fail, and what this program's own starter ignores isn't ignored there.
void PrepareForChildren();

// Ctrl-C for that process, and what asks it to end: Ctrl-Break on Windows, which has that for
// both where it isn't Wine.
void Interrupt(int processId);
void Terminate(int processId);

// Whether this is a Windows program on Wine.
bool UnderWine();

// What a program wrote, from the bytes on its standard output: Windows puts a carriage return in
// front of each line feed there.
std::string FromConsole(const std::string& bytes);

// By how much a bound on a time is wider here. Every system call is a round trip to another process
// under Wine.
inline double TimeFactor() {
  return UnderWine() ? 5 : 1;
}

// A loopback address that no test process beside this one uses.
inline std::string OwnAddress() {
  // Wine binds a datagram socket on any other loopback address to all addresses, and then sends
  // from this one. The tests with ports of their own run one after the other there.
  if (UnderWine()) return "127.0.0.1";
  const auto id = static_cast<uint32_t>(OwnProcessId());
  return "127." + std::to_string(1 + (id >> 16) % 200) + "." + std::to_string((id >> 8) & 0xFF) +
         "." + std::to_string(id & 0xFF);
}

// A port for everything that hears broadcasts, where the address alone doesn't distinguish tests.
inline uint16_t OwnBroadcastPort() {
  return static_cast<uint16_t>(20000 + OwnProcessId() % 10000);
}
