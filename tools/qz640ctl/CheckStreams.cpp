#include <algorithm>
#include <cmath>
#include <deque>

#include "Check.h"
#include "Loan.h"
#include "LoopBack.h"
#include "platform/thread.h"
#include "wire/StreamStats.h"
#include "wire/Streams.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::Frames;
using wire::kPacketFrames;
using wire::StreamPacket;
using wire::StreamStats;
using wire::Unit;

namespace {

constexpr auto kListenTime = milliseconds(2000);
constexpr double kRateTolerance = 0.01;  // of the nominal rate, over two seconds
constexpr double kJitterGoodMs = 2.0;
constexpr double kJitterBadMs = 20.0;

// A stand-still of two packets moves a stream in a unit's buffer, which has room for three ahead;
// one of half a second runs the system's own buffers over.
constexpr double kUnevenMs = 8.0;
constexpr double kOverrunMs = 500.0;

Figure PacketCount(const char* name, uint64_t count) {
  return {name, static_cast<double>(count), "packets"};
}

// What was wrong with a datagram of a stream; empty when nothing was.
std::string FormatFault(const StreamPacket& packet, const StreamPacket* before) {
  const wire::StreamHeader header = packet.Header();
  if (packet.bytes.size() >= wire::kHeaderBytes && wire::SampleFreqOf(header.payloadType) == 0) {
    return "payload type " + std::to_string(header.payloadType) + "; it must be 100 or 101";
  }
  if (packet.bytes.size() != wire::kPacketBytes) {
    return "a datagram of " + std::to_string(packet.bytes.size()) + " bytes; there must be 1164";
  }
  if (header.first != 0x02) return "first byte is not 0x02";
  if (header.marker) return "the marker is set";
  if (header.ssrc != 0) return "SSRC is not 0";
  if (!before) return {};
  const wire::StreamHeader previous = before->Header();
  const auto steps = static_cast<int16_t>(header.sequence - previous.sequence);
  if (header.timestamp - previous.timestamp != static_cast<uint32_t>(steps) * kPacketFrames) {
    return "timestamps don't go 192 a packet";
  }
  return {};
}

// What an input was heard to send within the listening time.
struct Heard {
  StreamStats stats;
  StreamTrace trace;
  std::string fault;
  uint32_t freq = 48000;
  double peak = 0;
  double lateMs = 0;  // of this program

  double NominalRate() const { return static_cast<double>(freq) / kPacketFrames; }
  bool OnRate() const {
    return std::fabs(stats.Rate() - NominalRate()) <= NominalRate() * kRateTolerance;
  }
  bool IsWhole() const { return stats.Lost() == 0 && stats.duplicates == 0 && stats.jumps == 0; }
  bool IsGood() const { return OnRate() && stats.JitterMs() <= kJitterGoodMs && IsWhole(); }
};

// From times of arrival to how much later each is than its place says. The clock of the unit has no
// zero that is known here, so the median is made 0.
void MeasureLateness(StreamTrace& trace) {
  if (trace.arrivals.empty()) return;
  std::vector<double> all;
  for (Arrival& arrival : trace.arrivals) {
    arrival.lateMs -= static_cast<double>(arrival.place) * kPacketFrames * 1e3 / trace.freq;
    all.push_back(arrival.lateMs);
  }
  const auto middle = all.begin() + static_cast<std::ptrdiff_t>(all.size() / 2);
  std::nth_element(all.begin(), middle, all.end());
  for (Arrival& arrival : trace.arrivals)
    arrival.lateMs -= *middle;
}

class StreamTour {
 public:
  StreamTour(Session& session, const Unit& unit, CheckReport& report, bool intrusive)
      : session_(session),
        unit_(unit),
        report_(report),
        intrusive_(intrusive),
        local_(session.LocalFor(unit)) {}

  void Run() {
    if (report_.Begin(Part::Streams)) {
      for (uint32_t input = 0; input < unit_.inputs; ++input)
        Input(input);
      if (unit_.inputs == 0) report_.Add("streams", Verdict::Skip, "the unit has no inputs");
    }
    if (!report_.Begin(Part::LoopBack)) return;
    if (unit_.outputs > 0 && unit_.inputs > 0) {
      if (!report_.Wants(Part::Streams)) LookAtSource(Listen(0));
      LoopBack();
    } else {
      report_.Add("loop-back", Verdict::Skip, "needs an output and an input");
    }
  }

 private:
  void Input(uint32_t input);
  void LookAtSource(const Heard& heard);
  Heard Listen(uint32_t input);
  void LoopBack();
  Returned SendThrough();
  void Return(InputLoan& loan, const std::string& name);

  // A verdict that holds only when this program was in time.
  void Add(const std::string& name, bool excused, double lateMs, const Finding& finding) {
    const bool bad = finding.verdict == Verdict::Warn || finding.verdict == Verdict::Fail;
    report_.Add(name, bad && excused ? CheckReport::TooUneven(lateMs, finding) : finding);
  }

  Session& session_;
  const Unit unit_;
  CheckReport& report_;
  const bool intrusive_;
  const wire::Endpoint local_;
  uint32_t freq_ = 48000;
  bool silent_ = true;
};

void StreamTour::Return(InputLoan& loan, const std::string& name) {
  try {
    loan.Return();
  } catch (const std::exception& error) {
    report_.Add(name + " restored", Verdict::Fail, session_.ToFailure(error).text);
  }
}

Heard StreamTour::Listen(uint32_t input) {
  wire::AudioReceiver receiver(session_.Loop(), local_);
  const auto passOn = [&receiver](const wire::Destination& to) { receiver.PassOn(to); };
  InputLoan loan(session_, unit_, {{input, receiver.Local(), passOn}});
  // What comes while the input is borrowed or given back is looked at late, which isn't the unit's
  // fault.
  receiver.Clear();
  report_.Machine().Clear();
  session_.Loop().RunFor(kListenTime);
  Heard heard;
  heard.lateMs = ToMs(report_.Machine().Worst());
  const std::deque<StreamPacket> packets = receiver.Take();
  Return(loan, "input " + std::to_string(input));

  const StreamPacket* before = nullptr;
  for (const StreamPacket& packet : packets) {
    if (heard.fault.empty()) heard.fault = FormatFault(packet, before);
    before = &packet;
    const auto place = heard.stats.Add(packet);
    if (!place) continue;
    heard.freq = wire::SampleFreqOf(packet.Header().payloadType);
    heard.trace.arrivals.push_back({*place, ToMs(packet.time - packets.front().time)});
  }
  heard.trace.input = input;
  heard.trace.freq = heard.freq;
  heard.trace.jitterMs = heard.stats.JitterMs();
  MeasureLateness(heard.trace);
  heard.peak = std::max(heard.stats.TakePeak(0), heard.stats.TakePeak(1));
  return heard;
}

// What the loop-back has to know of input 0.
void StreamTour::LookAtSource(const Heard& heard) {
  silent_ = heard.peak == 0;
  freq_ = heard.freq;
}

void StreamTour::Input(uint32_t input) {
  const std::string name = "input " + std::to_string(input);
  Heard heard = Listen(input);
  for (int attempt = 1; attempt < kAttempts && !heard.IsGood() && heard.stats.packets > 0 &&
                        (report_.Shared() || heard.lateMs > kUnevenMs);
       ++attempt) {
    heard = Listen(input);
  }
  const StreamStats& stats = heard.stats;
  if (input == 0) LookAtSource(heard);
  report_.Keep(heard.trace);
  if (stats.packets == 0 && heard.fault.empty()) {
    report_.Add(name + " stream", Verdict::Fail, "nothing arrived at " + local_.ToText());
    return;
  }
  report_.Add(
      name + " format", heard.fault.empty() ? Verdict::Pass : Verdict::Fail,
      heard.fault.empty() ? "24-bit stereo, " + std::to_string(heard.freq) + " Hz" : heard.fault,
      {{"sample_rate", static_cast<double>(heard.freq), "Hz"}});
  if (stats.packets == 0) return;

  const bool uneven = heard.lateMs > kUnevenMs;
  Add(name + " rate", uneven, heard.lateMs,
      {heard.OnRate() ? Verdict::Pass : Verdict::Fail,
       FormatNumber(stats.Rate(), 2) + " packets/s of " + FormatNumber(heard.NominalRate(), 2),
       {{"rate", stats.Rate(), "packets/s"}, {"nominal", heard.NominalRate(), "packets/s"}}});
  const double jitter = stats.JitterMs();
  Add(name + " jitter", uneven, heard.lateMs,
      {jitter <= kJitterGoodMs  ? Verdict::Pass
       : jitter <= kJitterBadMs ? Verdict::Warn
                                : Verdict::Fail,
       FormatNumber(jitter, 2) + " ms",
       {{"jitter", jitter, "ms"}, {"worst_gap", stats.WorstGapMs(), "ms"}}});
  Add(name + " sequence", heard.lateMs > kOverrunMs, heard.lateMs,
      {heard.IsWhole() ? Verdict::Pass : Verdict::Fail,
       std::to_string(stats.packets) + " packets, lost " + std::to_string(stats.Lost()) +
           ", out of order " + std::to_string(stats.outOfOrder) + ", duplicates " +
           std::to_string(stats.duplicates),
       {PacketCount("packets", stats.packets), PacketCount("lost", stats.Lost()),
        PacketCount("out of order", stats.outOfOrder),
        PacketCount("duplicates", stats.duplicates)}});
}

// Where the machine stands still, this program's packets come late and in a bunch, or the unit's
// ticks do: the unit then starts the stream anew, as it must, and what lay in its buffer may come
// out again, late or not at all. What was never sent it must not send even then.
Returned StreamTour::SendThrough() {
  wire::AudioReceiver receiver(session_.Loop(), local_);
  InputLoan loan(session_, unit_, {{0, receiver.Local(), nullptr}});
  report_.Machine().Clear();
  uint64_t made = 0;
  wire::AudioSender sender(session_.Loop(), unit_.Output(0), freq_, 0,
                           [&made] { return made < kNoisePackets ? Noise(made++) : Frames(); });
  sender.WaitEnd(milliseconds(5000));
  session_.Loop().RunFor(milliseconds(200));  // what is still in the unit's ring
  const auto late = std::max(report_.Machine().Worst(), sender.WorstLateness());
  Return(loan, "input 0");

  StreamStats stats;
  for (const StreamPacket& packet : receiver.Packets())
    stats.Add(packet);
  Returned returned = SortNoise(receiver.Packets());
  returned.unevenMs = ToMs(late);
  if (report_.Shared()) returned.unevenMs = std::max(returned.unevenMs, stats.WorstGapMs());
  return returned;
}

void StreamTour::LoopBack() {
  if (!silent_) {
    report_.Add("loop-back", Verdict::Skip, "input 0 carries a signal of the unit's own");
    return;
  }
  const std::vector<wire::Destination> now = session_.Control(unit_).GetInputs();
  if (!intrusive_ && !now.empty() && now.front()) {
    report_.Add("loop-back", Verdict::Skip, kLeftOut);
    return;
  }
  Returned returned = SendThrough();
  for (int attempt = 1; attempt < kAttempts && !returned.IsGood() && !returned.IsEmpty() &&
                        returned.altered == 0 && returned.unevenMs > kUnevenMs;
       ++attempt) {
    returned = SendThrough();
  }
  if (returned.IsEmpty()) {
    report_.Add("loop-back", Verdict::Skip, "the unit doesn't loop output 0 back to input 0");
    return;
  }
  const std::string figure =
      std::to_string(returned.exact) + " of " + std::to_string(kNoisePackets) +
      " packets bit for bit, " + std::to_string(returned.altered) + " altered, " +
      std::to_string(returned.reordered) + " reordered, " + std::to_string(returned.repeated) +
      " repeated, " + std::to_string(returned.Lost()) + " lost";
  Add("loop-back", returned.altered == 0 && returned.unevenMs > kUnevenMs, returned.unevenMs,
      {returned.IsGood() ? Verdict::Pass : Verdict::Fail,
       figure,
       {PacketCount("exact", returned.exact), PacketCount("altered", returned.altered),
        PacketCount("reordered", returned.reordered), PacketCount("repeated", returned.repeated),
        PacketCount("lost", returned.Lost())}});
}

}  // namespace

void CheckStreams(Session& session, const Unit& unit, CheckReport& report, bool intrusive) {
  platform::SetTimeCritical();
  StreamTour(session, unit, report, intrusive).Run();
}

}  // namespace ctl
