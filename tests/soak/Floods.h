// What nobody should send, as fast as a thread of its own can: to the control ports and the
// discovery port, and to the outputs. The same seed gives the same datagrams in the same order.
#pragma once

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/WireSocket.h"

namespace soak {

using Random = std::mt19937_64;

// One sender. `Next` makes and sends a datagram, or a few that belong together, and returns how
// many.
class Flood {
 public:
  Flood(const std::string& address, uint64_t seed);
  virtual ~Flood() = default;

  void Start();
  void Pause(bool yes) { paused_ = yes; }
  void Stop();
  uint64_t Sent() const { return sent_; }

 protected:
  virtual uint64_t Next() = 0;
  uint64_t Below(uint64_t limit) { return random_() % limit; }
  wire::Bytes RandomBytes(size_t size);
  void Send(const wire::Bytes& bytes, const wire::Endpoint& to) { socket_.Send(bytes, to); }

 private:
  Random random_;
  std::atomic<bool> paused_{false};
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> sent_{0};
  wire::Socket socket_;
  std::thread thread_;
};

// Noise, broken JSON, announced attachments of 4 GiB, half-finished assemblies, datagrams of
// 64 KiB, and once a second a request whose answer nobody acknowledges.
class ControlFlood final : public Flood {
 public:
  ControlFlood(const std::string& address, uint64_t seed, std::vector<wire::Endpoint> controls,
               wire::Endpoint discovery);
  ~ControlFlood() override { Stop(); }

 private:
  uint64_t Next() override;
  wire::Bytes BrokenJson();
  uint64_t SendHalfAnAssembly(const wire::Endpoint& to);

  std::vector<wire::Endpoint> controls_;
  wire::Endpoint discovery_;
  uint32_t nextId_ = 1'000'000'000;
  wire::Bytes largest_;
  wire::Clock::time_point lastRequest_;
};

// RTP with random headers, random sequence numbers, and now and then a few packets in order.
class RtpFlood final : public Flood {
 public:
  RtpFlood(const std::string& address, uint64_t seed, std::vector<wire::Endpoint> outputs);
  ~RtpFlood() override { Stop(); }

 private:
  uint64_t Next() override;

  std::vector<wire::Endpoint> outputs_;
  size_t turn_ = 0;
  uint16_t sequence_ = 0;
};

}  // namespace soak
