// The first half of the tour of "check": discovery, the control protocol, every request.
#include <algorithm>
#include <optional>
#include <set>
#include <type_traits>
#include <utility>

#include "Check.h"
#include "wire/Link.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::Clock;
using wire::Json;
using wire::Link;
using wire::Message;
using wire::Unit;

namespace {

constexpr auto kAckTime = milliseconds(500);  // before an acknowledgement counts as missing
constexpr auto kSettle = milliseconds(400);   // by then all repeats of a datagram are over
constexpr double kAckGoodMs = 50;             // later ones make the peer repeat
constexpr uint32_t kNoFreq = 1;               // Hz; whatever a unit has, it isn't this
constexpr size_t kLongAttachment = 3000;      // bytes: a head and three segments

// How much of its own lateness a check can bear: an acknowledgement is looked at to 50 ms, the
// spacing of repeats to 10 ms, what comes within 400 ms coarsely.
constexpr auto kAckBears = milliseconds(20);
constexpr auto kRepeatsBear = milliseconds(8);
constexpr auto kCountsBear = milliseconds(100);

// The control protocol's checks. Each asks for one thing and reports one line. The tour has a link
// of its own, which for one check leaves the unit's messages unacknowledged.
class ControlTour {
 public:
  // With `careful` nothing is changed.
  ControlTour(Session& session, const Unit& unit, CheckReport& report, bool careful)
      : session_(session), unit_(unit), report_(report), careful_(careful), link_(session.Loop()) {}

  void Run() {
    if (report_.Begin(Part::Discovery)) Discovery();
    if (report_.Begin(Part::Connection)) {
      report_.Judge("acknowledgement", kAckBears, [this] { return Acknowledgement(); });
      report_.Judge("repeats", kRepeatsBear, [this] { return Repeats(); });
      report_.Judge("duplicate filter", kCountsBear, [this] { return DuplicateFilter(); });
      report_.Judge("stray message", kCountsBear, [this] { return StrayMessage(); });
      report_.Judge("segmented message", kCountsBear, [this] { return Segments(); });
    }
    if (report_.Begin(Part::Requests)) {
      DevInfo();
      Inputs();
      State();
    }
    if (report_.Begin(Part::Tuners)) Fm();
  }

 private:
  void Discovery();
  Finding Acknowledgement();
  Finding Repeats();
  Finding DuplicateFilter();
  Finding StrayMessage();
  void DevInfo();
  void Inputs();
  void State();
  void Fm();
  void FmTuner(size_t tuners);
  void FmRefused(const char* name, const char* request, const Json& members, uint32_t code);
  Finding Segments();

  // Sends a request, once and without waiting for its acknowledgement, and gives what `understand`
  // makes of the answer. Nothing, with the reason in `why_`, where no answer comes or it throws.
  template <typename Understand>
  auto Ask(const char* request, const char* answer, Understand understand,
           const Json& members = Json::object())
      -> std::optional<std::invoke_result_t<Understand, const Message&>> {
    link_.Clear();
    link_.Send(unit_.control, request, members);
    const auto message = link_.Take(answer, unit_.control, session_.Timeout());
    why_ = "no answer";
    if (!link_.Complaints().empty()) why_ += "; it sent what is none: " + link_.Complaints().back();
    if (!message) return std::nullopt;
    try {
      return understand(*message);
    } catch (const wire::BadMessage& error) {
      why_ = error.what();
      return std::nullopt;
    }
  }

  // Sends a request that has no answer; whether it was acknowledged.
  bool Tell(const char* request, const Json& members) {
    return link_.WaitAcks(link_.Send(unit_.control, request, members), 1, kAckTime);
  }

  std::optional<std::vector<wire::Destination>> AskInputs() {
    return Ask("get_inputs", "inputs", wire::ToDestinations);
  }
  std::optional<std::vector<int32_t>> AskFreqs() {
    return Ask("get_fm_freq", "fm_freq",
               [](const Message& message) { return wire::NumbersAt(message.body, "freq"); });
  }

  Session& session_;
  const Unit unit_;
  CheckReport& report_;
  const bool careful_;
  Link link_;
  std::string why_;
};

void ControlTour::Discovery() {
  const std::vector<wire::Endpoint> at = session_.DiscoverAt();
  const std::vector<Unit> found =
      wire::Discover(link_, session_.Loop(), at, session_.Timeout(), milliseconds(300));
  const bool there = std::any_of(found.begin(), found.end(), [this](const Unit& unit) {
    return unit.control == unit_.control;
  });
  if (there) {
    report_.Add("discovery", Verdict::Pass, "answered from " + unit_.control.ToText());
  } else {
    report_.Add("discovery", Verdict::Fail,
                "no dev_info from " + unit_.control.ToText() + " (asked at " +
                    (at.empty() ? std::string("no interface") : at.front().ToText()) +
                    (at.size() > 1 ? " and elsewhere)" : ")"));
  }
}

Finding ControlTour::Acknowledgement() {
  link_.Clear();
  const auto sent = Clock::now();
  const uint32_t id = link_.Send(unit_.control, "get_state");  // has no answer but this
  if (link_.WaitAcks(id, 1, kAckTime)) {
    const double ms = ToMs(link_.AcksOf(id).front().time - sent);
    return {ms <= kAckGoodMs ? Verdict::Pass : Verdict::Fail, MsText(ms), {{"after", ms, "ms"}}};
  }
  if (link_.Acks().empty()) return {Verdict::Fail, "none within " + MsText(ToMs(kAckTime)), {}};
  const uint32_t wrong = wire::NumberAt(link_.Acks().front().body, "ack_msg_id");
  return {
      Verdict::Fail, "names message " + std::to_string(wrong) + ", not " + std::to_string(id), {}};
}

// An answer that nobody acknowledges comes five times, some 50 ms apart, and then no more.
Finding ControlTour::Repeats() {
  link_.Clear();
  link_.Acknowledge(false);
  link_.Send(unit_.control, "get_dev_info");
  const auto first = link_.Take("dev_info", unit_.control, session_.Timeout());
  if (first) session_.Loop().RunFor(2 * kSettle);
  link_.Acknowledge(true);
  if (!first) return {Verdict::Fail, "get_dev_info was not answered", {}};
  link_.SendAck(first->id, unit_.control);

  std::vector<Clock::time_point> times;
  for (const Message& message : link_.Received()) {
    if (message.id == first->id && message.from == unit_.control) times.push_back(message.time);
  }
  double longest = 0;
  double shortest = 1e9;
  for (size_t i = 1; i < times.size(); ++i) {
    longest = std::max(longest, ToMs(times[i] - times[i - 1]));
    shortest = std::min(shortest, ToMs(times[i] - times[i - 1]));
  }
  const std::string figure =
      std::to_string(times.size()) + " transmissions" +
      (times.size() > 1 ? ", " + MsText(shortest) + " to " + MsText(longest) + " apart" : "");
  std::vector<Figure> figures{
      {"transmissions", static_cast<double>(times.size()), "transmissions"}};
  if (times.size() > 1) {
    figures.push_back({"shortest", shortest, "ms"});
    figures.push_back({"longest", longest, "ms"});
  }
  if (times.size() != wire::kTransmissions) {
    // Nothing that happens here makes a unit send more often.
    const bool tooMany = times.size() > wire::kTransmissions;
    return {Verdict::Fail, figure + "; there must be 5", std::move(figures), tooMany};
  }
  const bool paced = shortest >= 40 && longest <= 100;
  return {paced ? Verdict::Pass : Verdict::Warn, figure, std::move(figures)};
}

Finding ControlTour::DuplicateFilter() {
  link_.Clear();
  const uint32_t id = link_.Send(unit_.control, "get_dev_info");
  for (int copy = 1; copy < 3; ++copy)
    link_.SendWithId(id, unit_.control, "get_dev_info");
  session_.Loop().RunFor(kSettle);
  std::set<uint32_t> answers;
  for (const Message& message : link_.Received()) {
    if (message.type == "dev_info") answers.insert(message.id);
  }
  const size_t acks = link_.AcksOf(id).size();
  return {acks == 3 && answers.size() == 1 ? Verdict::Pass : Verdict::Fail,
          "3 copies: " + std::to_string(acks) + " acknowledgements, " +
              std::to_string(answers.size()) + " answer(s)",
          {{"acknowledgements", static_cast<double>(acks), "messages"},
           {"answers", static_cast<double>(answers.size()), "messages"}}};
}

// An answer type is no request: acknowledged, and nothing else.
Finding ControlTour::StrayMessage() {
  link_.Clear();
  const bool acked = Tell("state", {{"device_freq", 0}, {"input_freq", 0}});
  session_.Loop().RunFor(kSettle / 2);
  const size_t others = link_.Received().size() + link_.Complaints().size();
  return {acked && others == 0 ? Verdict::Pass : Verdict::Fail,
          std::string(acked ? "acknowledged" : "not acknowledged") + ", " + std::to_string(others) +
              " other datagram(s)",
          {{"others", static_cast<double>(others), "datagrams"}}};
}

void ControlTour::DevInfo() {
  const auto info = Ask("get_dev_info", "dev_info", wire::ToUnit);
  if (!info) {
    report_.Add("get_dev_info", Verdict::Fail, why_);
    return;
  }
  const bool same = info->inputs == unit_.inputs && info->outputs == unit_.outputs;
  report_.Add("get_dev_info", same ? Verdict::Pass : Verdict::Fail,
              unit_.type + ", " + std::to_string(info->inputs) + " in, " +
                  std::to_string(info->outputs) + " out, RTP port " + std::to_string(info->rtpPort),
              {{"inputs", static_cast<double>(info->inputs), "streams"},
               {"outputs", static_cast<double>(info->outputs), "streams"}});
}

void ControlTour::Inputs() {
  const auto inputs = AskInputs();
  const bool counted = inputs && inputs->size() == unit_.inputs;
  report_.Add("get_inputs", counted ? Verdict::Pass : Verdict::Fail,
              inputs ? std::to_string(inputs->size()) + " addresses" : why_);
  if (!counted) return;

  if (careful_) {
    report_.Add("set_inputs, wrong count", Verdict::Skip, kLeftOut);
    return;
  }
  // A wrong count must change nothing.
  const std::vector<wire::InputChange> wrong(unit_.inputs + 1, {true, std::nullopt});
  Tell("set_inputs", wire::ToMembers(wrong));
  const auto after = AskInputs();
  const bool kept = after && *after == *inputs;
  report_.Add("set_inputs, wrong count", kept ? Verdict::Pass : Verdict::Fail,
              kept ? "nothing changed" : "the inputs changed, or the unit went silent");
}

void ControlTour::State() {
  if (careful_) {
    report_.Add("set_state, 1 Hz", Verdict::Skip, kLeftOut);
    return;
  }
  const bool acked = Tell("set_state", {{"device_freq", kNoFreq}});
  const auto info = Ask("get_dev_info", "dev_info", wire::ToUnit);
  report_.Add("set_state, 1 Hz", acked && info ? Verdict::Pass : Verdict::Fail,
              std::string(acked ? "acknowledged" : "not acknowledged") +
                  (info ? ", goes on" : ", and silent from then on"));
}

void ControlTour::Fm() {
  link_.Clear();
  link_.Send(unit_.control, "get_fm_freq");
  const auto answer = link_.TakeIf(
      [](const Message& message) { return message.type == "fm_freq" || message.type == "error"; },
      session_.Timeout());
  if (!answer) {
    report_.Add("get_fm_freq", Verdict::Fail, "no answer");
  } else if (answer->type == "fm_freq") {
    const size_t tuners = wire::ArrayAt(answer->body, "freq").size();
    report_.Add("get_fm_freq", tuners == unit_.inputs ? Verdict::Pass : Verdict::Fail,
                std::to_string(tuners) + " tuners",
                {{"tuners", static_cast<double>(tuners), "tuners"}});
    FmTuner(tuners);
  } else {
    // Without tuners all three requests are refused.
    FmRefused("get_fm_freq", "get_fm_freq", Json::object(), 1);
    FmRefused("set_fm_freq", "set_fm_freq", Json::object(), 1);
    FmRefused("get_fm_quality", "get_fm_quality", Json::object(), 1);
  }
}

void ControlTour::FmTuner(size_t tuners) {
  const auto before = AskFreqs();
  if (!before || tuners == 0) return;
  if (careful_) {
    report_.Add("set_fm_freq", Verdict::Skip, kLeftOut);
    report_.Add("set_fm_freq, wrong count", Verdict::Skip, kLeftOut);
  } else {
    auto expected = *before;
    expected.back() += 100;
    std::vector<int32_t> change(tuners, 0);
    change.back() = expected.back();
    Tell("set_fm_freq", Json::object({{"freq", change}}));
    const auto after = AskFreqs();
    Tell("set_fm_freq", Json::object({{"freq", *before}}));
    report_.Add("set_fm_freq", after && *after == expected ? Verdict::Pass : Verdict::Fail,
                "the last tuner alone, 100 up");
    FmRefused("set_fm_freq, wrong count", "set_fm_freq",
              Json::object({{"freq", std::vector<int32_t>(tuners + 1, 0)}}), 2);
  }
  const auto rssi = Ask("get_fm_quality", "fm_quality", [](const Message& message) {
    return wire::NumbersAt(message.body, "rssi").size();
  });
  report_.Add("get_fm_quality", rssi == tuners ? Verdict::Pass : Verdict::Fail,
              rssi ? std::to_string(*rssi) + " tuners" : why_);
}

void ControlTour::FmRefused(const char* name, const char* request, const Json& members,
                            uint32_t code) {
  link_.Clear();
  const uint32_t id = link_.Send(unit_.control, request, members);
  const auto error = link_.Take("error", unit_.control, session_.Timeout());
  if (!error) {
    report_.Add(name, Verdict::Fail, "no error answer");
    return;
  }
  const uint32_t given = wire::NumberAt(error->body, "code");
  const uint32_t about = wire::NumberAt(error->body, "err_msg_id");
  const bool good = given == code && about == id;
  report_.Add(
      name, good ? Verdict::Pass : Verdict::Fail,
      "error " + std::to_string(given) + " for message " + std::to_string(about) +
          (good ? "" : "; expected error " + std::to_string(code) + " for " + std::to_string(id)));
}

// Head and segments; the unit puts them together and answers.
Finding ControlTour::Segments() {
  const auto start = Clock::now();
  try {
    link_.Ask(unit_.control, "get_dev_info", "dev_info", Json::object(),
              wire::Bytes(kLongAttachment, 0xA5), session_.Timeout());
  } catch (const wire::NoAnswer& error) {
    return {Verdict::Fail, session_.ToFailure(error).text, {}};
  }
  const double ms = ToMs(Clock::now() - start);
  return {Verdict::Pass,
          std::to_string(kLongAttachment) + " bytes, answered in " + MsText(ms),
          {{"after", ms, "ms"}}};
}

}  // namespace

void CheckControl(Session& session, const Unit& unit, CheckReport& report, bool careful) {
  ControlTour(session, unit, report, careful).Run();
}

}  // namespace ctl
