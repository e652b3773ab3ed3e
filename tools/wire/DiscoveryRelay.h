// Lets controllers of one network find and use units of another, where broadcasts don't reach. It
// hears "dev_find" and sends it on to where the units are.
//
// The sender of a "dev_info" is where a controller sends its requests from then on, so an answer
// can't just be handed on: it would make this relay the unit. It becomes just that. Each unit that
// answers gets a control port here, and a port for each output; its answer leaves from that control
// port, with the RTP port of here, and whatever comes to these ports goes on to the unit and back.
// Streams of inputs don't pass here: a unit sends them to where the controller says.
//
// On the thread of its loop, and only while that runs: see Loop.h.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "wire/BroadcastPort.h"
#include "wire/Relay.h"
#include "wire/Units.h"

namespace wire {

struct DiscoveryRelayInfo {
  Endpoint listen;                // hears broadcasts too; its host is where the units are seen
  std::vector<Endpoint> targets;  // machines with units, or broadcast addresses
  uint64_t seed = 1;
  LinkFaults faults{};  // of what the units' ports here take, both directions

  // A unit has got its ports; its own address, and how it is seen. Null: nobody is told.
  std::function<void(const Unit& real, const Unit& shown)> onUnit;
  // A unit that answers and can't be had here, and why.
  std::function<void(const std::string&)> onTrouble;
};

class DiscoveryRelay {
 public:
  static constexpr size_t kMostUnits = 256;       // those beyond aren't found
  static constexpr uint32_t kMostOutputs = 32;    // of a unit; one with more isn't found
  static constexpr size_t kMostControllers = 64;  // who was silent longest makes room

  // Throws SocketError when `listen` can't be had.
  DiscoveryRelay(Loop& loop, DiscoveryRelayInfo info);
  DiscoveryRelay(const DiscoveryRelay&) = delete;
  DiscoveryRelay& operator=(const DiscoveryRelay&) = delete;

  const Endpoint& Local() const { return listening_.Local(); }

  uint64_t Finds() const { return finds_; }      // that came from controllers
  uint64_t Answers() const { return answers_; }  // that came back to controllers
  size_t Units() const { return places_.size(); }

 private:
  struct Controller {
    Endpoint address;
    uint64_t lastUse = 0;
    std::unique_ptr<UdpPort> port;  // towards the units
  };

  struct Place {
    Unit real;
    Unit shown;
    std::unique_ptr<Relay> control;
    std::vector<std::unique_ptr<Relay>> outputs;
  };

  void OnFind(const Datagram& datagram);
  void OnAnswer(const Endpoint& controller, const Datagram& datagram);
  Controller* ControllerAt(const Endpoint& address);
  Place* PlaceOf(const Unit& unit);
  void Open(Place& place, const Endpoint& before);
  void OpenOutputs(Place& place, uint16_t port);
  std::unique_ptr<Relay> OpenRelay(uint16_t port, const Endpoint& target);
  void Trouble(const std::string& text);

  Loop& loop_;
  const DiscoveryRelayInfo info_;
  std::vector<std::unique_ptr<Controller>> controllers_;
  std::vector<std::unique_ptr<Place>> places_;
  uint64_t uses_ = 0;
  uint64_t relaysMade_ = 0;
  uint64_t finds_ = 0;
  uint64_t answers_ = 0;
  std::string trouble_;  // the latest
  BroadcastPort listening_;
};

}  // namespace wire
