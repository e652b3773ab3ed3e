// The command "web": a page that shows units in a browser. Units are looked at only as long as a
// page is open: the last page that is closed gives back what was borrowed.
#include <algorithm>
#include <cmath>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "Commands.h"
#include "Listeners.h"
#include "Loan.h"
#include "PageServer.h"
#include "WebPage.h"
#include "platform/clock.h"
#include "platform/startup.h"
#include "wire/StreamStats.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::Clock;
using wire::Destination;
using wire::Json;
using wire::StreamPacket;
using wire::Unit;

namespace {

constexpr auto kFrame = milliseconds(200);
constexpr auto kAsk = milliseconds(100);          // from one unit to the next, one after the other
constexpr auto kAnswerLimit = milliseconds(500);  // of a look in passing
constexpr auto kDiscoverPause = milliseconds(3000);
constexpr auto kDiscoverRound = milliseconds(150);
constexpr size_t kMessages = 60;

// An answer to a discovery may say anything.
constexpr size_t kMostUnits = 250;
constexpr uint32_t kMostInputs = 16;  // of a unit, likewise its outputs

// A number to no more places than the page shows.
double Rounded(double value, double step) {
  return std::round(value / step) * step;
}

// "12:04:05.250", local time.
std::string TimeOfDay() {
  const platform::LocalTime now = platform::GetClock().Local();
  const auto digits = [](int number, size_t count) {
    const std::string text = std::to_string(number);
    return std::string(count - std::min(count, text.size()), '0') + text;
  };
  return digits(now.hour, 2) + ":" + digits(now.minute, 2) + ":" + digits(now.second, 2) + "." +
         digits(now.millisecond, 3);
}

// One input, heard or not.
struct Input {
  std::optional<size_t> listener;        // its number; nothing: in use and left alone
  Destination home;                      // where it goes when nobody looks
  std::optional<Destination> elsewhere;  // where another controller has sent it meanwhile
  wire::StreamStats stats;
  double rate = 0;    // packets a second
  uint32_t freq = 0;  // Hz; 0: nothing has come yet
};

struct Shown {
  Unit unit;
  std::vector<Input> inputs;  // by number
  std::vector<int32_t> fmFreq;
  wire::FmQuality quality;
  bool gone = false;
  std::string trouble;              // what went wrong last; empty: nothing
  std::unique_ptr<InputLoan> loan;  // ends before the listeners
};

// The newest control messages, as the loop's trace has them.
class Messages {
 public:
  void Add(const std::string& line) {
    const size_t peer = line.find(' ') + 1;
    const size_t text = line.find(' ', peer) + 1;
    // Every message has its acknowledgement, which would push out half of what is worth reading.
    if (line.find("\"msg\":\"ack\"", text) != std::string::npos) return;
    all_.push_back(Json{{"number", ++number_},
                        {"time", TimeOfDay()},
                        {"way", line.substr(0, peer - 1)},
                        {"peer", line.substr(peer, text - peer - 1)},
                        {"text", line.substr(text, 600)},
                        {"fault", line.find("\"msg\":\"error\"", text) != std::string::npos ||
                                      line.compare(text, 14, "not understood") == 0}});
    if (all_.size() > kMessages) all_.pop_front();
  }

  Json All() const { return all_; }

 private:
  std::deque<Json> all_;
  uint64_t number_ = 0;
};

// From the first page that is opened to the last that is closed.
class Looking {
 public:
  Looking(Session& session, const WebOptions& options, const Messages& messages)
      : session_(session), options_(options), messages_(messages) {}

  // Does what is due, for up to half a second at a unit that doesn't answer.
  void Turn();

  // What the page shows, and so empties what counts since the latest frame.
  std::string Frame();

  // Gives back what is borrowed. A unit that doesn't take it is noted; the next command heals it.
  void End();

 private:
  void Discover();
  bool IsShown(const wire::Endpoint& control) const;
  void Open(const Unit& unit);
  void Borrow(Shown& shown);
  void TakePackets();
  void Ask(Shown& shown);
  Json ToJson(Shown& shown);

  Session& session_;
  const WebOptions& options_;
  const Messages& messages_;
  Listeners listeners_;
  std::map<size_t, Input*> byListener_;
  std::deque<Shown> units_;  // elements stay where they are
  Clock::time_point nextDiscovery_{};
  Clock::time_point nextAsk_{};
  Clock::time_point nextRate_{};
  size_t asked_ = 0;  // units, in turn
};

void Looking::Turn() {
  TakePackets();
  if (Clock::now() >= nextDiscovery_) {
    Discover();
    nextDiscovery_ = Clock::now() + kDiscoverPause;
  }
  if (units_.empty() || Clock::now() < nextAsk_) return;
  Ask(units_[asked_++ % units_.size()]);
  nextAsk_ = Clock::now() + kAsk;
}

// A unit that is named by its address may stand where no discovery leads.
void Looking::Discover() {
  const auto named = [&](const Unit& unit) {
    return options_.units.empty() ||
           std::any_of(options_.units.begin(), options_.units.end(), [&](const std::string& name) {
             return name == unit.id || ControlOf(name) == unit.control;
           });
  };
  for (const Unit& unit : session_.Find(session_.DiscoverAt(), kDiscoverRound, kDiscoverRound)) {
    if (named(unit)) Open(unit);
  }
  for (const std::string& name : options_.units) {
    const auto control = ControlOf(name);
    if (!control || IsShown(*control)) continue;
    try {
      Open(wire::UnitControl(session_.Link(), *control, kAnswerLimit).GetDevInfo());
    } catch (const std::runtime_error&) {
      // Not there yet.
    }
  }
}

bool Looking::IsShown(const wire::Endpoint& control) const {
  return std::any_of(units_.begin(), units_.end(),
                     [&](const Shown& shown) { return shown.unit.control == control; });
}

void Looking::Open(const Unit& unit) {
  if (units_.size() >= kMostUnits || IsShown(unit.control)) return;
  Shown& shown = units_.emplace_back();
  shown.unit = unit;
  shown.inputs.resize(std::min(unit.inputs, kMostInputs));
  try {
    Borrow(shown);
  } catch (const std::exception& error) {
    shown.trouble = session_.ToFailure(error).text;
  } catch (const Failure& failure) {
    shown.trouble = failure.text;
  }
}

void Looking::Borrow(Shown& shown) {
  const InUse inUse = session_.Common().inUse;
  const std::vector<Destination> now = session_.Control(shown.unit).GetInputs();
  std::vector<InputLoan::Input> wanted;
  for (uint32_t i = 0; i < shown.inputs.size(); ++i) {
    Input& input = shown.inputs[i];
    if (i < now.size()) input.home = now[i];
    if (inUse == InUse::LeaveOut && input.home) continue;
    const size_t number = listeners_.Open(session_.LocalFor(shown.unit));
    input.listener = number;
    byListener_[number] = &input;
    wanted.push_back({i, listeners_.Local(number), nullptr});
    if (inUse == InUse::Take) continue;
    wanted.back().passOn = [this, number](const Destination& to) { listeners_.PassOn(number, to); };
  }
  if (wanted.empty()) return;
  shown.loan = std::make_unique<InputLoan>(session_, shown.unit, wanted);
  for (size_t i = 0; i < wanted.size(); ++i)
    shown.inputs[wanted[i].number].home = shown.loan->Former(i);
}

void Looking::TakePackets() {
  std::vector<std::deque<StreamPacket>> packets = listeners_.Take();
  for (size_t number = 0; number < packets.size(); ++number) {
    const auto found = byListener_.find(number);
    if (found == byListener_.end()) continue;
    Input& input = *found->second;
    for (const StreamPacket& packet : packets[number]) {
      if (!input.stats.Add(packet)) continue;
      input.freq = wire::SampleFreqOf(packet.Header().payloadType);
    }
  }
}

void Looking::Ask(Shown& shown) {
  wire::UnitControl control(session_.Link(), shown.unit.control, kAnswerLimit);
  try {
    const std::vector<Destination> now = control.GetInputs();
    if (!shown.loan && shown.gone) Borrow(shown);
    for (uint32_t i = 0; i < shown.inputs.size() && i < now.size(); ++i) {
      Input& input = shown.inputs[i];
      if (!input.listener) {
        input.home = now[i];
        continue;
      }
      input.elsewhere.reset();
      if (now[i] != listeners_.Local(*input.listener)) input.elsewhere.emplace(now[i]);
    }
    if (shown.loan) shown.loan->Refresh();
    if (wire::FindModel(shown.unit.type).tuners > 0) {
      shown.fmFreq = control.GetFmFreq();
      shown.quality = control.GetFmQuality();
    }
    shown.gone = false;
    shown.trouble.clear();
  } catch (const wire::NoAnswer& error) {
    shown.gone = error.missing == wire::NoAnswer::Missing::Acknowledgement;
    shown.trouble = shown.gone ? "doesn't answer" : error.what();
  } catch (const std::runtime_error& error) {
    shown.trouble = error.what();
  }
}

Json Looking::ToJson(Shown& shown) {
  const bool countRate = Clock::now() >= nextRate_;
  Json inputs = Json::array();
  for (size_t i = 0; i < shown.inputs.size(); ++i) {
    Input& input = shown.inputs[i];
    if (countRate) input.rate = input.stats.TakeRate();
    inputs.push_back({{"input", i},
                      {"to", ToText(input.home)},
                      {"elsewhere", input.elsewhere ? ToText(*input.elsewhere) : ""},
                      {"heard", input.listener.has_value()},
                      {"freq", input.freq},
                      {"left", Rounded(ToDecibel(input.stats.TakePeak(0)), 0.01)},
                      {"right", Rounded(ToDecibel(input.stats.TakePeak(1)), 0.01)},
                      {"rate", Rounded(input.rate, 0.1)},
                      {"jitter", Rounded(input.stats.JitterMs(), 0.001)},
                      {"lost", input.stats.Lost()},
                      {"late", input.stats.Timing().Late()},
                      {"doubled", input.stats.duplicates},
                      {"clipped", input.stats.clipped[0] + input.stats.clipped[1]},
                      {"drift", Rounded(input.stats.Timing().DriftPpm().value_or(0), 0.1)},
                      {"pattern", input.stats.HasPattern() && input.rate > 0}});
  }
  Json outputs = Json::array();
  for (uint32_t i = 0; i < std::min(shown.unit.outputs, kMostInputs); ++i)
    outputs.push_back(shown.unit.Output(i).port);
  return {{"control", shown.unit.control.ToText()},
          {"id", shown.unit.id},
          {"type", shown.unit.type},
          {"gone", shown.gone},
          {"trouble", shown.trouble},
          {"tuners", shown.fmFreq},
          {"rssi", shown.quality.rssi},
          {"snr", shown.quality.snr},
          {"inputs", inputs},
          {"outputs", outputs}};
}

std::string Looking::Frame() {
  Json units = Json::array();
  for (Shown& shown : units_)
    units.push_back(ToJson(shown));
  if (Clock::now() >= nextRate_) nextRate_ = Clock::now() + milliseconds(1000);
  const Json frame{{"units", units},
                   {"messages", messages_.All()},
                   {"note",
                    "No unit has answered yet. Is one running, with \"AddrStr\" set to an address "
                    "of this network? \"qz640ctl doctor\" looks closer."}};
  return frame.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void Looking::End() {
  for (Shown& shown : units_) {
    if (!shown.loan) continue;
    try {
      shown.loan->Return();
    } catch (const std::exception& error) {
      session_.Note(session_.ToFailure(error).text);
    }
  }
}

}  // namespace

int RunWeb(Session& session, const WebOptions& options, Output& out) {
  const wire::Endpoint local = ParseEndpoint(options.at, options.port);
  PageServer server(local, WebPage());
  const std::string url = "http://" + server.Local().ToText() + "/";
  out.Object(Fields().Add("url", url));
  out.Line("the page stands at " + url +
           (options.untilEof ? " until standard input ends" : " until Ctrl-C"));
  if (options.untilEof) platform::StopAtEndOfInput();
  if (local.address >> 24 != 127) {
    session.Note("anyone who reaches " + local.Ip() + " can see the units there");
  }

  Messages messages;
  std::function<void(const std::string&)> before;  // with --verbose
  before = session.Loop().SetTrace([&](const std::string& line) {
    messages.Add(line);
    if (before) before(line);
  });
  const wire::Loop::Shield shield(session.Loop());  // Ctrl-C is the ordinary end
  std::optional<Looking> looking;
  auto nextFrame = Clock::now();
  while (!platform::WaitForStop(looking ? 0 : 50)) {
    if (server.Viewers() == 0) {
      if (looking) looking->End();
      looking.reset();
      continue;
    }
    if (!looking) looking.emplace(session, options, messages);
    session.Loop().RunFor(milliseconds(20));
    looking->Turn();
    if (Clock::now() < nextFrame) continue;
    server.Publish(looking->Frame());
    nextFrame = Clock::now() + kFrame;
  }
  if (looking) looking->End();
  session.Loop().SetTrace(before);
  return kDone;
}

}  // namespace ctl
