// The controller of the soak: with every unit one exchange after the other, as fast as they go. An
// exchange is a request, its acknowledgement, the answer, and the acknowledgement of that. The
// request is repeated every 50 ms until it is acknowledged.
//
// The socket's thread and a thread for the repeats; one lock.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/WireSocket.h"

namespace soak {

// Times in steps of 10 µs up to a second.
class RoundTrips {
 public:
  void Add(wire::Clock::duration time);
  double Percentile(double part) const;  // in milliseconds; part: 0 to 1
  double MaxMs() const { return max_; }

 private:
  std::array<uint64_t, 100'001> counts_{};  // the last bin holds what is longer
  uint64_t total_ = 0;
  double max_ = 0;
};

class Exchanges {
 public:
  struct Unit {
    wire::Endpoint control;
    bool tuner = false;  // has FM tuners
  };

  struct Result {
    uint64_t complete = 0;
    uint64_t repeats = 0;
    uint64_t unacknowledged = 0;          // given up after 10 s
    uint64_t lost = 0;                    // acknowledged, and no answer within 10 s
    std::vector<std::string> complaints;  // of the first few that went wrong
  };

  Exchanges(const std::string& address, const std::vector<Unit>& units);
  ~Exchanges();
  Exchanges(const Exchanges&) = delete;
  Exchanges& operator=(const Exchanges&) = delete;

  Result SoFar() const;
  RoundTrips AcknowledgementTimes() const;
  RoundTrips AnswerTimes() const;

  // While paused, no exchange begins.
  void Pause(bool yes);

  // Waits until every unit has begun and completed an exchange from now on. Returns how long that
  // took, in milliseconds; the patience at most.
  double WaitAllAnswer(wire::Clock::duration patience);

 private:
  struct Peer {
    Unit unit;
    size_t kind = 0;  // which request is on its way
    uint32_t id = 0;  // its number
    bool acknowledged = false;
    bool answered = false;
    uint32_t lastAnswer = 0;  // number of the latest answer: a repeat has the same
    bool idle = false;        // as exchanges are paused
    uint64_t complete = 0;
    wire::Clock::time_point begun;
    wire::Clock::time_point sent;  // latest repeat
  };

  void Begin(Peer& peer);
  void Transmit(Peer& peer);
  void OnDatagram(const wire::Datagram& datagram);
  void OnAck(Peer& peer, uint32_t id, wire::Clock::time_point time);
  void OnAnswer(Peer& peer, const std::string& type, uint32_t id, wire::Clock::time_point time);
  void EndIfComplete(Peer& peer);
  void Repeat();
  void RunRepeats();

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Peer> peers_;
  Result result_;
  RoundTrips acks_;
  RoundTrips answers_;
  uint32_t nextId_ = 1;
  bool paused_ = false;
  bool stop_ = false;

  wire::Socket socket_;
  std::thread thread_;  // last: it uses all of the above
};

}  // namespace soak
