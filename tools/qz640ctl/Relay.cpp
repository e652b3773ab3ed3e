// The command "relay": a bad network between a controller and a unit, the same at every run.
#include <memory>

#include "Commands.h"
#include "platform/startup.h"
#include "wire/Relay.h"

namespace ctl {

namespace {

// "A=B": what arrives at A goes to B.
wire::RelayInfo ParseWay(const std::string& way, const RelayOptions& options, uint64_t number) {
  const size_t equals = way.find('=');
  if (equals == std::string::npos) {
    throw Failure{kUsage, "\"" + way +
                              "\" is no way; it must read LISTEN=TARGET, as in "
                              "127.0.0.1:9000=127.0.0.1:8000"};
  }
  wire::RelayInfo info;
  info.listen = ParseEndpoint(way.substr(0, equals), 0);
  info.target = ParseEndpoint(way.substr(equals + 1), 0);
  if (info.listen.port == 0 || info.target.port == 0) {
    throw Failure{kUsage, "\"" + way + "\" lacks a port; both addresses need one"};
  }
  info.seed = options.seed;
  info.number = number;
  info.faults = options.faults;
  return info;
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

}  // namespace

int RunRelay(Session& session, const RelayOptions& options, Output& out) {
  std::vector<wire::RelayInfo> ways;
  std::vector<std::unique_ptr<wire::Relay>> relays;
  for (const std::string& text : options.ways) {
    ways.push_back(ParseWay(text, options, ways.size()));
    try {
      relays.push_back(std::make_unique<wire::Relay>(session.Loop(), ways.back()));
    } catch (const wire::SocketError& error) {
      throw Failure{kNoPort, "can't listen on " + ways.back().listen.ToText() +
                                 "; give a free port on an address of this machine (qz640ctl "
                                 "doctor says who has a port): " +
                                 error.what()};
    }
    // Programs wait for this before they send.
    out.Object(ToFields(ways.back()).Add("seed", options.seed));
    out.Line("relaying " + ways.back().listen.ToText() + " = " + ways.back().target.ToText() +
             ", seed " + std::to_string(options.seed));
  }
  const wire::Loop::Shield shield(session.Loop());
  while (!session.Loop().RunUntil([] { return platform::WaitForStop(0); }, std::chrono::hours(1))) {
  }
  for (size_t i = 0; i < relays.size(); ++i) {
    Print(ways[i], "there", relays[i]->CountsThere(), out);
    Print(ways[i], "back", relays[i]->CountsBack(), out);
  }
  return kDone;
}

}  // namespace ctl
