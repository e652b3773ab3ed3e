// The command "relay": a bad network between a controller and a unit, the same at every run; or a
// way from the controllers of one network to the units of another.
#include <map>
#include <memory>

#include "Commands.h"
#include "Printable.h"
#include "platform/startup.h"
#include "wire/DiscoveryRelay.h"

namespace ctl {

namespace {

struct Way {
  wire::Endpoint listen;
  wire::Endpoint target;
};

// "A=B": what arrives at A goes to B. An address without a port gets `port`, or is refused where
// `port` is 0.
Way ParseWay(const std::string& text, uint16_t port) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) {
    throw Failure{kUsage, "\"" + text +
                              "\" is no way; it must read LISTEN=TARGET, as in "
                              "127.0.0.1:9000=127.0.0.1:8000"};
  }
  const Way way{ParseEndpoint(text.substr(0, equals), port),
                ParseEndpoint(text.substr(equals + 1), port)};
  if (way.listen.port == 0 || way.target.port == 0) {
    throw Failure{kUsage, "\"" + text + "\" lacks a port; both addresses need one"};
  }
  return way;
}

[[noreturn]] void FailToListen(const wire::Endpoint& listen, const wire::SocketError& error) {
  throw Failure{kNoPort, "can't listen on " + listen.ToText() +
                             "; give a free port on an address of this machine (qz640ctl "
                             "doctor says who has a port): " +
                             error.what()};
}

void WaitForStop(Session& session) {
  const wire::Loop::Shield shield(session.Loop());
  while (!session.Loop().RunUntil([] { return platform::WaitForStop(0); }, std::chrono::hours(1))) {
  }
}

Fields ToFields(const wire::RelayInfo& way) {
  return Fields().Add("listen", way.listen.ToText()).Add("target", way.target.ToText());
}

void Print(const wire::RelayInfo& way, const char* direction, const wire::LinkCounts& counts,
           Output& out) {
  const std::pair<const char*, uint64_t> values[] = {{"taken", counts.taken},
                                                     {"lost", counts.lost},
                                                     {"duplicated", counts.duplicated},
                                                     {"held_back", counts.heldBack},
                                                     {"corrupted", counts.corrupted}};
  Fields fields = ToFields(way).Add("direction", direction);
  std::string line = way.listen.ToText() + " = " + way.target.ToText() + " " + direction + ":";
  for (const auto& [key, value] : values) {
    fields.Add(key, value);
    line += std::string(" ") + key + " " + std::to_string(value);
  }
  out.Object(fields);
  out.Line(line);
}

void PrintUnit(const wire::Unit& real, const wire::Unit& shown, Output& out) {
  out.Object(Fields()
                 .Add("unit_id", real.id)
                 .Add("unit_type", real.type)
                 .Add("real", real.control.ToText())
                 .Add("control", shown.control.ToText())
                 .Add("rtp_port", shown.rtpPort));
  out.Line(Printable(real.id) + " (" + Printable(real.type) + ") of " + real.control.ToText() +
           " is at " + shown.control.ToText() + ", RTP port " + std::to_string(shown.rtpPort));
}

// All ways with the same LISTEN belong to one relay.
int RelayDiscovery(Session& session, const RelayOptions& options, Output& out) {
  std::map<wire::Endpoint, wire::DiscoveryRelayInfo> infos;
  for (const std::string& text : options.ways) {
    const Way way = ParseWay(text, wire::kDiscoveryPort);
    wire::DiscoveryRelayInfo& info = infos[way.listen];
    info.listen = way.listen;
    info.targets.push_back(way.target);
    info.seed = options.seed;
    info.faults = options.faults;
    info.onUnit = [&out](const wire::Unit& real, const wire::Unit& shown) {
      PrintUnit(real, shown, out);
    };
    info.onTrouble = [&out](const std::string& trouble) { out.Note(trouble); };
  }
  std::vector<std::unique_ptr<wire::DiscoveryRelay>> relays;
  for (const auto& [listen, info] : infos) {
    try {
      relays.push_back(std::make_unique<wire::DiscoveryRelay>(session.Loop(), info));
    } catch (const wire::SocketError& error) {
      FailToListen(listen, error);
    }
    std::string targets;
    for (const wire::Endpoint& target : info.targets)
      targets += (targets.empty() ? "" : ", ") + target.ToText();
    out.Object(Fields().Add("listen", listen.ToText()).Add("targets", targets));
    out.Line("relaying discovery at " + listen.ToText() + " to " + targets + "; the units are at " +
             listen.Ip() + " for as long as this runs");
  }
  WaitForStop(session);
  for (const auto& relay : relays) {
    out.Object(Fields()
                   .Add("listen", relay->Local().ToText())
                   .Add("finds", relay->Finds())
                   .Add("answers", relay->Answers())
                   .Add("units", relay->Units()));
    out.Line(relay->Local().ToText() + ": dev_find " + std::to_string(relay->Finds()) +
             ", dev_info " + std::to_string(relay->Answers()) + ", units " +
             std::to_string(relay->Units()));
  }
  return kDone;
}

}  // namespace

int RunRelay(Session& session, const RelayOptions& options, Output& out) {
  if (options.discovery) return RelayDiscovery(session, options, out);
  std::vector<wire::RelayInfo> ways;
  std::vector<std::unique_ptr<wire::Relay>> relays;
  for (const std::string& text : options.ways) {
    const Way way = ParseWay(text, 0);
    wire::RelayInfo& info = ways.emplace_back();
    info.listen = way.listen;
    info.target = way.target;
    info.seed = options.seed;
    info.number = relays.size();
    info.faults = options.faults;
    try {
      relays.push_back(std::make_unique<wire::Relay>(session.Loop(), info));
    } catch (const wire::SocketError& error) {
      FailToListen(way.listen, error);
    }
    // Programs wait for this before they send.
    out.Object(ToFields(ways.back()).Add("seed", options.seed));
    out.Line("relaying " + ways.back().listen.ToText() + " = " + ways.back().target.ToText() +
             ", seed " + std::to_string(options.seed));
  }
  WaitForStop(session);
  for (size_t i = 0; i < relays.size(); ++i) {
    Print(ways[i], "there", relays[i]->CountsThere(), out);
    Print(ways[i], "back", relays[i]->CountsBack(), out);
  }
  return kDone;
}

}  // namespace ctl
