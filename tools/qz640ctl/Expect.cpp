// The command "expect": waits until what is said of a unit holds.
#include <charconv>
#include <cmath>
#include <map>
#include <memory>
#include <numbers>

#include "Commands.h"
#include "Listeners.h"
#include "Loan.h"
#include "wire/Fault.h"

namespace ctl {

using wire::Clock;
using Packets = std::deque<wire::StreamPacket>;

namespace {

constexpr auto kRound = std::chrono::milliseconds(100);
constexpr size_t kHeard = 50;                              // packets that are judged, some 200 ms
constexpr auto kHearing = std::chrono::milliseconds(500);  // by then so many have come
constexpr double kSilenceDb = -80;                         // real units have noise
constexpr double kShareOfTone = 0.9;                       // of the power of what is heard
constexpr double kLevelTolerance = 1;                      // dB, where none is said

struct Condition {
  enum class Kind { Found, Gone, Freq, Tuner, Destination, Silent, Pattern, Tone };
  Kind kind = Kind::Found;
  uint32_t number = 0;  // input or tuner
  int64_t value = 0;    // Hz, or the tuner's frequency
  wire::Destination to;

  bool Hears() const { return kind >= Kind::Silent || kind == Kind::Freq; }
};
using Kind = Condition::Kind;

[[noreturn]] void ThrowUsage(const std::string& what) {
  throw Failure{kUsage, what +
                            "; a condition reads found, gone, freq HZ, tuner N=FREQUENCY, "
                            "destination N=ADDRESS:PORT or N=off, input N silent, input N pattern, "
                            "input N --tone HZ"};
}

int64_t ToNumber(const std::string& text) {
  int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end) ThrowUsage("\"" + text + "\" is no number");
  return number;
}

std::vector<Condition> ParseConditions(const ExpectOptions& options) {
  std::vector<Condition> all;
  bool toneUsed = false;
  const auto& words = options.words;
  for (size_t i = 0; i < words.size();) {
    const std::string& word = words[i++];
    Condition condition;
    if (word == "found" || word == "gone") {
      condition.kind = word == "found" ? Kind::Found : Kind::Gone;
      all.push_back(condition);
      continue;
    }
    if (i == words.size()) ThrowUsage("\"" + word + "\" isn't understood, or lacks its value");
    const std::string& value = words[i++];
    const size_t equals = value.find('=');
    if (word == "freq") {
      condition.kind = Kind::Freq;
      condition.value = ToNumber(value);
      if (condition.value < 0 || condition.value > UINT32_MAX ||
          wire::PayloadTypeOf(static_cast<uint32_t>(condition.value)) == 0)
        ThrowUsage("no unit runs at " + value + " Hz, but at 48000 or 44100");
    } else if ((word == "tuner" || word == "destination") && equals != std::string::npos) {
      condition.kind = word == "tuner" ? Kind::Tuner : Kind::Destination;
      condition.number = static_cast<uint32_t>(ToNumber(value.substr(0, equals)));
      const std::string wanted = value.substr(equals + 1);
      if (condition.kind == Kind::Tuner) condition.value = ToNumber(wanted);
      if (condition.kind == Kind::Destination && wanted != "off") {
        condition.to = ParseEndpoint(wanted, 0);
        if (condition.to->port == 0) ThrowUsage("\"" + wanted + "\" has no port");
      }
    } else if (word == "input") {
      condition.number = static_cast<uint32_t>(ToNumber(value));
      const std::string state = i < words.size() ? words[i] : "";
      const bool named = state == "silent" || state == "pattern";
      if (!named && !options.toneHz) ThrowUsage("of input " + value + " nothing is expected");
      condition.kind = state == "silent"    ? Kind::Silent
                       : state == "pattern" ? Kind::Pattern
                                            : Kind::Tone;
      toneUsed = toneUsed || !named;
      if (named) ++i;
    } else {
      ThrowUsage("\"" + word + " " + value + "\" isn't understood");
    }
    all.push_back(condition);
  }
  if (options.toneHz && !toneUsed) ThrowUsage("--tone goes with an input");
  return all;
}

struct Level {
  double db = 0;
  double tolerance = kLevelTolerance;
};

// "-6", "-6±0.5" or "-6+-0.5".
Level ParseLevel(std::string text) {
  Level level;
  for (const std::string sign : {"\xC2\xB1", "+-"}) {
    const size_t at = text.find(sign);
    if (at == std::string::npos) continue;
    const std::string tolerance = text.substr(at + sign.size());
    const char* end = tolerance.data() + tolerance.size();
    const auto parsed = std::from_chars(tolerance.data(), end, level.tolerance);
    if (parsed.ec != std::errc() || parsed.ptr != end) text.clear();
    text = text.substr(0, at);
  }
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, level.db);
  if (parsed.ec == std::errc() && parsed.ptr == end && std::isfinite(level.db)) return level;
  throw Failure{kUsage,
                "--level must read like -6 or -6\xC2\xB1"
                "0.5, in dB of full scale"};
}

Clock::duration ParseWithin(const std::string& text) {
  try {
    if (const auto within = wire::ParseTime(text)) return *within;
  } catch (const wire::BadFault&) {
    // Understood, but longer than anybody waits.
  }
  throw Failure{kUsage, "--within must read like 300ms, 1.5s or 2min, and be a year at most"};
}

// What a channel holds of a sine.
struct Tone {
  double db = -144;
  double share = 0;  // of the power
};

Tone Measure(const std::vector<double>& samples, double hertz, double freq) {
  double real = 0;
  double imaginary = 0;
  double power = 0;
  const double step = 2 * std::numbers::pi * hertz / freq;
  for (size_t n = 0; n < samples.size(); ++n) {
    const double phase = step * static_cast<double>(n);
    real += samples[n] * std::cos(phase);
    imaginary += samples[n] * std::sin(phase);
    power += samples[n] * samples[n];
  }
  const auto count = static_cast<double>(samples.size());
  const double peak = 2 * std::hypot(real, imaginary) / count;
  return {ToDecibel(peak), power > 0 ? peak * peak / 2 * count / power : 0};
}

class Expecting {
 public:
  Expecting(Session& session, const ExpectOptions& options, Output& out)
      : session_(session), options_(options), out_(out) {}

  int Run();

 private:
  bool Holds(const Condition& condition);
  bool IsThere();
  void Borrow();
  void Hear();
  bool HasHeard(Clock::time_point looked) const;
  bool HoldsHeard(const Condition& condition, const Packets& packets);

  Session& session_;
  const ExpectOptions& options_;
  Output& out_;
  std::vector<Condition> conditions_;
  Level level_;
  std::optional<wire::Unit> unit_;
  Listeners listeners_;
  std::vector<uint32_t> inputs_;  // those that are heard; their places are the listeners' numbers
  std::vector<Packets> heard_;
  std::unique_ptr<InputLoan> loan_;  // given back before the listeners go
  Clock::time_point borrowed_;       // when that was done
  std::string seen_;                 // of the condition asked last
};

int Expecting::Run() {
  conditions_ = ParseConditions(options_);
  if (!options_.level.empty()) level_ = ParseLevel(options_.level);
  const Clock::duration within = ParseWithin(options_.within);
  const auto start = Clock::now();
  bool holds = false;
  std::string said;
  Clock::time_point looked;
  do {
    looked = Clock::now();
    holds = true;
    said.clear();
    Hear();
    for (const Condition& condition : conditions_) {
      try {
        holds = Holds(condition) && holds;
      } catch (const wire::NoAnswer& error) {
        seen_ = error.what();
        holds = false;
      } catch (const Failure& failure) {
        if (failure.status != kNoAnswer) throw;
        seen_ = failure.text;
        holds = false;
      }
      said += (said.empty() ? "" : "; ") + seen_;
    }
    if (!holds) session_.Loop().RunFor(kRound);
  } while (!holds && (Clock::now() - start < within || !HasHeard(looked)));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (loan_) loan_->Return();
  out_.Object(Fields().Add("holds", holds).Add("seen", said).Add("seconds", seconds));
  out_.Line(said + (holds ? " after " : " still after ") + FormatNumber(seconds, 1) + " s");
  return holds ? kDone : kRefused;
}

// Of an id: among those that answer the discovery.
bool Expecting::IsThere() {
  seen_ = options_.unit + " is gone";
  if (const auto control = ControlOf(options_.unit)) {
    try {
      wire::UnitControl(session_.Link(), *control, session_.Timeout()).GetDevInfo();
    } catch (const wire::NoAnswer&) {
      return false;
    }
  } else {
    const auto all = session_.Find(session_.DiscoverAt(), std::chrono::milliseconds(300));
    const auto named = [&](const wire::Unit& unit) { return unit.id == options_.unit; };
    if (std::none_of(all.begin(), all.end(), named)) return false;
  }
  seen_ = options_.unit + " is there";
  return true;
}

bool Expecting::Holds(const Condition& condition) {
  if (condition.kind == Kind::Found) return IsThere();
  if (condition.kind == Kind::Gone) return !IsThere();
  if (!unit_) unit_ = session_.FindUnit(options_.unit);
  const std::string number = std::to_string(condition.number);
  if (condition.kind == Kind::Tuner) {
    const auto freqs = session_.Control(*unit_).GetFmFreq();
    if (condition.number >= freqs.size()) throw Failure{kUsage, "there is no tuner " + number};
    seen_ = "tuner " + number + " is at " + std::to_string(freqs[condition.number]);
    return freqs[condition.number] == condition.value;
  }
  if (condition.kind != Kind::Freq) CheckInput(*unit_, condition.number);
  if (condition.kind == Kind::Destination) {
    wire::Destination now = session_.Control(*unit_).GetInputs()[condition.number];
    // One that is heard here goes on to where it went before.
    for (size_t i = 0; loan_ && i < inputs_.size(); ++i) {
      if (inputs_[i] == condition.number && now == listeners_.Local(i)) now = loan_->Former(i);
    }
    seen_ = "input " + number + " goes to " + ToText(now);
    return now == condition.to;
  }
  if (!loan_) Borrow();
  for (size_t i = 0; i < inputs_.size(); ++i) {
    if (inputs_[i] == condition.number) return HoldsHeard(condition, heard_[i]);
  }
  return false;
}

// All inputs that are judged, at once. Each keeps going to where it went.
void Expecting::Borrow() {
  std::vector<InputLoan::Input> wanted;
  for (const Condition& condition : conditions_) {
    const bool known = std::find(inputs_.begin(), inputs_.end(), condition.number) != inputs_.end();
    if (!condition.Hears() || known) continue;
    CheckInput(*unit_, condition.number);
    const size_t place = listeners_.Open(session_.LocalFor(*unit_));
    inputs_.push_back(condition.number);
    wanted.push_back(
        {condition.number, listeners_.Local(place),
         [this, place](const wire::Destination& to) { listeners_.PassOn(place, to); }});
  }
  heard_.resize(inputs_.size());
  loan_ = std::make_unique<InputLoan>(session_, *unit_, wanted);
  borrowed_ = Clock::now();
}

void Expecting::Hear() {
  if (!loan_) return;
  loan_->Refresh();
  std::vector<Packets> all = listeners_.Take();
  for (size_t i = 0; i < heard_.size(); ++i) {
    if (all[i].empty()) heard_[i].clear();  // what was heard before says nothing of now
    for (wire::StreamPacket& packet : all[i]) {
      if (packet.FrameCount() > 0) heard_[i].push_back(std::move(packet));
    }
    while (heard_[i].size() > kHeard)
      heard_[i].pop_front();
  }
}

// Whether the inputs had been heard for long enough at that time: a window that isn't full says
// nothing of them, however short --within is, and finding the unit may take longer than that.
bool Expecting::HasHeard(Clock::time_point looked) const {
  if (!loan_ || looked - borrowed_ > kHearing) return true;
  return std::all_of(heard_.begin(), heard_.end(),
                     [](const Packets& packets) { return packets.size() == kHeard; });
}

bool Expecting::HoldsHeard(const Condition& condition, const Packets& packets) {
  const std::string input = "input " + std::to_string(condition.number);
  seen_ = input + ": no audio yet";
  if (packets.empty()) return false;
  const uint32_t freq = wire::SampleFreqOf(packets.back().Header().payloadType);
  if (condition.kind == Kind::Freq) {
    seen_ = "the sample frequency is " + std::to_string(freq);
    return freq == condition.value;
  }
  if (packets.size() < kHeard) return false;
  std::vector<double> channels[2];
  bool pattern = true;
  double peak = 0;
  for (const wire::StreamPacket& packet : packets) {
    const wire::Frames frames = packet.Audio();
    pattern = pattern && wire::MarkOf(frames);
    for (const wire::Frame& frame : frames) {
      channels[0].push_back(static_cast<double>(frame.left) / wire::kFullScale);
      channels[1].push_back(static_cast<double>(frame.right) / wire::kFullScale);
      peak = std::max({peak, std::fabs(channels[0].back()), std::fabs(channels[1].back())});
    }
  }
  seen_ =
      input + ": " + (pattern ? "the pattern" : "peak " + FormatNumber(ToDecibel(peak), 2) + " dB");
  if (condition.kind == Kind::Silent) return ToDecibel(peak) < kSilenceDb;
  if (condition.kind == Kind::Pattern) return pattern;
  Tone tone;
  for (const auto& channel : channels) {
    const Tone one = Measure(channel, *options_.toneHz, freq);
    if (one.db > tone.db) tone = one;
  }
  seen_ += ", " + FormatNumber(*options_.toneHz, 1) + " Hz at " + FormatNumber(tone.db, 2) +
           " dB (" + FormatNumber(100 * tone.share, 0) + "% of the power)";
  const bool loud = options_.level.empty() || std::fabs(tone.db - level_.db) <= level_.tolerance;
  return loud && tone.share >= kShareOfTone;
}

}  // namespace

int RunExpect(Session& session, const ExpectOptions& options, Output& out) {
  return Expecting(session, options, out).Run();
}

}  // namespace ctl
