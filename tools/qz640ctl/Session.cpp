#include "Session.h"

#include <algorithm>
#include <cstdio>

#include "Printable.h"
#include "platform/interfaces.h"
#include "platform/socket.h"
#include "platform/startup.h"
#include "wire/PlatformAddress.h"

namespace ctl {

using wire::Clock;
using wire::Endpoint;
using wire::ToEndpoint;
using wire::ToPlatform;
using wire::Unit;

namespace {

// How long an address without a port is looked for as a unit's name, which it hardly is.
constexpr Clock::duration kPortlessTime = std::chrono::milliseconds(600);

// The same unit, answering from two addresses of this machine because it hears at all of them.
bool IsSameUnit(const Unit& a, const Unit& b) {
  return a.id == b.id && a.type == b.type && a.rtpPort == b.rtpPort &&
         a.control.port == b.control.port && IsOwn(a.control) && IsOwn(b.control);
}

// "10.0.0.7:8000 (studio-a) or 10.0.0.7:8006 (studio-b)?": the units at that address. Where none
// has answered, the port that the first unit of an emulator has by default.
std::string Ports(const Endpoint& address, const std::vector<Unit>& all) {
  std::string ports;
  for (const Unit& unit : all) {
    if (unit.control.address != address.address) continue;
    ports += (ports.empty() ? "" : " or ") + unit.control.ToText() + " (" + unit.id + ")";
  }
  return (ports.empty() ? address.Ip() + ":8000" : ports) + "?";
}

}  // namespace

Endpoint ParseEndpoint(const std::string& text, uint16_t defaultPort) {
  auto endpoint = Endpoint::Parse(text);
  // The limited broadcast address is the value that stands for "undefined" in units.
  if (!endpoint || endpoint->address == 0xFFFFFFFF) {
    throw Failure{kUsage, "\"" + text + "\" is no address; it must read a.b.c.d or a.b.c.d:port" +
                              (text.starts_with("255.255.255.255")
                                   ? " (for a broadcast give the subnet's broadcast address)"
                                   : "")};
  }
  if (endpoint->port == 0) endpoint->port = defaultPort;
  return *endpoint;
}

std::optional<Endpoint> ControlOf(const std::string& name) {
  const auto endpoint = Endpoint::Parse(name);
  if (!endpoint || endpoint->port == 0 || endpoint->address == 0xFFFFFFFF) return std::nullopt;
  return endpoint;
}

uint32_t BindError(const Endpoint& local) {
  platform::Socket sock;
  const platform::SocketResult opened = sock.OpenUdp();
  return opened.Ok() ? sock.Bind(ToPlatform(local)).error : opened.error;
}

bool IsLoopback(const Endpoint& endpoint) {
  constexpr uint32_t kLoopback = 127;
  return endpoint.address >> 24 == kLoopback;
}

bool IsOwn(const Endpoint& endpoint) {
  if (IsLoopback(endpoint)) return true;
  const auto all = platform::ListInterfaces();
  return std::any_of(all.begin(), all.end(), [&](const platform::Interface& interface) {
    return ToEndpoint(interface.address).address == endpoint.address;
  });
}

void CheckInput(const Unit& unit, uint32_t input) {
  if (input < unit.inputs) return;
  throw Failure{kUsage, unit.id + " (" + unit.type + ") has " + std::to_string(unit.inputs) +
                            " input(s), counted from 0; there is no input " +
                            std::to_string(input)};
}

void CheckOutput(const Unit& unit, uint32_t output) {
  if (output < unit.outputs) return;
  throw Failure{kUsage, unit.id + " (" + unit.type + ") has " + std::to_string(unit.outputs) +
                            " output(s), counted from 0; there is no output " +
                            std::to_string(output)};
}

Session::Session(const CommonOptions& common, bool verbose) : common_(common) {
  loop_.SetInterrupt([] { return platform::WaitForStop(0); });
  if (verbose) {
    loop_.SetTrace(
        [](const std::string& line) { std::fprintf(stderr, "%s\n", Printable(line).c_str()); });
  }
}

wire::Link& Session::Link() {
  if (!link_) link_.emplace(loop_);
  return *link_;
}

std::vector<Endpoint> Session::DiscoverAt() const {
  std::vector<Endpoint> all;
  for (const std::string& text : common_.to) {
    all.push_back(ParseEndpoint(text, wire::kDiscoveryPort));
    if (text.ends_with(":0")) {
      throw Failure{kUsage, "--to " + text +
                                " asks at port 0, where no unit can be; leave it out, "
                                "or give the port that units are found at"};
    }
  }
  if (!all.empty()) return all;
  for (const platform::Interface& interface : platform::ListInterfaces()) {
    const Endpoint broadcast(ToEndpoint(interface.broadcast).address, wire::kDiscoveryPort);
    if (broadcast.address == 0xFFFFFFFF) continue;  // it has none
    if (std::find(all.begin(), all.end(), broadcast) == all.end()) all.push_back(broadcast);
  }
  return all;
}

std::vector<Unit> Session::Find(const std::vector<Endpoint>& to, wire::Clock::duration limit,
                                wire::Clock::duration round) {
  wire::DiscoveryTrouble trouble;
  std::vector<Unit> found;
  for (const Unit& unit : wire::Discover(Link(), loop_, to, limit, round, &trouble)) {
    const auto same = [&](const Unit& other) { return IsSameUnit(unit, other); };
    if (std::none_of(found.begin(), found.end(), same)) found.push_back(unit);
  }
  for (const std::string& answer : trouble.leftOut) {
    if (leftOut_.insert(answer).second) Note("left out an answer that makes no sense: " + answer);
  }
  unsent_ = trouble.unsent;
  Found(found);
  return found;
}

void Session::Found(const std::vector<Unit>& units) {
  std::vector<Unit> unknown;
  for (const Unit& unit : units) {
    if (known_.insert(unit.control).second) unknown.push_back(unit);
  }
  if (onFound_ && !unknown.empty()) onFound_(unknown);
}

Failure Session::NobodyAnswered(const std::vector<Endpoint>& to) {
  if (to.empty()) {
    return {kNoAnswer,
            "no interface of this machine is up that has a broadcast address; name where "
            "to ask with --to ADDR (qz640ctl doctor lists the interfaces)"};
  }
  if (unsent_.size() == to.size()) {
    std::string why;
    for (const std::string& one : unsent_)
      why += (why.empty() ? "" : ", ") + one;
    return {kNoAnswer, "nobody could be asked: " + why + "; is there a network that leads there?"};
  }
  std::string places;
  for (const Endpoint& endpoint : to) {
    places += (places.empty() ? "" : ", ") + endpoint.ToText();
    const auto& acks = Link().Acks();
    const auto isFrom = [&](const wire::Message& ack) { return ack.from == endpoint; };
    if (std::none_of(acks.begin(), acks.end(), isFrom)) continue;
    return {kNoAnswer, endpoint.ToText() +
                           " acknowledges and doesn't answer the discovery: it is a control port; "
                           "name the unit by it, as in qz640ctl info " +
                           endpoint.ToText()};
  }
  return {kNoAnswer, "no unit answered (asked at " + places +
                         "); is one running, with \"AddrStr\" set to an address of this network? "
                         "(qz640ctl doctor looks closer)"};
}

Unit Session::FindUnit(const std::string& name) {
  if (const auto control = ControlOf(name)) {
    const Unit unit = wire::UnitControl(Link(), *control, Timeout()).GetDevInfo();
    Found({unit});
    return unit;
  }
  const auto address = Endpoint::Parse(name);
  std::vector<Endpoint> at = DiscoverAt();
  Clock::duration limit = Timeout();
  if (address && address->address != 0xFFFFFFFF) {
    at.emplace_back(address->address, wire::kDiscoveryPort);
    limit = std::min(limit, kPortlessTime);
  }
  const std::vector<Unit> all = Find(at, limit);
  std::vector<Unit> named;
  std::string others;
  for (const Unit& unit : all) {
    if (unit.id == name) named.push_back(unit);
    others += (others.empty() ? "" : ", ") + unit.id;
  }
  if (named.size() == 1) return named.front();
  if (named.size() > 1) {
    throw Failure{kRefused, std::to_string(named.size()) + " units are called \"" + name +
                                "\"; name one by its address, such as " +
                                named.front().control.ToText()};
  }
  if (address) throw Failure{kUsage, name + " has no port: did you mean " + Ports(*address, all)};
  if (all.empty()) throw NobodyAnswered(at);
  throw Failure{kNoAnswer,
                "no unit \"" + name + "\" answered; name one of these that did: " + others};
}

Endpoint Session::LocalFor(const Unit& unit) const {
  if (!common_.local.empty()) return {ParseEndpoint(common_.local, 0).address, 0};
  // Connecting a datagram socket sends nothing; the system only looks up the way to the unit.
  platform::Socket sock;
  platform::SocketAddress local;
  if (sock.OpenUdp().Ok() && sock.Connect(ToPlatform(unit.control)).Ok() &&
      sock.LocalAddress(&local).Ok()) {
    return {ToEndpoint(local).address, 0};
  }
  throw Failure{kNoPort, "no interface of this machine faces " + unit.control.ToText() +
                             "; name one with --local ADDR"};
}

Failure Session::ToFailure(const std::exception& error) const {
  if (const auto* silence = dynamic_cast<const wire::NoAnswer*>(&error)) {
    if (silence->missing == wire::NoAnswer::Missing::Acknowledgement) {
      return {kNoAnswer,
              error.what() + std::string(": is a unit running there, and does a firewall let "
                                         "UDP through?")};
    }
    return {kNoAnswer, error.what() + (" within " + std::to_string(common_.timeoutMs)) +
                           " ms; give it longer with --timeout, or look at the unit's log"};
  }
  if (dynamic_cast<const wire::Refused*>(&error)) return {kRefused, error.what()};
  if (dynamic_cast<const wire::Interrupted*>(&error)) {
    return {kRefused, "stopped before it was done"};
  }
  if (dynamic_cast<const wire::SendError*>(&error)) {
    return {kNoAnswer, error.what() + std::string("; is there a network that leads there?")};
  }
  if (dynamic_cast<const wire::SocketError*>(&error)) {
    return {kNoPort, error.what() + std::string(" (qz640ctl doctor looks closer)")};
  }
  if (dynamic_cast<const wire::BadMessage*>(&error)) {
    return {kRefused, "the unit's answer can't be understood: " + std::string(error.what())};
  }
  return {kRefused, "unexpected: " + std::string(error.what())};
}

}  // namespace ctl
