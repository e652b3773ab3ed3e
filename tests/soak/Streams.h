// Listens to the input streams of a unit and counts its ticks: one packet each, numbered one by
// one.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

#include "support/WireSocket.h"

namespace soak {

class Stream {
 public:
  struct Result {
    uint64_t received = 0;
    double missedTicks = 0;    // that the clock has had and the unit hasn't
    uint64_t lostPackets = 0;  // on their way
    double longestPauseMs = 0;
  };

  explicit Stream(const std::string& address);

  const wire::Endpoint& Local() const { return socket_.Local(); }

  // From the first packet on.
  Result SoFar() const;

 private:
  void OnDatagram(const wire::Datagram& datagram);

  mutable std::mutex mutex_;
  uint64_t received_ = 0;
  int64_t ticks_ = 0;  // by the packets' numbers, from the first packet on
  uint16_t lastNumber_ = 0;
  wire::Clock::time_point first_;
  wire::Clock::time_point last_;
  wire::Clock::duration longestPause_{};

  wire::Socket socket_;  // last: its thread uses the others
};

}  // namespace soak
