// The command "record": inputs of a unit into files, or one into a pipe.
#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <string_view>

#include "AudioFile.h"
#include "Commands.h"
#include "Listeners.h"
#include "Loan.h"
#include "Recorder.h"
#include "platform/startup.h"
#include "wire/StreamStats.h"
#include "wire/Streams.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::Clock;
using wire::StreamPacket;
using wire::StreamStats;
using wire::Unit;
using Packets = std::deque<StreamPacket>;

namespace {

constexpr auto kPoll = milliseconds(50);
constexpr auto kRefresh = milliseconds(200);
constexpr size_t kWidestMeter = 20;
constexpr size_t kNarrowMeter = 8;  // before it gets narrower, words get shorter

std::string Decibel(double peak) {
  return FormatNumber(ToDecibel(peak), 1) + " dB";
}

// In `columns`: a cut meter would show less than there is, a cut count another number.
std::string ProgressLine(const std::string& packets, const std::string& lost,
                         const std::string& late, const double (&peaks)[2], size_t columns) {
  std::string line = packets + " packets, lost " + lost + ", late " + late + "  L ";
  constexpr std::string_view kBetween = " R ";
  const auto meter = [&] {
    const size_t room = columns - std::min(columns, line.size() + kBetween.size());
    return std::min(room / 2, kWidestMeter);
  };
  if (meter() < kNarrowMeter) line = packets + " lost " + lost + " late " + late + " L ";
  if (meter() == 0) return packets + " lost " + lost + " late " + late;
  const size_t width = meter();
  return line + FormatMeter(peaks[0], width) + std::string(kBetween) + FormatMeter(peaks[1], width);
}

void AddStats(Fields& fields, const StreamStats& stats) {
  fields.Add("packets", stats.packets)
      .Add("jitter_ms", stats.JitterMs())
      .Add("lost", stats.Lost())
      .Add("late", stats.Timing().Late())
      .Add("out_of_order", stats.outOfOrder)
      .Add("duplicates", stats.duplicates)
      .Add("drift_ppm", stats.Timing().DriftPpm())
      .Add("clipped_left", stats.clipped[0])
      .Add("clipped_right", stats.clipped[1]);
}

// What one input sends, from its first packet on.
class Take {
 public:
  // `file` is the name of the whole, of which the parts make theirs.
  Take(const RecordOptions& options, AudioFormat format, uint32_t input, std::string file)
      : options_(options), format_(format), input_(input), file_(std::move(file)) {}

  uint32_t Input() const { return input_; }
  const StreamStats& Stats() const { return stats_; }
  bool HasBegun() const { return freq_ != 0; }
  bool HasAll() const { return readerGone_ || written_ == wanted_; }

  // Whether, when it was fed last, nothing had come for `limit` of that call.
  bool IsSilent() const { return silent_; }

  // To be called with all that has come, also with nothing.
  void Feed(const Packets& packets, Clock::duration limit);

  // Writes what is in order; with `all` the rest. Throws Failure when the disk doesn't take it.
  void Drain(bool all);
  void Close();

  // Largest magnitude since the latest call.
  double TakePeak(int channel);

  Fields ToFields(const std::string& passedOnTo) const;
  std::string ToText() const;

 private:
  void OpenPart();

  const RecordOptions& options_;
  const AudioFormat format_;
  const uint32_t input_;
  const std::string file_;
  StreamStats stats_;
  Recorder recorder_;
  std::unique_ptr<AudioWriter> writer_;
  uint32_t freq_ = 0;    // Hz, 0 before the first packet
  size_t parts_ = 0;     // files that have been opened
  uint64_t inPart_ = 0;  // frames of the latest
  uint64_t partSize_ = UINT64_MAX;
  uint64_t wanted_ = UINT64_MAX;  // frames
  uint64_t written_ = 0;          // frames
  double peaks_[2] = {0, 0};      // of the whole recording
  bool readerGone_ = false;
  bool silent_ = false;
  Clock::time_point lastFed_;
};

// Whether it is silent is decided here, as a slow reader or disk may hold up what follows for
// longer than the limit.
void Take::Feed(const Packets& packets, Clock::duration limit) {
  const auto now = Clock::now();
  if (lastFed_ == Clock::time_point()) lastFed_ = now;
  for (const StreamPacket& packet : packets) {
    const auto place = stats_.Add(packet);
    if (!place) continue;
    lastFed_ = now;
    if (freq_ == 0) {
      freq_ = wire::SampleFreqOf(packet.Header().payloadType);
      const auto frames = [this](double seconds) {
        return static_cast<uint64_t>(std::max(1LL, std::llround(seconds * freq_)));
      };
      if (options_.seconds) wanted_ = frames(*options_.seconds);
      if (options_.split) partSize_ = frames(*options_.split);
      OpenPart();
    }
    recorder_.Put(*place, packet.Audio());
  }
  silent_ = now - lastFed_ > limit;
}

void Take::OpenPart() {
  if (writer_) writer_->Close();
  ++parts_;
  inPart_ = 0;
  writer_ = OpenToWrite(options_.split ? NameOfPart(file_, parts_) : file_, format_, freq_);
}

// Where one part ends in the middle of what is in order, the next goes on with the next frame.
void Take::Drain(bool all) {
  wire::Frames frames = recorder_.Take(all);
  frames.resize(static_cast<size_t>(std::min<uint64_t>(frames.size(), wanted_ - written_)));
  for (auto next = frames.begin(); next != frames.end() && !readerGone_;) {
    if (inPart_ == partSize_) OpenPart();
    const auto left = static_cast<uint64_t>(frames.end() - next);
    const auto count = static_cast<ptrdiff_t>(std::min(left, partSize_ - inPart_));
    readerGone_ = !writer_->Write(wire::Frames(next, next + count));
    next += count;
    inPart_ += static_cast<uint64_t>(count);
    written_ += static_cast<uint64_t>(count);
  }
}

void Take::Close() {
  if (writer_) writer_->Close();
}

double Take::TakePeak(int channel) {
  const double peak = stats_.TakePeak(channel);
  peaks_[channel] = std::max(peaks_[channel], peak);
  return peak;
}

Fields Take::ToFields(const std::string& passedOnTo) const {
  Fields fields;
  fields.Add("input", input_)
      .Add("file", parts_ > 0 && options_.split ? NameOfPart(file_, 1) : file_)
      .Add("files", parts_)
      .Add("frames", written_)
      .Add("sample_freq", freq_)
      .Add("passed_on_to", passedOnTo)
      .Add("peak_left_db", ToDecibel(peaks_[0]))
      .Add("peak_right_db", ToDecibel(peaks_[1]))
      .Add("rate", stats_.Rate());
  AddStats(fields, stats_);
  return fields;
}

std::string Take::ToText() const {
  std::string name = IsPipe(file_) ? "standard output" : file_;
  if (options_.split) {
    name = NameOfPart(file_, 1) + (parts_ > 1 ? " to " + NameOfPart(file_, parts_) : "");
  }
  const double seconds = freq_ == 0 ? 0 : static_cast<double>(written_) / freq_;
  return name + ": " + FormatNumber(seconds, 2) + " s at " + std::to_string(freq_) +
         " Hz, peak L " + Decibel(peaks_[0]) + ", R " + Decibel(peaks_[1]) + "; " +
         std::to_string(stats_.packets) + " packets, lost " + std::to_string(stats_.Lost()) +
         ", late " + std::to_string(stats_.Timing().Late());
}

class Recording {
 public:
  Recording(Session& session, const RecordOptions& options, Output& out)
      : session_(session), options_(options), out_(out) {}

  int Run();

 private:
  void CheckOptions() const;
  void ChooseInputs(const Unit& unit);
  void Hear(const Unit& unit, Listeners& listeners, InputLoan& loan);
  void ShowProgress();
  void ShowResult();
  void ReportSilent(const Unit& unit) const;

  Session& session_;
  const RecordOptions& options_;
  Output& out_;
  std::vector<Take> takes_;
  std::vector<std::string> passedOnTo_;  // likewise; where the input goes at other times
  std::vector<std::string> inUse_;
  std::vector<uint32_t> silent_;  // inputs that ended early
  Clock::time_point lastShown_;
};

int Recording::Run() {
  CheckOptions();  // before anything is touched
  const Unit unit = session_.FindUnit(options_.unit);
  ChooseInputs(unit);
  Listeners listeners;
  std::vector<InputLoan::Input> wanted;
  for (const Take& take : takes_) {
    const size_t number = listeners.Open(session_.LocalFor(unit));
    wanted.push_back(ToBorrow(session_, listeners, number, take.Input()));
  }
  InputLoan loan(session_, unit, wanted);
  const InUse inUse = session_.Common().inUse;
  for (size_t i = 0; i < takes_.size(); ++i) {
    const wire::Destination& former = loan.Former(i);
    passedOnTo_.push_back(former && inUse == InUse::PassOn ? former->ToText() : "");
    if (former) inUse_.push_back(InUseText(unit, takes_[i].Input(), former));
  }
  session_.Note(InUseLine(inUse, inUse_));

  // Ctrl-C ends the recording, which then is whole.
  const wire::Loop::Shield shield(session_.Loop());
  Hear(unit, listeners, loan);
  ShowResult();
  try {
    loan.Return();
  } catch (const std::exception&) {
    if (silent_.empty()) throw;  // else the silence is the news
  }
  NoteNotPassedOn(session_, listeners);
  ReportSilent(unit);
  return kDone;
}

void Recording::CheckOptions() const {
  FormatToWrite(options_.file, options_.format);
  if (!IsPipe(options_.file)) {
    if (options_.force) return;
    if (options_.allInputs) return;  // the unit says what their names are
    CheckFree(options_.file, options_.split.has_value());
    return;
  }
  if (options_.allInputs || options_.split) {
    throw Failure{kUsage,
                  "a pipe takes one input as a whole; give a file name with --input all "
                  "and --split"};
  }
  if (out_.Json()) throw Failure{kUsage, "standard output has the audio; leave out --json"};
  if (out_.Live()) {
    throw Failure{kUsage,
                  "standard output is a terminal; lead it into a program, such as: "
                  "qz640ctl record UNIT - | ffplay -"};
  }
}

// With --idle only those that are off.
void Recording::ChooseInputs(const Unit& unit) {
  const AudioFormat format = FormatToWrite(options_.file, options_.format);
  std::vector<uint32_t> inputs;
  for (uint32_t input = 0; options_.allInputs && input < unit.inputs; ++input)
    inputs.push_back(input);
  if (inputs.empty()) {
    CheckInput(unit, options_.input);
    inputs.push_back(options_.input);
  }
  std::vector<wire::Destination> now;
  if (session_.Common().inUse == InUse::LeaveOut) now = session_.Control(unit).GetInputs();
  for (const uint32_t input : inputs) {
    if (input < now.size() && now[input]) {
      inUse_.push_back(InUseText(unit, input, now[input]));
      continue;
    }
    const std::string file =
        options_.allInputs ? NameWith(options_.file, "-" + std::to_string(input)) : options_.file;
    if (options_.allInputs && !options_.force) CheckFree(file, options_.split.has_value());
    takes_.emplace_back(options_, format, input, file);
  }
  if (takes_.empty()) {
    throw Failure{kRefused, InUseLine(InUse::LeaveOut, inUse_) +
                                "; without --idle it is recorded and passed on to there"};
  }
}

// Until each input has all that is wanted or has gone silent.
void Recording::Hear(const Unit& unit, Listeners& listeners, InputLoan& loan) {
  auto lastRefresh = Clock::now();
  const auto goesOn = [](const Take& take) { return !take.HasAll() && !take.IsSilent(); };
  while (std::any_of(takes_.begin(), takes_.end(), goesOn) && !platform::WaitForStop(0)) {
    session_.Loop().RunFor(kPoll);
    const auto packets = listeners.Take();
    for (size_t i = 0; i < takes_.size(); ++i) {
      takes_[i].Feed(packets[i], session_.Timeout());
      takes_[i].Drain(false);
    }
    ShowProgress();
    if (Clock::now() - lastRefresh < kRefresh) continue;
    loan.Refresh();
    lastRefresh = Clock::now();
  }
  bool any = false;
  for (Take& take : takes_) {
    if (!take.HasAll() && take.IsSilent()) silent_.push_back(take.Input());
    take.Drain(true);
    take.Close();
    any = any || take.HasBegun();
  }
  out_.EndProgress();
  if (any) return;
  if (silent_.empty()) throw wire::Interrupted();
  throw Failure{kNoAnswer, unit.id + " took the request but no audio arrived at " +
                               listeners.Local(0).ToText() +
                               "; does a firewall let UDP to that "
                               "port through? (--local ADDR names another address)"};
}

void Recording::ShowProgress() {
  if (Clock::now() - lastShown_ < kRefresh) return;
  lastShown_ = Clock::now();
  uint64_t packets = 0;
  uint64_t lost = 0;
  uint64_t late = 0;
  double peaks[2] = {0, 0};  // the loudest input's
  for (Take& take : takes_) {
    packets += take.Stats().packets;
    lost += take.Stats().Lost();
    late += take.Stats().Timing().Late();
    for (int channel = 0; channel < 2; ++channel)
      peaks[channel] = std::max(peaks[channel], take.TakePeak(channel));
  }
  out_.Progress(ProgressLine(std::to_string(packets), std::to_string(lost), std::to_string(late),
                             peaks, out_.ProgressColumns()));
}

void Recording::ShowResult() {
  for (size_t i = 0; i < takes_.size(); ++i) {
    Take& take = takes_[i];
    for (int channel = 0; channel < 2; ++channel)
      take.TakePeak(channel);
    if (!take.HasBegun()) continue;
    out_.Object(take.ToFields(passedOnTo_[i]));
    if (IsPipe(options_.file)) {
      session_.Note(take.ToText());
    } else {
      out_.Line(take.ToText());
    }
  }
}

void Recording::ReportSilent(const Unit& unit) const {
  if (silent_.empty()) return;
  std::string inputs = silent_.size() == 1 ? "input " : "inputs ";
  for (const uint32_t input : silent_)
    inputs += (input == silent_.front() ? "" : ", ") + std::to_string(input);
  throw Failure{kNoAnswer, "the stream ended early: has " + unit.id + " been stopped, or its " +
                               inputs + " been sent elsewhere?"};
}

}  // namespace

int RunRecord(Session& session, const RecordOptions& options, Output& out) {
  return Recording(session, options, out).Run();
}

}  // namespace ctl
