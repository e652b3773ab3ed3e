// The command "relay": a bad network between a controller and a unit, the same at every run.
#include <memory>

#include "Commands.h"
#include "platform/startup.h"
#include "platform/text.h"
#include "relay/LossyRelay.h"

namespace ctl {

using namespace Network;

namespace {

// "A=B": what arrives at A goes to B.
relay::RelayInfo ParseWay(const std::string& way, const RelayOptions& options, uint64_t number) {
  const size_t equals = way.find('=');
  if (equals == std::string::npos) {
    throw Failure{kUsage, "\"" + way +
                              "\" is no way; it must read LISTEN=TARGET, as in "
                              "127.0.0.1:9000=127.0.0.1:8000"};
  }
  relay::RelayInfo info;
  info.listen = ParseAddr(way.substr(0, equals), 0);
  info.target = ParseAddr(way.substr(equals + 1), 0);
  if (info.listen.Port() == 0 || info.target.Port() == 0) {
    throw Failure{kUsage, "\"" + way + "\" lacks a port; both addresses need one"};
  }
  info.seed = options.seed;
  info.number = number;
  info.faults = options.faults;
  return info;
}

Fields ToFields(const relay::RelayInfo& way) {
  return Fields().Add("listen", ToText(way.listen)).Add("target", ToText(way.target));
}

void Print(const relay::RelayInfo& way, const char* direction, const relay::LinkCounts& counts,
           Output& out) {
  const std::pair<const char*, uint64_t> values[] = {{"taken", counts.taken},
                                                     {"lost", counts.lost},
                                                     {"duplicated", counts.duplicated},
                                                     {"held_back", counts.heldBack},
                                                     {"corrupted", counts.corrupted}};
  Fields fields = ToFields(way).Add("direction", direction);
  std::string line = ToText(way.listen) + " = " + ToText(way.target) + " " + direction + ":";
  for (const auto& [key, value] : values) {
    fields.Add(key, value);
    line += std::string(" ") + key + " " + std::to_string(value);
  }
  out.Object(fields);
  out.Line(line);
}

}  // namespace

int RunRelay(const RelayOptions& options, Output& out) {
  const std::unique_ptr<INetManager> net = INetManager::Create();
  std::vector<relay::RelayInfo> ways;
  std::vector<std::unique_ptr<relay::LossyRelay>> relays;
  for (const std::string& text : options.ways) {
    ways.push_back(ParseWay(text, options, ways.size()));
    relays.push_back(std::make_unique<relay::LossyRelay>(net.get()));
    const ErrInfo err = relays.back()->Start(ways.back());
    if (!err.IsOk()) {
      throw Failure{kNoPort, "can't listen on " + ToText(ways.back().listen) +
                                 "; give a free port on an address of this machine (qz640ctl "
                                 "doctor tells who has a port):" +
                                 platform::WideToUtf8Lossy(err.ToString())};
    }
    // Programs wait for this before they send.
    out.Object(ToFields(ways.back()).Add("seed", options.seed));
    out.Line("relaying " + ToText(ways.back().listen) + " = " + ToText(ways.back().target) +
             ", seed " + std::to_string(options.seed));
  }
  while (!platform::WaitForStop(1000)) {
  }
  for (size_t i = 0; i < relays.size(); ++i) {
    Print(ways[i], "there", relays[i]->CountsThere(), out);
    Print(ways[i], "back", relays[i]->CountsBack(), out);
  }
  return kDone;
}

}  // namespace ctl
