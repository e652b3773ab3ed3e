// The command "soak": units under everything that a network can send, for a given time. Measures
// while it runs, prints a table at the end, and judges it.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>

#include "Commands.h"
#include "Loan.h"
#include "Printable.h"
#include "SoakTraffic.h"
#include "platform/usage.h"
#include "wire/Streams.h"

namespace ctl {

using wire::Clock;
using wire::Endpoint;
using wire::Unit;

namespace {

constexpr auto kLook = std::chrono::milliseconds(200);
constexpr auto kQuiet = std::chrono::seconds(1);  // before the flood
constexpr auto kRest = std::chrono::seconds(4);   // at each mark

constexpr double kMarks[] = {0.25, 0.5, 1};  // of the run: when the flood rests
constexpr size_t kMarkCount = std::size(kMarks);

// What has to hold. There is room for a machine that has other things to do: the floods alone take
// more of its processors than they leave.
constexpr double kMiB = 1 << 20;
constexpr double kMemoryGrowth = 1.05;
constexpr double kMemoryNoise = kMiB;  // of a few: pages that are half in use
constexpr double kPeak = 256 * kMiB;
constexpr double kMissedTicks = 0.10;  // of all
constexpr double kHealMs = 3000;

double Seconds(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

// Takes an input's stream and counts the unit's ticks: one packet each, numbered one by one. What
// outputs are flooded with doesn't hasten or hold up a unit's clock, so these ticks are judged too.
class Ticks {
 public:
  explicit Ticks(Session& session, const Unit& unit)
      : rate_(0), port_(session.Loop(), session.LocalFor(unit), [this](const wire::Datagram& each) {
          OnDatagram(each);
        }) {}

  const Endpoint& Local() const { return port_.Local(); }

  uint64_t Received() const { return received_; }
  uint64_t Due() const { return received_ + Lost() + static_cast<uint64_t>(Missed()); }
  double LongestPauseMs() const { return Seconds(longestPause_) * 1e3; }

  // That the clock has had and the unit hasn't.
  double Missed() const {
    return std::max(0.0, Seconds(last_ - first_) * rate_ - static_cast<double>(ticks_));
  }

  // On their way here.
  uint64_t Lost() const {
    return received_ == 0 ? 0 : ticks_ + 1 - std::min(received_, ticks_ + 1);
  }

 private:
  void OnDatagram(const wire::Datagram& datagram) {
    const wire::StreamPacket packet{datagram.bytes, datagram.from, datagram.time};
    if (packet.FrameCount() == 0) return;
    const uint16_t number = packet.Header().sequence;
    if (received_ == 0) {
      first_ = datagram.time;
      rate_ = wire::SampleFreqOf(packet.Header().payloadType) / double{wire::kPacketFrames};
    } else {
      // Through the wrap of the 16 bits. One that was overtaken is no step of 65,000.
      const auto step = static_cast<int16_t>(static_cast<uint16_t>(number - lastNumber_));
      if (step <= 0) return;
      ticks_ += static_cast<uint64_t>(step);
      longestPause_ = std::max(longestPause_, datagram.time - last_);
    }
    ++received_;
    lastNumber_ = number;
    last_ = datagram.time;
  }

  double rate_;  // ticks a second
  uint64_t received_ = 0;
  uint64_t ticks_ = 0;  // by the packets' numbers, from the first packet on
  uint16_t lastNumber_ = 0;
  Clock::time_point first_{};
  Clock::time_point last_{};
  Clock::duration longestPause_{};
  wire::UdpPort port_;
};

class Soak {
 public:
  Soak(Session& session, const SoakOptions& options, Output& out)
      : session_(session), options_(options), out_(out) {}

  int Run();

 private:
  void FindUnits();
  void LeaveAloneThoseInUse();
  void TakeInputs();
  void RunFloods();
  void MeasureQuiet();
  platform::Usage LookAtProgram();
  void Report();
  void Judge();

  // A row of the table, and an object of the same values.
  void Row(const char* name, const char* key, const std::vector<double>& values, int decimals);
  void Row(const char* name, const char* key, uint64_t value) {
    Row(name, key, {static_cast<double>(value)}, 0);
  }
  void Broken(const std::string& sentence) { broken_.push_back(sentence); }

  Session& session_;
  const SoakOptions& options_;
  Output& out_;

  std::vector<Unit> units_;
  std::vector<std::unique_ptr<Ticks>> ticks_;  // by the first input of each unit that has one
  std::unique_ptr<wire::UdpPort> sink_;        // for all other inputs
  std::string notJudged_;                      // the units without, whose audio nobody can judge
  std::vector<std::unique_ptr<InputLoan>> loans_;
  std::unique_ptr<Exchanges> exchanges_;
  std::unique_ptr<Flood> control_;
  std::unique_ptr<Flood> rtp_;

  platform::Usage usage_;               // the latest
  uint64_t peak_ = 0;                   // of the memory
  std::vector<platform::Usage> quiet_;  // at each of kMarks
  double healMs_ = 0;
  std::vector<std::string> broken_;
};

int Soak::Run() {
  FindUnits();
  LeaveAloneThoseInUse();
  out_.Line("soaking " + std::to_string(units_.size()) + " unit(s) for " +
            FormatNumber(options_.seconds, 0) + " s; --seed " + std::to_string(options_.seed) +
            " sends the same again");
  TakeInputs();
  exchanges_ = std::make_unique<Exchanges>(session_.Loop(), units_);
  session_.Loop().RunFor(kQuiet);  // every stream has begun
  RunFloods();
  for (const auto& loan : loans_)
    loan->Return();
  Report();
  Judge();
  for (const std::string& sentence : broken_) {
    out_.Object(Fields().Add("broken", sentence));
    out_.Line("FAILED: " + sentence);
  }
  out_.Object(Fields()
                  .Add("result", broken_.empty() ? "pass" : "fail")
                  .Add("audio_not_judged", notJudged_));
  if (!notJudged_.empty()) {
    out_.Line("not judged: the audio of " + notJudged_ + ", for want of inputs to hear");
  }
  if (broken_.empty()) out_.Line("PASS: all that was judged held");
  return broken_.empty() ? kDone : kRefused;
}

void Soak::FindUnits() {
  for (const std::string& name : options_.units)
    units_.push_back(session_.FindUnit(name));
  if (options_.units.empty()) units_ = session_.Find(session_.DiscoverAt(), session_.Timeout());
  if (units_.empty()) {
    throw Failure{kNoAnswer,
                  "no unit answered; is one running, with \"AddrStr\" set? (qz640ctl "
                  "doctor looks closer)"};
  }
}

// A flood is an outage to whoever hears the unit. One that was named is refused, others are left
// out; a unit that doesn't say is taken to be in use.
void Soak::LeaveAloneThoseInUse() {
  std::vector<std::string> inUse;
  const auto isInUse = [&](const Unit& unit) {
    if (unit.inputs == 0) return false;
    const size_t before = inUse.size();
    try {
      const auto inputs = session_.Control(unit).GetInputs();
      for (uint32_t input = 0; input < inputs.size(); ++input) {
        if (inputs[input]) inUse.push_back(InUseText(unit, input, inputs[input]));
      }
    } catch (const wire::Interrupted&) {
      throw;
    } catch (const std::exception&) {
      inUse.push_back(unit.id + " (doesn't say where its inputs go)");
    }
    return inUse.size() > before;
  };
  std::vector<Unit> idle;
  for (const Unit& unit : units_) {
    if (!isInUse(unit)) idle.push_back(unit);
  }
  if (options_.intrusive || inUse.empty()) {
    session_.Note(InUseLine(InUse::Take, inUse));
    return;
  }
  if (idle.empty() || !options_.units.empty()) {
    throw Failure{kRefused, InUseNames(inUse) +
                                "; a soak takes the inputs and floods their units: name others, "
                                "or give --intrusive"};
  }
  session_.Note(InUseLine(InUse::LeaveOut, inUse) + " with their units; --intrusive soaks all");
  units_ = idle;
}

// All inputs of all units send.
void Soak::TakeInputs() {
  sink_ = std::make_unique<wire::UdpPort>(session_.Loop(), Endpoint(), nullptr);
  for (const Unit& unit : units_) {
    const Endpoint sink(session_.LocalFor(unit).address, sink_->Local().port);
    std::vector<InputLoan::Input> taken;
    if (unit.inputs == 0) notJudged_ += (notJudged_.empty() ? "" : ", ") + PrintableCell(unit.id);
    for (uint32_t input = 0; input < unit.inputs; ++input) {
      const bool counted = input == 0;
      if (counted) ticks_.push_back(std::make_unique<Ticks>(session_, unit));
      taken.push_back({input, counted ? ticks_.back()->Local() : sink, nullptr});
    }
    if (!taken.empty()) loans_.push_back(std::make_unique<InputLoan>(session_, unit, taken));
  }
}

void Soak::RunFloods() {
  std::set<Endpoint> ports;  // each unit's own, and discovery at each of their addresses
  std::vector<Endpoint> outputs;
  const std::vector<Endpoint> asked = session_.DiscoverAt();
  for (const Unit& unit : units_) {
    ports.insert(unit.control);
    ports.insert({unit.control.address, asked.empty() ? wire::kDiscoveryPort : asked[0].port});
    for (uint32_t output = 0; output < unit.outputs; ++output)
      outputs.push_back(unit.Output(output));
  }
  control_ = std::make_unique<Flood>(Flood::Kind::Control, options_.seed,
                                     std::vector<Endpoint>(ports.begin(), ports.end()));
  rtp_ = std::make_unique<Flood>(Flood::Kind::Rtp, options_.seed + 1, outputs);
  const auto begun = Clock::now();
  while (quiet_.size() < kMarkCount) {
    session_.Loop().RunFor(kLook);
    usage_ = LookAtProgram();
    peak_ = std::max(peak_, usage_.residentBytes);
    const double part = std::min(1.0, Seconds(Clock::now() - begun) / options_.seconds);
    out_.Progress(FormatNumber(part * 100, 0) + " %  " +
                  FormatNumber(static_cast<double>(usage_.residentBytes) / kMiB, 1) + " MiB  " +
                  std::to_string(exchanges_->complete) + " exchanges  " +
                  std::to_string(control_->Sent()) + " control  " + std::to_string(rtp_->Sent()) +
                  " RTP");
    if (part >= kMarks[quiet_.size()]) MeasureQuiet();
  }
  out_.EndProgress();
  control_->Stop();
  rtp_->Stop();
}

// What the program keeps once it has dealt with everything. In the flood itself lines of its log
// wait, and how many is the machine's affair.
void Soak::MeasureQuiet() {
  control_->Pause(true);
  rtp_->Pause(true);
  healMs_ = std::max(healMs_, exchanges_->WaitAllAnswer());
  exchanges_->Pause(true);
  platform::Usage least = LookAtProgram();
  for (const auto begun = Clock::now(); Clock::now() - begun < kRest;) {
    session_.Loop().RunFor(kLook);
    const platform::Usage now = LookAtProgram();
    least.residentBytes = std::min(least.residentBytes, now.residentBytes);
    least.threads = std::min(least.threads, now.threads);
    least.handles = std::min(least.handles, now.handles);
  }
  quiet_.push_back(least);
  exchanges_->Pause(false);
  control_->Pause(false);
  rtp_->Pause(false);
}

platform::Usage Soak::LookAtProgram() {
  if (!options_.pid) return {};
  const auto usage = platform::UsageOf(*options_.pid);
  if (usage) return *usage;
  throw Failure{kRefused, "process " + std::to_string(*options_.pid) +
                              " has ended, or isn't yours to look at; its log says more"};
}

void Soak::Row(const char* name, const char* key, const std::vector<double>& values, int decimals) {
  Fields fields;
  fields.Add("figure", std::string(key));
  std::string line = name + std::string(30 - std::string(name).size(), ' ');
  for (size_t i = 0; i < values.size(); ++i) {
    const std::string text = FormatNumber(values[i], decimals);
    line += std::string(text.size() < 11 ? 11 - text.size() : 1, ' ') + text;
    fields.Add(values.size() == 1 ? "value" : ("value" + std::to_string(i)).c_str(), values[i]);
  }
  out_.Object(fields);
  out_.Line(line);
}

void Soak::Report() {
  if (options_.pid) {
    std::vector<double> memory, threads, handles;
    for (const platform::Usage& usage : quiet_) {
      memory.push_back(static_cast<double>(usage.residentBytes) / kMiB);
      threads.push_back(usage.threads);
      handles.push_back(usage.handles);
    }
    out_.Line("\nof the program                     at 25 %    at 50 %   at 100 %");
    Row("memory, MiB", "memory_mib", memory, 1);
    Row("threads", "threads", threads, 0);
    Row("file descriptors", "descriptors", handles, 0);
    Row("memory at most, MiB", "peak_mib", {static_cast<double>(peak_) / kMiB}, 1);
    Row("processor, %", "processor", {usage_.cpuSeconds / options_.seconds * 100}, 0);
  }
  out_.Line("\ncontrol round trip, ms                 p50        p99        max");
  for (const auto& [name, key, trips] :
       {std::tuple{"  to the acknowledgement", "ack_ms", &exchanges_->ackTimes},
        {"  to the answer", "answer_ms", &exchanges_->answerTimes}}) {
    Row(name, key, {trips->Percentile(0.5), trips->Percentile(0.99), trips->MaxMs()}, 2);
  }
  out_.Line("");
  double missed = 0, pause = 0;
  uint64_t due = 0, onTheWay = 0;
  for (const auto& stream : ticks_) {
    missed += stream->Missed();
    pause = std::max(pause, stream->LongestPauseMs());
    due += stream->Due();
    onTheWay += stream->Lost();
  }
  Row("exchanges complete", "exchanges", exchanges_->complete);
  Row("requests repeated", "repeats", exchanges_->repeats);
  Row("requests asked again", "asked_again", exchanges_->askedAgain);
  Row("acknowledged, not answered", "lost", exchanges_->lost);
  Row("never acknowledged", "unacknowledged", exchanges_->unacknowledged);
  if (!ticks_.empty()) {
    Row("ticks due", "ticks", due);
    Row("ticks missed", "ticks_missed", static_cast<uint64_t>(missed));
    Row("longest pause, ms", "pause_ms", {pause}, 1);
    Row("packets lost on their way", "packets_lost", onTheWay);
  }
  const double seconds = options_.seconds;
  Row("sent a second: control", "control_rate", {static_cast<double>(control_->Sent()) / seconds},
      0);
  Row("sent a second: RTP", "rtp_rate", {static_cast<double>(rtp_->Sent()) / seconds}, 0);
  Row("all units answer again, ms", "heal_ms", {healMs_}, 1);
  out_.Line("");
}

void Soak::Judge() {
  for (size_t i = 1; i < kMarkCount; ++i) {
    const std::string when =
        " between 25 % and " + FormatNumber(kMarks[i] * 100, 0) + " % of the run";
    const auto early = static_cast<double>(quiet_[0].residentBytes);
    if (static_cast<double>(quiet_[i].residentBytes) >
        std::max(early * kMemoryGrowth, early + kMemoryNoise)) {
      Broken("the memory grew by more than 5 % and 1 MiB" + when);
    }
    // Fewer are no leak: the thread that clears old logs away may just have ended.
    if (quiet_[i].threads > quiet_[0].threads) Broken("there were more threads" + when);
    if (quiet_[i].handles > quiet_[0].handles) Broken("there were more file descriptors" + when);
  }
  if (static_cast<double>(peak_) > kPeak) {
    Broken("the program took more than 256 MiB: what it has to do piles up");
  }
  if (!exchanges_->complaint.empty()) {
    Broken("a unit sent what is no message: " + exchanges_->complaint);
  }
  if (exchanges_->lost != 0) Broken("requests that were acknowledged got no answer");
  if (exchanges_->unacknowledged != 0) Broken("requests got no acknowledgement within 10 s");
  if (exchanges_->complete == 0) Broken("no exchange came to its end");
  if (healMs_ > kHealMs) Broken("a unit took more than three seconds to answer after the flood");
  for (const auto& stream : ticks_) {
    if (stream->Received() == 0) {
      Broken("a stream never came");
    } else if (stream->Missed() > static_cast<double>(stream->Due()) * kMissedTicks) {
      Broken("a unit missed more than a tenth of its ticks");
    }
  }
}

}  // namespace

int RunSoak(Session& session, const SoakOptions& options, Output& out) {
  return Soak(session, options, out).Run();
}

}  // namespace ctl
