#include <algorithm>
#include <cmath>
#include <memory>

#include "Check.h"
#include "Streams.h"
#include "platform/clock.h"
#include "runtime/Clocks.h"

namespace ctl {

using namespace Network;

namespace {

constexpr uint32_t kListenMs = 2000;
constexpr double kRateTolerance = 0.01;  // of the nominal rate, over two seconds
constexpr double kJitterGoodMs = 2.0;
constexpr double kJitterBadMs = 20.0;
constexpr uint64_t kLoopPackets = 250;
constexpr size_t kLoopMinimum = 200;  // of these must come back

// What was wrong with the headers of a stream; empty when nothing was.
std::string HeaderFault(const RtpPacket& packet, const RtpPacket* before) {
  const uint8_t* bytes = packet.GetPacket()->Data();
  const size_t size = packet.GetPacket()->Size();
  if (size < 12) return "a datagram of " + std::to_string(size) + " bytes";
  const RtpHeader header = packet.GetHeader();
  if (!IsAudioPayloadType(header.PayloadType())) {
    return "payload type " + std::to_string(header.PayloadType()) + "; it must be 100 or 101";
  }
  if (bytes[0] != 0x02) return "first byte is not 0x02";
  if (bytes[1] & 1) return "the marker is set";
  if (header.Ssrc != 0) return "SSRC is not 0";
  if (packet.GetSmplCount() != kPacketFrames) {
    return std::to_string(packet.GetSmplCount()) + " samples; there must be 192";
  }
  if (!before) return {};
  const RtpHeader previous = before->GetHeader();
  const auto steps = static_cast<uint16_t>(header.SeqNumber - previous.SeqNumber);
  if (header.Timestamp - previous.Timestamp != steps * kPacketFrames) {
    return "timestamps don't go 192 a packet";
  }
  return {};
}

class StreamTour {
 public:
  StreamTour(const Unit& unit, const CommonOptions& common, CheckReport& report)
      : unit_(unit),
        report_(report),
        net_(INetManager::Create()),
        local_(LocalFor(unit, common)),
        link_(unit.control, common.timeoutMs) {}

  void Run() {
    for (uint32_t input = 0; input < unit_.inputs; ++input)
      Input(input);
    if (unit_.inputs == 0) report_.Add("streams", Verdict::Skip, "the unit has no inputs");
    if (unit_.outputs > 0 && unit_.inputs > 0) {
      LoopBack();
    } else {
      report_.Add("loop-back", Verdict::Skip, "needs an output and an input");
    }
  }

 private:
  void Input(uint32_t input);
  void LoopBack();
  void Return(InputLoan& loan, const std::string& name);

  const Unit unit_;
  CheckReport& report_;
  const std::unique_ptr<INetManager> net_;
  const NetAddr local_;
  UnitLink link_;
  uint32_t freq_ = 48000;
  bool silent_ = true;
};

void StreamTour::Return(InputLoan& loan, const std::string& name) {
  try {
    loan.Return();
  } catch (const Failure& failure) {
    report_.Add(name + " restored", Verdict::Fail, failure.text);
  }
}

void StreamTour::Input(uint32_t input) {
  const std::string name = "input " + std::to_string(input);
  StreamReceiver receiver(*net_, local_);
  InputLoan loan(link_, unit_, input, receiver.Address());
  StreamStats stats;
  std::string fault;
  std::unique_ptr<RtpPacket> before;
  double peak = 0;
  const int64_t end = ClockRead(nullptr) + int64_t{kListenMs} * 10'000;
  while (ClockRead(nullptr) < end) {
    CheckStop();
    for (const auto& [packet, time] : receiver.Take(50)) {
      if (fault.empty()) fault = HeaderFault(packet, before.get());
      before = std::make_unique<RtpPacket>(packet);
      if (!stats.Add(packet, time)) continue;
      if (input == 0) freq_ = FreqOfPayloadType(packet.GetHeader().PayloadType());
    }
  }
  peak = std::max(stats.TakePeak(0), stats.TakePeak(1));
  if (input == 0) silent_ = peak == 0;
  Return(loan, name);

  if (stats.packets == 0 && fault.empty()) {
    report_.Add(name + " stream", Verdict::Fail,
                "nothing arrived at " + ToText(receiver.Address()));
    return;
  }
  report_.Add(name + " format", fault.empty() ? Verdict::Pass : Verdict::Fail,
              fault.empty() ? "24-bit stereo, " + std::to_string(freq_) + " Hz" : fault);
  if (stats.packets == 0) return;

  const double nominal = static_cast<double>(freq_) / kPacketFrames;
  const double rate = stats.Rate();
  const bool onRate = std::fabs(rate - nominal) <= nominal * kRateTolerance;
  report_.Add(name + " rate", onRate ? Verdict::Pass : Verdict::Fail,
              FormatNumber(rate, 2) + " packets/s of " + FormatNumber(nominal, 2));
  const double jitter = stats.JitterMs();
  report_.Add(name + " jitter",
              jitter <= kJitterGoodMs  ? Verdict::Pass
              : jitter <= kJitterBadMs ? Verdict::Warn
                                       : Verdict::Fail,
              FormatNumber(jitter, 2) + " ms");
  const bool whole = stats.Lost() == 0 && stats.duplicates == 0 && stats.jumps == 0;
  report_.Add(name + " sequence", whole ? Verdict::Pass : Verdict::Fail,
              std::to_string(stats.packets) + " packets, lost " + std::to_string(stats.Lost()) +
                  ", late " + std::to_string(stats.late) + ", duplicates " +
                  std::to_string(stats.duplicates));
}

// Each packet carries noise that no other has, so that it is known again wherever it comes out.
std::vector<Frame> Noise(uint64_t number) {
  uint64_t state = number * 0x9E3779B97F4A7C15 + 1;
  const auto next = [&state] {
    state = state * 6364136223846793005 + 1442695040888963407;
    // Within the range that a unit's conversion to float and back keeps exact.
    return static_cast<int32_t>(static_cast<int64_t>(state >> 41) % 8388607) -
           (state & 1 ? 0 : 4194303);
  };
  std::vector<Frame> frames(kPacketFrames);
  for (Frame& frame : frames)
    frame = {next(), next()};
  return frames;
}

bool Same(const std::vector<Frame>& a, const std::vector<Frame>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Frame& x, const Frame& y) {
    return x.left == y.left && x.right == y.right;
  });
}

void StreamTour::LoopBack() {
  if (!silent_) {
    report_.Add("loop-back", Verdict::Skip, "input 0 carries a signal of the unit's own");
    return;
  }
  StreamReceiver receiver(*net_, local_);
  InputLoan loan(link_, unit_, 0, receiver.Address());
  uint64_t made = 0;
  StreamSender sender(*net_, unit_.Output(0), freq_, 0, [&made] {
    return made < kLoopPackets ? Noise(made++) : std::vector<Frame>();
  });
  sender.WaitEnd(5000);
  platform::GetClock().Sleep(200);  // what is still in the unit's ring

  size_t exact = 0;
  size_t foreign = 0;
  uint64_t expected = 0;
  for (const auto& [packet, time] : receiver.Take(0)) {
    const std::vector<Frame> frames = FramesOf(packet);
    const bool silence = std::all_of(frames.begin(), frames.end(), [](const Frame& frame) {
      return frame.left == 0 && frame.right == 0;
    });
    if (silence) continue;
    uint64_t number = expected;
    while (number < kLoopPackets && !Same(frames, Noise(number)))
      ++number;
    if (number == kLoopPackets) {
      ++foreign;
      continue;
    }
    ++exact;
    expected = number + 1;
  }
  Return(loan, "input 0");
  const std::string figure = std::to_string(exact) + " of " + std::to_string(kLoopPackets) +
                             " packets bit for bit, " + std::to_string(foreign) + " altered";
  if (exact == 0 && foreign == 0) {
    report_.Add("loop-back", Verdict::Skip, "the unit doesn't loop output 0 back to input 0");
  } else {
    report_.Add("loop-back", foreign == 0 && exact >= kLoopMinimum ? Verdict::Pass : Verdict::Fail,
                figure);
  }
}

}  // namespace

void CheckStreams(const Unit& unit, const CommonOptions& common, CheckReport& report) {
  StreamTour(unit, common, report).Run();
}

}  // namespace ctl
