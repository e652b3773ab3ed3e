// The commands that move audio: record, play, watch.
#include <algorithm>
#include <cmath>

#include "Commands.h"
#include "Recorder.h"
#include "Streams.h"
#include "platform/clock.h"
#include "platform/startup.h"
#include "runtime/Clocks.h"

namespace ctl {

using namespace Network;

namespace {

constexpr uint32_t kPollMs = 50;
constexpr size_t kMeterWidth = 20;

double SecondsSince(int64_t start) {
  return static_cast<double>(ClockRead(nullptr) - start) / 1e7;
}

std::string Decibel(double peak) {
  return FormatNumber(ToDecibel(peak), 1) + " dB";
}

void AddStats(Fields& fields, const StreamStats& stats) {
  fields.Add("packets", stats.packets)
      .Add("jitter_ms", stats.JitterMs())
      .Add("lost", stats.Lost())
      .Add("late", stats.late)
      .Add("duplicates", stats.duplicates);
}

// Waits for the first audio packet, which tells the sample frequency.
std::vector<StreamReceiver::Arrival> WaitFirst(StreamReceiver& receiver, const Unit& unit,
                                               uint32_t timeoutMs) {
  const int64_t start = ClockRead(nullptr);
  while (SecondsSince(start) * 1000 < timeoutMs) {
    CheckStop();
    std::vector<StreamReceiver::Arrival> arrivals = receiver.Take(kPollMs);
    std::erase_if(arrivals, [](const auto& a) { return a.packet.GetSmplCount() == 0; });
    if (!arrivals.empty()) return arrivals;
  }
  throw Failure{kNoAnswer, unit.Id() + " took the request but no audio arrived at " +
                               ToText(receiver.Address()) +
                               "; does a firewall let UDP to that "
                               "port through? (--local ADDR names another address)"};
}

class Recording {
 public:
  Recording(const RecordOptions& options, Output& out) : options_(options), out_(out) {}

  int Run(const CommonOptions& common);

 private:
  void Feed(const std::vector<StreamReceiver::Arrival>& arrivals);
  void Drain(bool all);
  bool IsSilentFor(uint32_t milliseconds) const;
  void ShowProgress();
  void ShowResult(uint32_t freq);

  const RecordOptions& options_;
  Output& out_;
  StreamStats stats_;
  Recorder recorder_;
  std::unique_ptr<WavWriter> writer_;
  uint64_t wanted_ = UINT64_MAX;  // frames
  uint64_t written_ = 0;          // frames
  double peaks_[2] = {0, 0};      // of the whole recording
  int64_t lastFed_ = 0;
  int64_t lastShown_ = 0;
};

int Recording::Run(const CommonOptions& common) {
  WavWriter::CheckFree(options_.file, options_.force);  // before anything is touched
  const Unit unit = FindUnit(options_.unit, common);
  CheckInput(unit, options_.input);
  const std::unique_ptr<INetManager> net = INetManager::Create();
  StreamReceiver receiver(*net, LocalFor(unit, common));
  UnitLink link(unit.control, common.timeoutMs);
  InputLoan loan(link, unit, options_.input, receiver.Address());

  const auto first = WaitFirst(receiver, unit, common.timeoutMs);
  const uint32_t freq = FreqOfPayloadType(first.front().packet.GetHeader().PayloadType());
  writer_ = std::make_unique<WavWriter>(options_.file, freq, options_.force);
  if (options_.seconds) {
    wanted_ = static_cast<uint64_t>(std::llround(*options_.seconds * freq));
  }

  Feed(first);
  while (written_ < wanted_ && !platform::WaitForStop(0) && !IsSilentFor(common.timeoutMs)) {
    Feed(receiver.Take(kPollMs));
    Drain(false);
    ShowProgress();
  }
  Drain(true);
  out_.EndProgress();
  writer_->Close();
  ShowResult(freq);
  loan.Return();
  if (!IsSilentFor(common.timeoutMs)) return kDone;
  throw Failure{kNoAnswer, "the stream ended early: has " + unit.Id() +
                               " been stopped, or its input " + std::to_string(options_.input) +
                               " been sent elsewhere?"};
}

bool Recording::IsSilentFor(uint32_t milliseconds) const {
  return SecondsSince(lastFed_) * 1000 > milliseconds;
}

void Recording::Feed(const std::vector<StreamReceiver::Arrival>& arrivals) {
  if (!arrivals.empty()) lastFed_ = ClockRead(nullptr);
  for (const auto& [packet, time] : arrivals) {
    if (const auto place = stats_.Add(packet, time)) recorder_.Put(*place, FramesOf(packet));
  }
}

void Recording::Drain(bool all) {
  std::vector<Frame> frames = recorder_.Take(all);
  frames.resize(static_cast<size_t>(std::min<uint64_t>(frames.size(), wanted_ - written_)));
  writer_->Write(frames);
  written_ += frames.size();
}

void Recording::ShowProgress() {
  if (ClockRead(nullptr) - lastShown_ < 2'000'000) return;  // five times a second
  lastShown_ = ClockRead(nullptr);
  std::string meters;
  for (int channel = 0; channel < 2; ++channel) {
    const double peak = stats_.TakePeak(channel);
    peaks_[channel] = std::max(peaks_[channel], peak);
    meters += std::string(channel == 0 ? " L " : " R ") + FormatMeter(peak, kMeterWidth);
  }
  out_.Progress(std::to_string(stats_.packets) + " packets" + meters + "  lost " +
                std::to_string(stats_.Lost()) + "  late " + std::to_string(stats_.late));
}

void Recording::ShowResult(uint32_t freq) {
  for (int channel = 0; channel < 2; ++channel) {
    peaks_[channel] = std::max(peaks_[channel], stats_.TakePeak(channel));
  }
  Fields fields;
  fields.Add("file", options_.file)
      .Add("frames", written_)
      .Add("sample_freq", freq)
      .Add("peak_left_db", ToDecibel(peaks_[0]))
      .Add("peak_right_db", ToDecibel(peaks_[1]))
      .Add("rate", stats_.Rate());
  AddStats(fields, stats_);
  out_.Object(fields);
  out_.Line(options_.file + ": " + FormatNumber(static_cast<double>(written_) / freq, 2) +
            " s at " + std::to_string(freq) + " Hz, peak L " + Decibel(peaks_[0]) + ", R " +
            Decibel(peaks_[1]) + "; " + std::to_string(stats_.packets) + " packets, lost " +
            std::to_string(stats_.Lost()) + ", late " + std::to_string(stats_.late));
}

// One row of the live view.
struct Watched {
  Unit unit;
  uint32_t input = 0;
  std::unique_ptr<StreamReceiver> receiver;
  std::unique_ptr<InputLoan> loan;
  StreamStats stats;
  double rate = 0;  // packets a second since then
};

std::vector<std::string> ToRow(Watched& row, Output& out) {
  const double left = row.stats.TakePeak(0);
  const double right = row.stats.TakePeak(1);
  const uint64_t lost = row.stats.Lost();
  return {row.unit.Id(),
          std::to_string(row.input),
          FormatMeter(left, kMeterWidth) + " " + FormatMeter(right, kMeterWidth),
          FormatNumber(row.rate, 1),
          FormatNumber(row.stats.JitterMs(), 2),
          lost == 0 ? "0" : out.Paint(Colour::Red, std::to_string(lost)),
          std::to_string(row.stats.late)};
}

Fields ToFields(Watched& row) {
  Fields fields;
  fields.Add("unit_id", row.unit.Id())
      .Add("input", row.input)
      .Add("peak_left_db", ToDecibel(row.stats.TakePeak(0)))
      .Add("peak_right_db", ToDecibel(row.stats.TakePeak(1)))
      .Add("rate", row.rate);
  AddStats(fields, row.stats);
  return fields;
}

class Watching {
 public:
  explicit Watching(Output& out) : out_(out), net_(INetManager::Create()) {}

  int Run(const WatchOptions& options, const CommonOptions& common);

 private:
  void Open(const Unit& unit, const CommonOptions& common);
  void Draw();

  Output& out_;
  std::unique_ptr<INetManager> net_;
  std::vector<std::unique_ptr<UnitLink>> links_;
  std::vector<Watched> rows_;
  size_t drawn_ = 0;  // lines of the previous drawing, to be drawn over
};

int Watching::Run(const WatchOptions& options, const CommonOptions& common) {
  if (options.units.empty()) {
    for (const Unit& unit : Discovery().Find(common.DiscoverAt(), common.timeoutMs)) {
      Open(unit, common);
    }
  }
  for (const std::string& name : options.units)
    Open(FindUnit(name, common), common);
  if (rows_.empty()) {
    throw Failure{
        kNoAnswer,
        "no unit with an input answered; is one running, with \"AddrStr\" set? (qz640ctl doctor)"};
  }

  const int64_t start = ClockRead(nullptr);
  int64_t lastDraw = start;
  const double period = out_.Live() ? 0.2 : 1.0;
  while (!platform::WaitForStop(kPollMs)) {
    for (Watched& row : rows_) {
      for (const auto& [packet, time] : row.receiver->Take(0))
        row.stats.Add(packet, time);
    }
    if (SecondsSince(lastDraw) >= period) {
      Draw();
      lastDraw = ClockRead(nullptr);
    }
    if (options.seconds && SecondsSince(start) >= *options.seconds) break;
  }
  for (Watched& row : rows_)
    row.loan->Return();
  return kDone;
}

void Watching::Open(const Unit& unit, const CommonOptions& common) {
  // Named twice it is still one unit, with one former destination an input.
  const auto same = [&unit](const Watched& row) { return row.unit.control == unit.control; };
  if (std::any_of(rows_.begin(), rows_.end(), same)) return;
  links_.push_back(std::make_unique<UnitLink>(unit.control, common.timeoutMs));
  for (uint32_t input = 0; input < unit.inputs; ++input) {
    Watched row;
    row.unit = unit;
    row.input = input;
    row.receiver = std::make_unique<StreamReceiver>(*net_, LocalFor(unit, common));
    row.loan = std::make_unique<InputLoan>(*links_.back(), unit, input, row.receiver->Address());
    rows_.push_back(std::move(row));
  }
}

void Watching::Draw() {
  std::vector<std::vector<std::string>> table{{"UNIT", "IN",
                                               "LEFT" + std::string(kMeterWidth - 3, ' ') + "RIGHT",
                                               "PACKETS/S", "JITTER ms", "LOST", "LATE"}};
  for (Watched& row : rows_) {
    row.rate = row.stats.TakeRate();
    if (out_.Json()) {
      out_.Object(ToFields(row));
    } else {
      table.push_back(ToRow(row, out_));
    }
  }
  // Up over the previous drawing (ECMA-48 cursor up, erase below).
  const std::string up =
      out_.Live() && drawn_ > 0 ? "\033[" + std::to_string(drawn_) + "A\033[J" : std::string();
  out_.Line(up + FormatTable(table));
  drawn_ = table.size();
}

}  // namespace

int RunRecord(const RecordOptions& options, const CommonOptions& common, Output& out) {
  return Recording(options, out).Run(common);
}

int RunWatch(const WatchOptions& options, const CommonOptions& common, Output& out) {
  return Watching(out).Run(options, common);
}

int RunPlay(const PlayOptions& options, const CommonOptions& common, Output& out) {
  const Unit unit = FindUnit(options.unit, common);
  CheckOutput(unit, options.output);
  uint64_t frames = static_cast<uint64_t>(std::llround(options.seconds * options.sampleFreq));
  StreamSender::Source source;
  if (options.pattern) {
    source = PatternSource(frames);
  } else if (options.toneHz) {
    source = ToneSource(*options.toneHz, options.levelDb, options.sampleFreq, frames);
  } else {
    auto reader = std::make_shared<AudioReader>(options.file, options.sampleFreq);
    frames = reader->FrameCount();
    source = FileSource(std::move(reader));
  }

  const std::unique_ptr<INetManager> net = INetManager::Create();
  const NetAddr to = unit.Output(options.output);
  StreamSender sender(*net, to, options.sampleFreq, options.ppm, std::move(source));
  const uint64_t packets = (frames + kPacketFrames - 1) / kPacketFrames;
  while (!sender.WaitEnd(200) && !platform::WaitForStop(0)) {
    out.Progress(std::to_string(sender.Sent()) + " of " + std::to_string(packets) + " packets to " +
                 ToText(to));
  }
  out.EndProgress();

  out.Object(
      Fields().Add("to", ToText(to)).Add("packets", sender.Sent()).Add("failed", sender.Failed()));
  out.Line("sent " + std::to_string(sender.Sent()) + " packets to " + ToText(to) +
           (sender.Failed() ? ", " + std::to_string(sender.Failed()) + " failed" : ""));
  return sender.Failed() == 0 ? kDone : kRefused;
}

}  // namespace ctl
