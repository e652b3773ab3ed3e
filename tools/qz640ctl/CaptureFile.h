// Files of captured network traffic: reads pcap and pcapng as capture programs write them, writes
// pcapng. Nothing in a file is believed: each length is held against what the file has.
#pragma once

#include <cstdint>
#include <fstream>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "wire/Endpoint.h"

namespace ctl {

// What stood on the wire, from the link layer's header on.
struct CapturedFrame {
  uint32_t linkType = 1;  // as in pcap files; 1 is Ethernet
  int64_t time = 0;       // nanoseconds since 1970-01-01 UTC
  wire::Bytes bytes;
};

// A UDP datagram over IPv4 out of a frame.
struct CapturedDatagram {
  int64_t time = 0;  // as the frame's
  wire::Endpoint from;
  wire::Endpoint to;
  wire::Bytes payload;
};

// Nothing for a frame that has none, or not all of it: another protocol, a fragment, cut off by
// whoever captured. Link types: Ethernet with VLAN tags, raw IP, BSD loopback, Linux's own two.
std::optional<CapturedDatagram> ToDatagram(const CapturedFrame& frame);

class CaptureReader {
 public:
  // Throws Failure (kUsage) for a file that can't be read or is no capture.
  explicit CaptureReader(const std::string& path);

  // Reads what `file` gives, which failures call `path`.
  CaptureReader(const std::string& path, std::unique_ptr<std::istream> file);

  // The next frame; nothing at the end. Throws Failure (kUsage) where the file is broken.
  std::optional<CapturedFrame> Next();

 private:
  struct Interface {
    uint32_t linkType = 0;
    int64_t ticksPerSecond = 1'000'000;
  };

  [[noreturn]] void Fail(const std::string& why) const;
  std::optional<wire::Bytes> Read(size_t count);
  uint32_t Number(const wire::Bytes& bytes, size_t at, size_t count) const;
  std::optional<CapturedFrame> NextOfPcap();
  std::optional<CapturedFrame> NextOfPcapng();
  std::optional<CapturedFrame> FromBlock(uint32_t type, const wire::Bytes& body);
  Interface ToInterface(const wire::Bytes& body) const;

  const std::string path_;
  const std::unique_ptr<std::istream> file_;
  bool isPcapng_ = false;
  bool bigEndian_ = false;
  std::vector<Interface> interfaces_;  // of the pcapng section; a pcap file has one
};

// One interface, times in nanoseconds.
class CaptureWriter {
 public:
  // Replaces a file. Throws Failure (kUsage) when it can't be made.
  CaptureWriter(const std::string& path, uint32_t linkType);

  // Throws Failure (kRefused) when the file doesn't take it, as on a full disk.
  void Write(const CapturedFrame& frame);

 private:
  void Block(uint32_t type, wire::Bytes body);

  const std::string path_;
  std::ofstream file_;
};

}  // namespace ctl
