// The commands that move audio: record, play.
#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>

#include "AudioFile.h"
#include "Commands.h"
#include "Listeners.h"
#include "Loan.h"
#include "Recorder.h"
#include "platform/startup.h"
#include "platform/thread.h"
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
constexpr size_t kMeterWidth = 20;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// From here on the loop moves audio: this thread, the only one, goes before those that needn't be
// in time. Where the user may not ask for that, nothing happens.
void BeginAudio() {
  platform::SetTimeCritical();
}

std::string Decibel(double peak) {
  return FormatNumber(ToDecibel(peak), 1) + " dB";
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

// Waits for the first audio packet, which has the sample frequency.
Packets WaitFirst(Session& session, Listeners& listeners, const Unit& unit) {
  Packets packets;
  const bool came = session.Loop().RunUntil(
      [&] {
        packets = listeners.Take().front();
        std::erase_if(packets, [](const StreamPacket& packet) { return packet.FrameCount() == 0; });
        return !packets.empty();
      },
      session.Timeout());
  if (came) return packets;
  throw Failure{kNoAnswer, unit.id + " took the request but no audio arrived at " +
                               listeners.Local(0).ToText() +
                               "; does a firewall let UDP to that "
                               "port through? (--local ADDR names another address)"};
}

class Recording {
 public:
  Recording(Session& session, const RecordOptions& options, Output& out)
      : session_(session), options_(options), out_(out) {}

  int Run();

 private:
  void CheckIdle(const Unit& unit);
  void Feed(const Packets& packets);
  void Drain(bool all);
  bool HasGoneSilent() const { return Clock::now() - lastFed_ > session_.Timeout(); }
  void ShowProgress();
  void ShowResult(uint32_t freq);

  Session& session_;
  const RecordOptions& options_;
  Output& out_;
  StreamStats stats_;
  Recorder recorder_;
  std::unique_ptr<WavWriter> writer_;
  std::string passedOnTo_;        // where the input goes at other times; empty: nowhere
  uint64_t wanted_ = UINT64_MAX;  // frames
  uint64_t written_ = 0;          // frames
  double peaks_[2] = {0, 0};      // of the whole recording
  Clock::time_point lastFed_;
  Clock::time_point lastShown_;
  Clock::time_point lastRefresh_;
};

int Recording::Run() {
  WavWriter::CheckFree(options_.file, options_.force);  // before anything is touched
  const Unit unit = session_.FindUnit(options_.unit);
  CheckInput(unit, options_.input);
  const InUse inUse = session_.Common().inUse;
  if (inUse == InUse::LeaveOut) CheckIdle(unit);
  Listeners listeners;
  listeners.Open(session_.LocalFor(unit));
  InputLoan loan(session_, unit, {ToBorrow(session_, listeners, 0, options_.input)});
  std::vector<std::string> named;
  if (const wire::Destination& former = loan.Former(0)) {
    named.push_back(InUseText(unit, options_.input, former));
    if (inUse == InUse::PassOn) passedOnTo_ = former->ToText();
  }
  session_.Note(InUseLine(inUse, named));

  const Packets first = WaitFirst(session_, listeners, unit);
  const uint32_t freq = wire::SampleFreqOf(first.front().Header().payloadType);
  writer_ = std::make_unique<WavWriter>(options_.file, freq, options_.force);
  if (options_.seconds) {
    wanted_ = static_cast<uint64_t>(std::llround(*options_.seconds * freq));
  }

  // Ctrl-C ends the recording, which then is whole.
  const wire::Loop::Shield shield(session_.Loop());
  BeginAudio();
  Feed(first);
  while (written_ < wanted_ && !platform::WaitForStop(0) && !HasGoneSilent()) {
    session_.Loop().RunFor(kPoll);
    Feed(listeners.Take().front());
    Drain(false);
    ShowProgress();
    if (Clock::now() - lastRefresh_ < kRefresh) continue;
    loan.Refresh();
    lastRefresh_ = Clock::now();
  }
  Drain(true);
  out_.EndProgress();
  writer_->Close();
  ShowResult(freq);
  const bool silent = HasGoneSilent();
  try {
    loan.Return();
  } catch (const std::exception& error) {
    if (!silent) throw;
    session_.Note(session_.ToFailure(error).text);
  }
  NoteNotPassedOn(session_, listeners);
  if (!silent) return kDone;
  throw Failure{kNoAnswer, "the stream ended early: has " + unit.id +
                               " been stopped, or its input " + std::to_string(options_.input) +
                               " been sent elsewhere?"};
}

void Recording::CheckIdle(const Unit& unit) {
  const auto inputs = session_.Control(unit).GetInputs();
  const wire::Destination to =
      options_.input < inputs.size() ? inputs[options_.input] : wire::Destination();
  if (!to) return;
  throw Failure{kRefused, "in use: " + InUseText(unit, options_.input, to) +
                              "; without --idle it is recorded and passed on to there"};
}

void Recording::Feed(const Packets& packets) {
  if (!packets.empty()) lastFed_ = Clock::now();
  for (const StreamPacket& packet : packets) {
    if (const auto place = stats_.Add(packet)) recorder_.Put(*place, packet.Audio());
  }
}

void Recording::Drain(bool all) {
  wire::Frames frames = recorder_.Take(all);
  frames.resize(static_cast<size_t>(std::min<uint64_t>(frames.size(), wanted_ - written_)));
  writer_->Write(frames);
  written_ += frames.size();
}

void Recording::ShowProgress() {
  if (SecondsSince(lastShown_) < 0.2) return;
  lastShown_ = Clock::now();
  std::string meters;
  for (int channel = 0; channel < 2; ++channel) {
    const double peak = stats_.TakePeak(channel);
    peaks_[channel] = std::max(peaks_[channel], peak);
    meters += std::string(channel == 0 ? " L " : " R ") + FormatMeter(peak, kMeterWidth);
  }
  out_.Progress(std::to_string(stats_.packets) + " packets" + meters + "  lost " +
                std::to_string(stats_.Lost()) + "  late " + std::to_string(stats_.Timing().Late()));
}

void Recording::ShowResult(uint32_t freq) {
  for (int channel = 0; channel < 2; ++channel) {
    peaks_[channel] = std::max(peaks_[channel], stats_.TakePeak(channel));
  }
  Fields fields;
  fields.Add("file", options_.file)
      .Add("frames", written_)
      .Add("sample_freq", freq)
      .Add("passed_on_to", passedOnTo_)
      .Add("peak_left_db", ToDecibel(peaks_[0]))
      .Add("peak_right_db", ToDecibel(peaks_[1]))
      .Add("rate", stats_.Rate());
  AddStats(fields, stats_);
  out_.Object(fields);
  out_.Line(options_.file + ": " + FormatNumber(static_cast<double>(written_) / freq, 2) +
            " s at " + std::to_string(freq) + " Hz, peak L " + Decibel(peaks_[0]) + ", R " +
            Decibel(peaks_[1]) + "; " + std::to_string(stats_.packets) + " packets, lost " +
            std::to_string(stats_.Lost()) + ", late " + std::to_string(stats_.Timing().Late()));
}

}  // namespace

int RunRecord(Session& session, const RecordOptions& options, Output& out) {
  return Recording(session, options, out).Run();
}

int RunPlay(Session& session, const PlayOptions& options, Output& out) {
  const Unit unit = session.FindUnit(options.unit);
  CheckOutput(unit, options.output);

  uint64_t frames = static_cast<uint64_t>(std::llround(options.seconds * options.sampleFreq));
  wire::AudioSender::Source source;
  if (options.pattern) {
    source = wire::PatternSource(frames);
  } else if (options.toneHz) {
    source = wire::ToneSource(*options.toneHz, options.levelDb, options.sampleFreq, frames);
  } else {
    const auto reader = std::make_shared<AudioReader>(options.file, options.sampleFreq);
    frames = reader->FrameCount();
    source = [reader] { return reader->Read(wire::kPacketFrames); };
  }

  const wire::Endpoint to = unit.Output(options.output);
  const wire::Loop::Shield shield(session.Loop());
  BeginAudio();
  wire::AudioSender sender(session.Loop(), to, options.sampleFreq, options.ppm, std::move(source));
  const uint64_t packets = (frames + wire::kPacketFrames - 1) / wire::kPacketFrames;
  while (!sender.WaitEnd(milliseconds(200)) && !platform::WaitForStop(0)) {
    out.Progress(std::to_string(sender.Sent()) + " of " + std::to_string(packets) + " packets to " +
                 to.ToText());
  }
  out.EndProgress();

  out.Object(
      Fields().Add("to", to.ToText()).Add("packets", sender.Sent()).Add("failed", sender.Failed()));
  out.Line("sent " + std::to_string(sender.Sent()) + " packets to " + to.ToText() +
           (sender.Failed() ? ", " + std::to_string(sender.Failed()) + " failed" : ""));
  return sender.Failed() == 0 ? kDone : kRefused;
}

}  // namespace ctl
