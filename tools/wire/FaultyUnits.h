// Units that misbehave as they are asked to: stands between controllers and units and takes all
// that goes to and fro. Controllers see the addresses of this relay alone. It hands "dev_info" on
// with its own RTP ports, has units send their inputs to itself, and says of an input where it
// really goes. On the thread of its loop, and only while that runs: see Loop.h.
//
//   wire::FaultyUnits faulty(loop, info);
//   faulty.SetFaults({wire::ParseFault("ack of set_inputs: lost 3 times")});
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "wire/Audio.h"
#include "wire/Fault.h"
#include "wire/Loop.h"
#include "wire/Units.h"

namespace wire {

struct FaultyUnit {
  Unit real;
  Unit shown;  // the same with the relay's control address and RTP port
};

struct FaultyUnitsInfo {
  Endpoint discovery;      // where controllers look for units; its host listens for all else too
  Endpoint realDiscovery;  // where the units hear them
  // Broadcast addresses where they are looked for too. Systems that give a broadcast to whoever is
  // bound to the interface's own address refuse these, and don't need them.
  std::vector<Endpoint> broadcasts;
  uint32_t local = 0;  // address of this machine that the units send to, as in Endpoint
  std::vector<FaultyUnit> units;
  uint64_t seed = 1;  // decides what is hit by per cent, how long jitter is and what damage does
};

// Throws BadFault where a fault names a unit or a stream that isn't there.
void CheckFaults(const std::vector<Fault>& faults, const std::vector<Unit>& units);

// Calls back at times, in their order; what has the same time in the order of its coming.
class Agenda {
 public:
  explicit Agenda(Loop& loop) : timer_(loop, [this] { Run(); }) {}

  // Beyond kMost entries it is forgotten, as a full router drops.
  void At(Clock::time_point time, std::function<void()> action);

 private:
  static constexpr size_t kMost = 100'000;

  void Run();

  std::multimap<Clock::time_point, std::function<void()>> entries_;
  Timer timer_;
};

class FaultyUnits {
 public:
  static constexpr size_t kMostControllers = 64;  // who was silent longest makes room

  // Throws SocketError where one of the ports shown can't be had.
  FaultyUnits(Loop& loop, FaultyUnitsInfo info);
  FaultyUnits(const FaultyUnits&) = delete;
  FaultyUnits& operator=(const FaultyUnits&) = delete;

  // Takes the place of those before. A fault whose text was there already goes on as it was: what
  // it has counted and when it began. The time of a new one begins now.
  void SetFaults(const std::vector<Fault>& faults);

 private:
  enum class Way { ToUnit, ToController };

  struct Active {
    Fault fault;
    Clock::time_point begin;
    std::mt19937_64 random;  // the same numbers everywhere, unlike the library's distributions
    uint64_t hits = 0;
  };

  // A controller, as units see it: one port for all of them.
  struct Controller {
    Endpoint address;
    uint64_t lastUse = 0;
    // What messages were called, for their acknowledgements: unit, way, number.
    using Key = std::tuple<size_t, Way, uint32_t>;
    std::map<Key, std::string> names;
    std::deque<Key> namesInOrder;
    std::unique_ptr<UdpPort> port;  // towards the units
  };
  using ControllerPtr = std::shared_ptr<Controller>;

  // A packet stream. One that drifts leaves by a clock of its own, with numbers of its own.
  struct Stream {
    size_t unit = 0;
    Fault::Subject subject = Fault::Subject::Input;
    uint32_t index = 0;
    Destination to;
    bool drifts = false;
    Clock::time_point driftBegin;
    double due = 0;             // of the next packet, nanoseconds from then
    uint16_t sequence = 0;      // of the next packet
    uint32_t timestamp = 0;     // likewise
    std::deque<Bytes> waiting;  // to go out
    Bytes latest;               // went out last
    Clock::time_point lastCame;
    std::unique_ptr<UdpPort> port;
  };

  struct Place {
    Unit real;
    Unit shown;
    std::unique_ptr<UdpPort> port;  // towards the controllers
    std::vector<std::unique_ptr<Stream>> inputs;
    std::vector<std::unique_ptr<Stream>> outputs;
    std::optional<uint32_t> answeredHere;  // number of the latest request that the unit never got
  };

  // What becomes of one datagram.
  struct Fate {
    std::vector<Clock::duration> copies{Clock::duration()};  // how late each arrives
    uint64_t damage = 0;                                     // 0: none
    bool silent = false;
    bool ignored = false;
    std::optional<uint32_t> error;
  };
  // Which one it is.
  struct What {
    size_t unit = 0;
    bool everyUnit = false;  // a discovery
    Fault::Subject subject = Fault::Subject::Message;
    std::string message;
    uint32_t stream = 0;
  };

  // A message of this relay's own, repeated until it is acknowledged.
  struct Own {
    int transmissions = 0;
    std::function<void(uint32_t id)> send;
  };

  void Open(const FaultyUnit& unit);
  std::unique_ptr<Stream> OpenStream(size_t unit, Fault::Subject subject, uint32_t index,
                                     const Endpoint& local);
  ControllerPtr ControllerAt(const Endpoint& address);

  void OnDiscovery(const Datagram& datagram);
  void OnRequest(size_t unit, const Datagram& datagram);
  void OnAnswer(const ControllerPtr& controller, const Datagram& datagram);
  void AnswerHere(const ControllerPtr& controller, size_t unit, uint32_t request,
                  std::optional<uint32_t> error);
  void ToController(const ControllerPtr& controller, size_t unit, const Bytes& bytes);
  void Remember(Controller& controller, size_t unit, Way way,
                const std::optional<Message>& message);
  What WhatOf(const Controller& controller, size_t unit, Way way,
              const std::optional<Message>& message) const;
  void ToUnit(Controller& controller, size_t unit, const Bytes& bytes);
  Bytes TakeDestinations(size_t unit, const Bytes& bytes);
  Bytes ShowOwn(size_t unit, const Bytes& bytes) const;

  void OnPacket(Stream& stream, const Datagram& datagram);
  void SendPacket(Stream& stream, const Bytes& bytes);
  void BeginDrift(Stream& stream, const StreamHeader& header);
  void GoOnDrifting(Stream& stream);
  void NextOfDrift(Stream& stream);

  bool Matches(const Fault& fault, const What& what) const;
  static bool IsOn(const Active& active, Clock::time_point now);
  bool Hits(Active& active, Clock::time_point now);
  Fate Judge(const What& what);
  bool IsGone(size_t unit) const;
  double DriftOf(const Stream& stream) const;
  void Deliver(const Fate& fate, Bytes bytes, std::function<void(const Bytes&)> send);

  void Reboot(const std::string& text, Clock::time_point time);
  void ForgetAll(size_t unit);
  void Tell(std::function<void(uint32_t id)> send);
  void Repeat(uint32_t id);

  Loop& loop_;
  const FaultyUnitsInfo info_;
  Agenda agenda_;
  std::vector<Active> faults_;
  std::vector<Place> places_;
  std::vector<ControllerPtr> controllers_;
  std::map<uint32_t, Own> own_;  // by number, until they are acknowledged
  uint32_t nextId_;
  uint64_t uses_ = 0;
  uint64_t faultsMade_ = 0;
  UdpPort toUnits_;  // for what this relay itself has to say to them
  UdpPort discovery_;
  std::vector<std::unique_ptr<UdpPort>> broadcasts_;
};

}  // namespace wire
