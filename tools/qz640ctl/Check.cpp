// The command "check": a tour through everything that a unit has to do on the wire.
#include "Check.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "Commands.h"
#include "Loan.h"
#include "Printable.h"
#include "platform/startup.h"
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

// In the order of Part.
struct PartInfo {
  const char* name;
  const char* group;
  const char* what;
};
constexpr PartInfo kParts[kPartCount] = {
    {"discovery", "control", "is found by dev_find"},
    {"connection", "control", "acknowledgements, repeats, repeats dropped, segments"},
    {"requests", "control", "get_dev_info, get_inputs, set_inputs, set_state"},
    {"tuners", "control", "the FM requests, or their refusal"},
    {"streams", "audio", "format, rate, jitter and loss of every input"},
    {"loop-back", "audio", "noise sent to output 0 comes back bit for bit"},
};

Colour ColourOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Pass:
      return Colour::Green;
    case Verdict::Warn:
      return Colour::Yellow;
    case Verdict::Fail:
      return Colour::Red;
    case Verdict::Skip:
      return Colour::Dim;
  }
  return Colour::None;
}

// The control protocol's checks. Each asks for one thing and reports one line. The link is of its
// own, as it also leaves unacknowledged what it should.
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

  // Sends a request, once and without waiting for its acknowledgement, and gives the answer as
  // `understand` takes it; nothing, with the reason in `why_`, when none comes that it takes.
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
    return {Verdict::Fail, figure + "; there must be 5", std::move(figures)};
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

std::string MsText(double ms) {
  return FormatNumber(ms, 1) + " ms";
}

double ToMs(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

PartSet ParseParts(const std::vector<std::string>& names) {
  PartSet parts;
  if (names.empty()) return parts.set();
  for (const std::string& name : names) {
    bool known = false;
    for (size_t i = 0; i < kPartCount; ++i) {
      if (name != kParts[i].name && name != kParts[i].group) continue;
      parts.set(i);
      known = true;
    }
    if (known) continue;
    std::string all;
    for (const PartInfo& part : kParts)
      all += std::string(part.name) + ", ";
    throw Failure{kUsage, "\"" + name + "\" is no part of a check; there are " + all +
                              "control and audio (UNIT comes first, and not with --all)"};
  }
  return parts;
}

std::string CheckPartsHelp() {
  std::vector<std::vector<std::string>> rows;
  for (const PartInfo& part : kParts)
    rows.push_back({"  " + std::string(part.name), part.group, part.what});
  return "Parts, and the names for several of them:\n" + FormatTable(rows);
}

CheckReport::CheckReport(Session& session, const Unit& unit, const PartSet& parts, unsigned number,
                         CheckRound& round, Output& out)
    : session_(session),
      unit_(unit),
      parts_(parts),
      number_(number),
      round_(round),
      out_(out),
      shared_(IsOwn(unit.control)),
      pulse_(session.Loop()) {}

bool CheckReport::Begin(Part part) {
  part_ = kParts[static_cast<size_t>(part)].name;
  return Wants(part);
}

void CheckReport::Add(const std::string& name, const Finding& finding) {
  session_.CheckStop();
  const auto now = Clock::now();
  round_.lines.push_back(
      {part_, name, finding, std::chrono::duration<double>(now - lineBegan_).count()});
  lineBegan_ = now;
  std::string word = Word(finding.verdict);
  Fields figures;
  for (const Figure& figure : finding.figures) {
    figures.Add(figure.name.c_str(), Fields().Add("value", figure.value).Add("unit", figure.unit));
  }
  out_.Object(Fields()
                  .Add("check", name)
                  .Add("part", part_)
                  .Add("result", word)
                  .Add("figure", finding.figure)
                  .Add("figures", figures)
                  .Add("unit_id", unit_.id)
                  .Add("control", unit_.control.ToText())
                  .Add("round", number_));
  word.resize(16, ' ');
  std::string padded = name;
  padded.resize(std::max<size_t>(padded.size(), 26), ' ');
  out_.Line(out_.Paint(ColourOf(finding.verdict), word) + padded + "  " +
            Printable(finding.figure));
}

void CheckReport::Judge(const std::string& name, Clock::duration tolerated,
                        const std::function<Finding()>& measure) {
  for (int attempt = 1;; ++attempt) {
    pulse_.Clear();
    const Finding finding = measure();
    const bool late = pulse_.Worst() > tolerated;
    const bool again = finding.verdict != Verdict::Pass && (late || shared_);
    if (again && attempt < kAttempts) continue;
    Add(name, finding.verdict == Verdict::Pass || !late ? finding
                                                        : TooUneven(ToMs(pulse_.Worst()), finding));
    return;
  }
}

Finding CheckReport::TooUneven(double lateMs, const Finding& instead) {
  return {Verdict::Skip,
          "this machine is too uneven to judge: it stood still for " + MsText(lateMs) + " (" +
              instead.figure + ")",
          {}};
}

namespace {

// A unit that answers but doesn't acknowledge is one to be checked, not one that isn't there.
Unit FindUnitToCheck(Session& session, const std::string& name) {
  const auto control = ControlOf(name);
  if (!control) return session.FindUnit(name);
  session.Link().Send(*control, "get_dev_info");
  const auto answer = session.Link().Take("dev_info", *control, session.Timeout());
  if (answer) {
    const Unit unit = wire::ToUnit(*answer);
    session.Found({unit});
    return unit;
  }
  throw Failure{kNoAnswer, name +
                               " has not answered \"get_dev_info\": is a unit running there, and "
                               "does a firewall let UDP through?"};
}

// Whether somebody hears the unit, with a line for people where that decides what is done. A unit
// that doesn't say so may be in use.
bool IsInUse(Session& session, const Unit& unit, bool intrusive) {
  std::vector<std::string> inUse;
  try {
    const auto inputs = session.Control(unit).GetInputs();
    for (uint32_t input = 0; input < inputs.size(); ++input) {
      if (inputs[input]) inUse.push_back(InUseText(unit, input, inputs[input]));
    }
  } catch (const wire::Interrupted&) {
    throw;
  } catch (const std::exception&) {
    session.Note("the unit doesn't say whether it is in use: it is taken to be");
    return true;
  }
  if (inUse.empty()) {
    session.Note(InUseLine(InUse::PassOn, inUse));
  } else if (intrusive) {
    session.Note(InUseLine(InUse::PassOn, inUse) + ", but for the noise of the loop-back");
  } else {
    session.Note(InUseLine(InUse::LeaveOut, inUse) +
                 ", and tuners and rate of the unit with them; --intrusive tests all");
  }
  return !inUse.empty();
}

// All that answer the discovery, in the order of their addresses.
std::vector<Unit> FindAllUnits(Session& session) {
  std::vector<Unit> units = session.Find(session.DiscoverAt(), session.Timeout());
  if (units.empty()) {
    throw Failure{kNoAnswer,
                  "no unit answered the discovery; is one running, with \"AddrStr\" set to an "
                  "address of this network? (qz640ctl doctor looks closer)"};
  }
  return units;
}

void CheckAudio(Session& session, CheckedUnit& checked, CheckReport& report, bool careful,
                bool intrusive) {
  const Unit& unit = checked.unit;
  if (!careful) {
    if (!report.Wants(Part::Streams) && !report.Wants(Part::LoopBack)) return;
    checked.heardAt = session.LocalFor(unit).Ip();
    CheckStreams(session, unit, report, intrusive);
    return;
  }
  if (report.Begin(Part::Streams)) {
    for (uint32_t input = 0; input < unit.inputs; ++input)
      report.Add("input " + std::to_string(input) + " stream", Verdict::Skip, kLeftOut);
  }
  if (report.Begin(Part::LoopBack)) report.Add("loop-back", Verdict::Skip, kLeftOut);
}

// One round at one unit. What can't go on is a fault of the unit; others are checked all the same.
void CheckUnit(Session& session, CheckedUnit& checked, const PartSet& parts, bool intrusive,
               Output& out) {
  const auto begin = Clock::now();
  const Unit& unit = checked.unit;
  CheckRound& round = checked.rounds.emplace_back();
  const auto number = static_cast<unsigned>(checked.rounds.size());
  CheckReport report(session, unit, parts, number, round, out);
  PartSet harmless;
  harmless.set(static_cast<size_t>(Part::Discovery)).set(static_cast<size_t>(Part::Connection));
  try {
    const bool careful =
        (parts & ~harmless).any() && IsInUse(session, unit, intrusive) && !intrusive;
    ControlTour(session, unit, report, careful).Run();
    CheckAudio(session, checked, report, careful, intrusive);
  } catch (const wire::Interrupted&) {
    throw;
  } catch (const Failure& failure) {
    report.Add("rest of the part", Verdict::Fail, failure.text);
  } catch (const std::exception& error) {
    report.Add("rest of the part", Verdict::Fail, session.ToFailure(error).text);
  }
  round.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  round.done = true;
  CheckCounts counts;
  counts.Add(round);
  out.Line(counts.ToText());
}

void CheckAll(Session& session, const CheckOptions& options, const PartSet& parts,
              Certificate& certificate, Output& out) {
  const std::vector<Unit> units = options.all
                                      ? FindAllUnits(session)
                                      : std::vector<Unit>{FindUnitToCheck(session, options.unit)};
  for (const Unit& unit : units)
    certificate.units.push_back({unit, "", IsOwn(unit.control), {}});
  for (unsigned number = 1; number <= options.repeat; ++number) {
    for (CheckedUnit& checked : certificate.units) {
      const Unit& unit = checked.unit;
      out.Line("checking " + Printable(unit.id) + " (" + Printable(unit.type) + ") at " +
               unit.control.ToText() +
               (options.repeat > 1
                    ? ", round " + std::to_string(number) + " of " + std::to_string(options.repeat)
                    : ""));
      CheckUnit(session, checked, parts, options.intrusive, out);
    }
  }
}

// As a shell takes it.
std::string Quoted(const std::string& word) {
  const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
    return c >= 0x80 || std::isalnum(c) ||
           std::string_view("-._:/=").find(static_cast<char>(c)) != std::string_view::npos;
  });
  if (plain) return word;
  std::string text = "'";
  for (const char c : word)
    text += c == '\'' ? "'\\''" : std::string(1, c);
  return text + "'";
}

std::string CommandText(const Session& session, const CheckOptions& options) {
  std::string text = "qz640ctl check";
  if (options.all) text += " --all";
  if (!options.all) text += " " + Quoted(options.unit);
  for (const std::string& part : options.parts)
    text += " " + Quoted(part);
  if (options.repeat > 1) text += " --repeat " + std::to_string(options.repeat);
  if (options.intrusive) text += " --intrusive";
  for (const std::string& to : session.Common().to)
    text += " --to " + Quoted(to);
  return text;
}

// Where a report goes. It is tried before the tour, which takes minutes; what the file held stays
// until the report takes its place.
class ReportFile {
 public:
  explicit ReportFile(std::string path) : path_(std::move(path)) { Write("", std::ios::app); }

  void Write(const std::string& text, std::ios::openmode mode = std::ios::trunc) const {
    if (path_.empty()) return;
    errno = 0;
    std::ofstream file(std::filesystem::path(path_), std::ios::binary | std::ios::out | mode);
    if (file << text && file.flush()) return;
    throw Failure{kRefused, "can't write the report \"" + path_ + "\": " +
                                (errno == 0 ? "the disk may be full"
                                            : std::generic_category().message(errno)) +
                                "; name a file in a folder that is yours"};
  }

 private:
  const std::string path_;
};

// What several rounds and several units come to.
void PrintSummary(const Certificate& certificate, Output& out) {
  std::vector<std::vector<std::string>> spreads{
      {"UNIT", "CHECK", "FIGURE", "LEAST", "MEDIAN", "MOST", ""}};
  std::vector<std::vector<std::string>> units{
      {"UNIT", "CONTROL", "RESULT", "PASSED", "WARNED", "FAILED", "NOT TESTED"}};
  for (const CheckedUnit& checked : certificate.units) {
    const Unit& unit = checked.unit;
    for (const Spread& spread : SpreadsOf(checked)) {
      out.Object(Fields()
                     .Add("spread", spread.name)
                     .Add("check", spread.check)
                     .Add("unit_id", unit.id)
                     .Add("control", unit.control.ToText())
                     .Add("count", spread.count)
                     .Add("least", spread.least)
                     .Add("median", spread.median)
                     .Add("most", spread.most)
                     .Add("unit", spread.unit));
      if (spread.least == spread.most) continue;  // nothing for people to look at
      spreads.push_back({PrintableCell(unit.id), spread.check, spread.name,
                         FormatNumber(spread.least, 2), FormatNumber(spread.median, 2),
                         FormatNumber(spread.most, 2), spread.unit});
    }
    CheckCounts counts;
    Verdict worst = Verdict::Skip;
    for (const CheckRound& round : checked.rounds) {
      counts.Add(round);
      worst = std::max(worst, round.Worst());
    }
    const auto count = [&](Verdict verdict) { return std::to_string(counts.Of(verdict)); };
    units.push_back({PrintableCell(unit.id), unit.control.ToText(),
                     out.Paint(ColourOf(worst), Word(worst)), count(Verdict::Pass),
                     count(Verdict::Warn), count(Verdict::Fail), count(Verdict::Skip)});
  }
  if (spreads.size() > 1) out.Line("\n" + FormatTable(spreads));
  if (units.size() > 2 || certificate.rounds > 1) out.Line("\n" + FormatTable(units));
  const CheckCounts all = certificate.Counts();
  out.Object(Fields()
                 .Add("summary", Word(certificate.Worst()))
                 .Add("units", certificate.units.size())
                 .Add("rounds", certificate.rounds)
                 .Add("checks", all.All())
                 .Add("pass", all.Of(Verdict::Pass))
                 .Add("warn", all.Of(Verdict::Warn))
                 .Add("fail", all.Of(Verdict::Fail))
                 .Add("could-not-test", all.Of(Verdict::Skip))
                 .Add("seconds", certificate.seconds));
}

}  // namespace

int RunCheck(Session& session, const CheckOptions& given, Output& out) {
  CheckOptions options = given;
  if (options.all && !options.unit.empty()) {  // then that word is a part's name
    options.parts.insert(options.parts.begin(), std::exchange(options.unit, ""));
  }
  if (!options.all && options.unit.empty()) {
    throw Failure{kUsage, "which unit? name one, or --all for every unit that answers"};
  }
  const PartSet parts = ParseParts(options.parts);
  const ReportFile junit(options.junit);
  const ReportFile page(options.html);
  Certificate certificate;
  certificate.begun = NowText();
  certificate.command = CommandText(session, options);
  certificate.rounds = options.repeat;
  const auto begin = Clock::now();
  const auto write = [&](const std::string& ended) {
    certificate.ended = ended;
    certificate.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    junit.Write(ToJUnit(certificate));
    page.Write(ToPage(certificate));
  };
  try {
    CheckAll(session, options, parts, certificate, out);
  } catch (const Failure& failure) {
    write(failure.text);
    throw;
  } catch (const std::exception& error) {
    write(session.ToFailure(error).text);
    throw;
  }
  write("");
  PrintSummary(certificate, out);
  return certificate.Worst() == Verdict::Fail ? kRefused : kDone;
}

}  // namespace ctl
