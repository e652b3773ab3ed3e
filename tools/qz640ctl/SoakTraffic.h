// What "soak" sends: exchanges with every unit as fast as they go, on the loop of the command, and
// floods of what nobody should send, each on a thread and a loop of its own.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "wire/Units.h"

namespace ctl {

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

// With every unit one exchange after the other: a request, its acknowledgement, the answer, and the
// acknowledgement of that. The request is repeated until it is acknowledged. A request that ends
// somebody's half-finished message is acknowledged and lost with it, as the protocol has it:
// without an answer it is asked again after a quarter of a second, and given up after ten seconds.
class Exchanges {
 public:
  // Throws SocketError.
  Exchanges(wire::Loop& loop, const std::vector<wire::Unit>& units);

  // While paused, no exchange begins.
  void Pause(bool yes);

  // Runs the loop until every unit has begun and completed an exchange from now on. Returns how
  // long that took, in milliseconds; 20 seconds at most.
  double WaitAllAnswer();

  uint64_t complete = 0;
  uint64_t repeats = 0;
  uint64_t askedAgain = 0;
  uint64_t unacknowledged = 0;
  uint64_t lost = 0;       // acknowledged, and not answered within 10 s
  std::string complaint;   // of the first datagram that was no message
  RoundTrips ackTimes;     // to the acknowledgement
  RoundTrips answerTimes;  // to the answer

 private:
  struct Peer {
    wire::Endpoint control;
    bool tuner = false;
    size_t kind = 0;  // which request is on its way
    uint32_t id = 0;  // its number
    bool acknowledged = false;
    bool answered = false;
    bool idle = false;
    uint32_t lastAnswer = 0;  // number of the latest answer: a repeat has the same
    uint64_t complete = 0;
    wire::Clock::time_point begun{};
    wire::Clock::time_point sent{};  // latest repeat
  };

  void Begin(Peer& peer);
  void Transmit(Peer& peer);
  void OnDatagram(const wire::Datagram& datagram);
  void OnAnswer(Peer& peer, const wire::Message& message);
  void EndIfComplete(Peer& peer);
  void Repeat();

  wire::Loop& loop_;
  uint32_t nextId_ = std::random_device()();
  bool paused_ = false;
  std::vector<Peer> peers_;
  wire::UdpPort port_;
  wire::Timer timer_;
};

// One sender of a flood: noise, broken JSON, announced attachments of 4 GiB, half-finished
// assemblies, datagrams of 64 KiB, and once a second a request whose answer nobody acknowledges, to
// the control and discovery ports; RTP with random headers and numbers, and now and then a few
// packets in order, to the outputs. The same seed gives the same datagrams in the same order.
class Flood {
 public:
  enum class Kind { Control, Rtp };

  // Starts at once. An empty `targets` sends nothing. Throws SocketError.
  Flood(Kind kind, uint64_t seed, std::vector<wire::Endpoint> targets);
  ~Flood() { Stop(); }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  void Pause(bool yes) { paused_ = yes; }
  void Stop();
  uint64_t Sent() const { return sent_; }

 private:
  void Run();
  void NextControl();
  void NextRtp();
  void SendHalfAnAssembly(const wire::Endpoint& to);
  wire::Bytes BrokenJson();
  wire::Bytes RandomBytes(size_t size);
  uint64_t Below(uint64_t limit) { return random_() % limit; }
  void Send(const wire::Bytes& bytes, const wire::Endpoint& to);

  const Kind kind_;
  const std::vector<wire::Endpoint> targets_;
  std::mt19937_64 random_;
  uint32_t nextId_ = 1'000'000'000;
  wire::Bytes largest_;
  wire::Clock::time_point lastRequest_{};
  std::atomic<bool> paused_{false};
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> sent_{0};
  wire::Loop loop_;
  wire::UdpPort port_;
  std::thread thread_;  // last: it uses all of the above
};

}  // namespace ctl
