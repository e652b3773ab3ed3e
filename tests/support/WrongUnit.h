// A unit of the test's own with one deliberate fault, for whoever claims to find faults. Shares no
// code with the emulator. Model QZ610: one input, which sends silence, one output.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "support/WireController.h"

namespace wire {

enum class Fault {
  None,
  NeverAcknowledges,
  AcknowledgesLate,     // 200 ms
  RepeatsWithoutEnd,    // an answer that nobody acknowledges
  AcknowledgesWrongId,  // names another message
  RefersToWrongId,      // in error answers
  WrongPayloadType,     // 96
  DropsEveryTenth,      // packet of its stream
};

class WrongUnit {
 public:
  WrongUnit(const std::string& address, Fault fault);
  ~WrongUnit();
  WrongUnit(const WrongUnit&) = delete;
  WrongUnit& operator=(const WrongUnit&) = delete;

  const Endpoint& Control() const { return control_->Local(); }

 private:
  void OnControl(const Datagram& datagram);
  void Answer(const Json& request, const Endpoint& to);
  void Acknowledge(int64_t id, const Endpoint& to);
  void SendMsg(const std::string& type, const std::string& members, const Endpoint& to);
  void Repeat();
  void Stream();

  struct Repeated {
    std::string text;
    Endpoint to;
    Clock::time_point due;
    int left;
  };
  struct LateAck {
    int64_t id;
    Endpoint to;
    Clock::time_point due;
  };

  const Fault fault_;
  std::mutex mutex_;
  int64_t nextId_ = 9001;
  int64_t lastReceived_ = -1;
  std::map<int64_t, Repeated> repeated_;  // by number, until acknowledged
  std::vector<LateAck> lateAcks_;
  std::string destination_;  // of the input; empty: off
  Json held_;                // a message whose segments are coming
  std::atomic<bool> stop_{false};
  std::unique_ptr<Socket> control_;
  std::thread repeater_;
  std::thread streamer_;
};

}  // namespace wire
