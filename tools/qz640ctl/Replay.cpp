// The command "replay": the requests of a capture once more, to see whether a unit answers as it
// did then, or as another one did.
#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "CaptureFile.h"
#include "Commands.h"
#include "platform/startup.h"
#include "wire/Explain.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::Endpoint;
using wire::Json;
using wire::Message;

namespace {

// After its acknowledgement a request that has no answer is done or refused within this.
constexpr auto kRefusalTime = milliseconds(100);

// Each request with the type of its answer; empty for one that is answered only by a refusal.
const std::map<std::string, std::string>& Answers() {
  static const std::map<std::string, std::string> kAnswers{{"get_dev_info", "dev_info"},
                                                           {"get_inputs", "inputs"},
                                                           {"get_fm_freq", "fm_freq"},
                                                           {"get_fm_quality", "fm_quality"},
                                                           {"get_state", ""},
                                                           {"set_state", ""},
                                                           {"set_inputs", ""},
                                                           {"set_fm_freq", ""}};
  return kAnswers;
}

struct Exchange {
  Endpoint controller;
  Endpoint unit;
  Message request;
  std::optional<Json> answer;  // what came then
};

bool IsAnswerTo(const Exchange& exchange, uint32_t id, const Message& message) {
  if (message.type == "error") return wire::NumberAt(message.body, "err_msg_id") == id;
  return message.type == Answers().at(exchange.request.type);
}

// Each request once, however often it was sent, with the first message that answers it.
std::vector<Exchange> ReadExchanges(const std::string& path, size_t* leftOut) {
  std::vector<Exchange> all;
  std::set<std::tuple<Endpoint, Endpoint, uint32_t>> seen;
  CaptureReader reader(path);
  while (const auto frame = reader.Next()) {
    const auto datagram = ToDatagram(*frame);
    if (!datagram) continue;
    try {
      const Message message = wire::Decode(datagram->payload, datagram->from);
      if (message.type == "attach") ++*leftOut;
      if (Answers().contains(message.type)) {
        if (!seen.insert({datagram->from, datagram->to, message.id}).second) continue;
        all.push_back({datagram->from, datagram->to, message, std::nullopt});
        continue;
      }
      const auto open = std::find_if(all.begin(), all.end(), [&](const Exchange& one) {
        return !one.answer && one.unit == datagram->from && one.controller == datagram->to &&
               IsAnswerTo(one, one.request.id, message);
      });
      if (open != all.end()) open->answer = message.body;
    } catch (const wire::BadMessage&) {
      // A stream's packet, or what a unit drops too.
    }
  }
  return all;
}

// Numbers differ from one exchange to the other and say nothing.
Json WithoutNumbers(std::optional<Json> answer) {
  if (!answer) return Json::object();
  for (const char* key : {"msg_id", "err_msg_id"})
    answer->erase(key);
  return *answer;
}

std::string Shown(const Json& object, const std::string& key) {
  return object.contains(key) ? wire::ToAscii(object[key]) : "missing";
}

// "rtp_port was 8002, is 8008", one a key.
std::vector<std::string> Differences(const Json& then, const Json& now) {
  std::set<std::string> keys;
  for (const Json* object : {&then, &now}) {
    for (const auto& item : object->items())
      keys.insert(item.key());
  }
  std::vector<std::string> all;
  for (const std::string& key : keys) {
    if (then.contains(key) && now.contains(key) && then[key] == now[key]) continue;
    all.push_back(wire::ToAscii(key) + " was " + Shown(then, key) + ", is " + Shown(now, key));
  }
  return all;
}

// The exchanges with one unit: the unit that is named, or the only one in the capture.
std::vector<Exchange> Choose(std::vector<Exchange> all, const ReplayOptions& options) {
  std::set<Endpoint> units;
  for (const Exchange& exchange : all)
    units.insert(exchange.unit);
  if (options.of.empty()) {
    if (units.size() <= 1) return all;
    std::string names;
    for (const Endpoint& unit : units)
      names += (names.empty() ? "" : ", ") + unit.ToText();
    throw Failure{kUsage,
                  "the capture has requests to several units; name one with --of: " + names};
  }
  const Endpoint of = ParseEndpoint(options.of, 0);
  std::erase_if(all, [&](const Exchange& exchange) { return exchange.unit != of; });
  return all;
}

// Sends the request once more and gives today's answer; nothing where the unit doesn't acknowledge,
// or doesn't answer a request that has an answer.
std::optional<Json> Again(Session& session, const Endpoint& unit, const Exchange& exchange) {
  wire::Link& link = session.Link();
  link.Clear();
  Json members = exchange.request.body;
  for (const char* key : {"msg", "msg_id", "att"})
    members.erase(key);
  const uint32_t id = link.Tell(unit, exchange.request.type, members, exchange.request.attachment);
  const bool silent = Answers().at(exchange.request.type).empty() && !exchange.answer;
  const auto answer = link.TakeIf(
      [&](const Message& message) {
        return message.from == unit && IsAnswerTo(exchange, id, message);
      },
      silent ? wire::Clock::duration(kRefusalTime) : session.Timeout());
  if (!answer) return std::nullopt;
  return answer->body;
}

}  // namespace

int RunReplay(Session& session, const ReplayOptions& options, Output& out) {
  size_t leftOut = 0;
  const std::vector<Exchange> exchanges = Choose(ReadExchanges(options.file, &leftOut), options);
  if (exchanges.empty()) {
    throw Failure{kUsage, "\"" + options.file + "\" has no request to a unit" +
                              (options.of.empty() ? "" : " at " + options.of)};
  }
  if (leftOut > 0) {
    session.Note(std::to_string(leftOut) + " segments of long attachments are left out");
  }
  const Endpoint unit = session.FindUnit(options.against).control;
  size_t different = 0;
  for (const Exchange& exchange : exchanges) {
    const std::string request = wire::ToAscii(exchange.request.body);
    std::optional<Json> now;
    bool acknowledged = true;
    try {
      now = Again(session, unit, exchange);
    } catch (const wire::NoAnswer&) {
      acknowledged = false;
    }
    std::vector<std::string> differences =
        Differences(WithoutNumbers(exchange.answer), WithoutNumbers(now));
    if (!acknowledged) differences = {"not acknowledged"};
    if (acknowledged && exchange.answer && !now) differences = {"not answered"};
    different += differences.empty() ? 0 : 1;
    out.Object(Fields()
                   .Add("request", request)
                   .Add("then", exchange.answer ? wire::ToAscii(*exchange.answer) : "")
                   .Add("now", now ? wire::ToAscii(*now) : "")
                   .Add("acknowledged", acknowledged ? 1 : 0)
                   .Add("same", differences.empty() ? 1 : 0));
    if (options.diff && differences.empty()) continue;
    out.Line(request + "  " +
             (differences.empty() ? out.Paint(Colour::Green, "same")
                                  : out.Paint(Colour::Red, "different")));
    for (const std::string& difference : differences)
      out.Line("  " + difference);
    if (!options.diff && now) out.Line("  " + wire::ToAscii(*now));
  }
  out.Line(std::to_string(exchanges.size()) + " requests, " + std::to_string(different) +
           " answered differently");
  return options.diff && different > 0 ? kRefused : kDone;
}

}  // namespace ctl
