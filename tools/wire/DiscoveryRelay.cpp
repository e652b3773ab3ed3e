#include "wire/DiscoveryRelay.h"

#include <algorithm>
#include <utility>

namespace wire {

namespace {

// In a "dev_find" that a relay has sent on; units don't look at it. Where two relays stand between
// the same networks, one for each direction, discovery would go round and round without it.
constexpr const char* kRelayed = "relayed";

constexpr int kPortTries = 20;

}  // namespace

DiscoveryRelay::DiscoveryRelay(Loop& loop, DiscoveryRelayInfo info)
    : loop_(loop),
      info_(std::move(info)),
      listening_(loop, info_.listen, [this](const Datagram& datagram) { OnFind(datagram); }) {}

void DiscoveryRelay::OnFind(const Datagram& datagram) {
  Message find;
  try {
    find = Decode(datagram.bytes);
  } catch (const BadMessage&) {
    return;
  }
  if (find.type != "dev_find" || find.body.contains(kRelayed)) return;
  find.body[kRelayed] = 1;
  Controller* controller = ControllerAt(datagram.from);
  if (!controller) return;
  ++finds_;
  for (const Endpoint& target : info_.targets) {
    if (controller->port->TrySend(Encode(find.body, find.attachment), target)) continue;
    Trouble("can't send to " + target.ToText() + ": is there a network that leads there?");
  }
}

// Units answer to where they were asked from, so each controller has a port of its own here.
DiscoveryRelay::Controller* DiscoveryRelay::ControllerAt(const Endpoint& address) {
  auto found = std::find_if(controllers_.begin(), controllers_.end(),
                            [&](const auto& controller) { return controller->address == address; });
  if (found == controllers_.end()) {
    auto controller = std::make_unique<Controller>();
    controller->address = address;
    try {
      controller->port = std::make_unique<UdpPort>(
          loop_, Endpoint(),
          [this, address](const Datagram& datagram) { OnAnswer(address, datagram); });
    } catch (const SocketError& error) {
      Trouble(error.what());
      return nullptr;
    }
    if (controllers_.size() >= kMostControllers) {
      controllers_.erase(
          std::min_element(controllers_.begin(), controllers_.end(),
                           [](const auto& a, const auto& b) { return a->lastUse < b->lastUse; }));
    }
    controllers_.push_back(std::move(controller));
    found = controllers_.end() - 1;
  }
  (*found)->lastUse = ++uses_;
  return found->get();
}

void DiscoveryRelay::OnAnswer(const Endpoint& controller, const Datagram& datagram) {
  Unit unit;
  try {
    const Message message = Decode(datagram.bytes, datagram.from, datagram.time);
    if (message.type != "dev_info") return;
    unit = ToUnit(message);
  } catch (const BadMessage&) {
    return;
  }
  if (Place* place = PlaceOf(unit)) {
    ++answers_;
    place->control->SendBack(controller, datagram);
  }
}

// A unit that has started anew with other streams gets other ports for them, and keeps its control
// port.
DiscoveryRelay::Place* DiscoveryRelay::PlaceOf(const Unit& unit) {
  auto found = std::find_if(places_.begin(), places_.end(),
                            [&](const auto& place) { return place->real.control == unit.control; });
  Endpoint before(0u, unit.control.port);
  if (found != places_.end()) {
    const Unit& known = (*found)->real;
    if (known.rtpPort == unit.rtpPort && known.outputs == unit.outputs) return found->get();
    before = (*found)->shown.control;
    places_.erase(found);
  }
  if (places_.size() >= kMostUnits) {
    Trouble("there is room for " + std::to_string(kMostUnits) + " units; " + unit.control.ToText() +
            " is one too many");
    return nullptr;
  }
  if (unit.outputs > kMostOutputs) {
    Trouble(unit.control.ToText() + " has " + std::to_string(unit.outputs) + " outputs; " +
            std::to_string(kMostOutputs) + " are the most that a unit can have here");
    return nullptr;
  }
  auto place = std::make_unique<Place>();
  place->real = place->shown = unit;
  try {
    Open(*place, before);
  } catch (const SocketError& error) {
    Trouble("no ports for " + unit.control.ToText() + ": " + error.what());
    return nullptr;
  }
  places_.push_back(std::move(place));
  if (info_.onUnit) info_.onUnit(places_.back()->real, places_.back()->shown);
  return places_.back().get();
}

// The ports are the unit's own where they are free, so that a firewall's rules fit both networks.
void DiscoveryRelay::Open(Place& place, const Endpoint& before) {
  try {
    place.control = OpenRelay(before.port, place.real.control);
  } catch (const SocketError&) {
    place.control = OpenRelay(0, place.real.control);
  }
  place.shown.control = place.control->Local();
  place.control->SetTamper([&place](Relay::Way way, const Datagram& datagram) {
    std::vector<Passed> passed{{datagram.bytes}};
    if (way == Relay::Way::There) return passed;
    try {
      Message message = Decode(datagram.bytes);
      if (message.type != "dev_info") return passed;
      message.body["rtp_port"] = place.shown.rtpPort;
      passed.front().bytes = Encode(message.body, message.attachment);
    } catch (const BadMessage&) {
      // Goes on as it is: whoever asked is to see it.
    }
    return passed;
  });
  for (int tries = 0; place.real.outputs > 0; ++tries) {
    try {
      OpenOutputs(place, tries == 0 ? place.real.rtpPort : uint16_t{0});
      return;
    } catch (const SocketError&) {
      if (tries == kPortTries) throw;
    }
  }
}

// Output i is at the first one's port + 2i. Port 0: at any that are free so.
void DiscoveryRelay::OpenOutputs(Place& place, uint16_t port) {
  place.outputs.clear();
  place.outputs.push_back(OpenRelay(port, place.real.Output(0)));
  place.shown.rtpPort = place.outputs.front()->Local().port;
  for (uint32_t i = 1; i < place.real.outputs; ++i) {
    const uint32_t next = place.shown.rtpPort + 2 * i;
    if (next > 65535) throw SocketError("no port after " + std::to_string(next - 2));
    place.outputs.push_back(OpenRelay(static_cast<uint16_t>(next), place.real.Output(i)));
  }
}

std::unique_ptr<Relay> DiscoveryRelay::OpenRelay(uint16_t port, const Endpoint& target) {
  RelayInfo info;
  info.listen = Endpoint(info_.listen.address, port);
  info.target = target;
  info.seed = info_.seed;
  info.number = relaysMade_++;
  info.faults = info_.faults;
  info.anySource = true;
  return std::make_unique<Relay>(loop_, info);
}

// Once, as it would come with every discovery.
void DiscoveryRelay::Trouble(const std::string& text) {
  if (text == trouble_) return;
  trouble_ = text;
  if (info_.onTrouble) info_.onTrouble(text);
}

}  // namespace wire
