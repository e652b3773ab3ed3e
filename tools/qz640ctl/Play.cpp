// The command "play": a file, a pipe, a tone or the test pattern, sent to an output.
#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <utility>

#include "AudioFile.h"
#include "Commands.h"
#include "Loan.h"
#include "Resampler.h"
#include "platform/startup.h"
#include "platform/thread.h"
#include "wire/Streams.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::kPacketFrames;

namespace {

// Frames that are read ahead, so that neither a disk nor the sender of a pipe has to be in time.
constexpr size_t kAhead = 48000;

// What has to be there before the first packet goes out.
constexpr size_t kBegin = 12000;

constexpr auto kTurn = milliseconds(10);

constexpr uint32_t kUsualFreq = 48000;
constexpr auto kFirstPacket = milliseconds(300);

// Between a file or pipe, which has frames when it has, and the stream, which takes them at the
// unit's pace.
class ReadAhead {
 public:
  ReadAhead(std::unique_ptr<AudioReader> reader, std::unique_ptr<Resampler> resampler)
      : reader_(std::move(reader)), resampler_(std::move(resampler)) {}

  // Reads one piece, if there is one and room for it: to convert it takes some milliseconds, in
  // which no packet goes out. Throws Failure.
  void Fill() {
    if (ended_ || waiting_.size() >= kAhead) return;
    wire::Frames frames = reader_->Read();
    ended_ = reader_->Ended();
    if (resampler_) frames = resampler_->Convert(frames, ended_);
    waiting_.insert(waiting_.end(), frames.begin(), frames.end());
  }

  bool CanBegin() const { return ended_ || waiting_.size() >= kBegin; }

  // A packet, which at the end of the stream may be short, and then none. In between, where the
  // other end of the pipe is too slow, it is silence: the unit counts on the pace.
  wire::Frames Next() {
    if (!ended_ && waiting_.size() < kPacketFrames) {
      ++silent_;
      return wire::Frames(kPacketFrames);
    }
    const auto end =
        waiting_.begin() + static_cast<ptrdiff_t>(std::min<size_t>(waiting_.size(), kPacketFrames));
    wire::Frames frames(waiting_.begin(), end);
    waiting_.erase(waiting_.begin(), end);
    return frames;
  }

  uint64_t Silent() const { return silent_; }  // packets

 private:
  std::unique_ptr<AudioReader> reader_;
  std::unique_ptr<Resampler> resampler_;
  std::deque<wire::Frame> waiting_;
  uint64_t silent_ = 0;
  bool ended_ = false;
};

// What a unit runs at, in Hz, or why that can't be known.
struct UnitRate {
  uint32_t hertz = 0;
  std::string unknown = {};
};

// No message says it, but the packets of an input do. One that is off is sent here until the first
// has come; nobody else's is touched. Other commands that borrow wait meanwhile.
UnitRate HearRate(Session& session, const wire::Unit& unit) {
  const LoanBook::Exchange exchange;
  try {
    const std::vector<wire::Destination> now = session.Control(unit).GetInputs();
    const size_t count = std::min<size_t>(now.size(), unit.inputs);
    const auto end = now.begin() + static_cast<ptrdiff_t>(count);
    const auto off = std::find(now.begin(), end, wire::Destination());
    if (count == 0) return {.unknown = "it has no input to hear that by"};
    if (off == end) return {.unknown = "its inputs are in use"};
    const auto input = static_cast<uint32_t>(off - now.begin());
    wire::AudioReceiver receiver(session.Loop(), session.LocalFor(unit));
    InputLoan loan(session, unit, {{input, receiver.Local(), nullptr}});
    receiver.WaitCount(1, kFirstPacket);
    loan.Return();
    for (const wire::StreamPacket& packet : receiver.Packets()) {
      if (packet.FrameCount() > 0) return {wire::SampleFreqOf(packet.Header().payloadType)};
    }
    return {.unknown = "its input " + std::to_string(input) + " can't be heard here"};
  } catch (const wire::Interrupted&) {
    throw;
  } catch (const std::exception& error) {
    return {.unknown = session.ToFailure(error).text};
  }
}

class Playing {
 public:
  Playing(Session& session, const PlayOptions& options, Output& out)
      : session_(session), options_(options), out_(out) {}

  int Run();

 private:
  void ChooseFreq(const wire::Unit& unit);
  wire::AudioSender::Source OpenSource();
  void OpenFile();
  std::string Progress(uint64_t sent) const;
  void ShowResult(const wire::AudioSender& sender, const std::string& to);

  Session& session_;
  const PlayOptions& options_;
  Output& out_;
  uint32_t freq_ = kUsualFreq;       // Hz
  bool heard_ = false;               // the unit runs at that
  std::unique_ptr<ReadAhead> file_;  // null for a tone and the pattern
  std::optional<uint64_t> frames_;   // of all, at the unit's frequency, as far as that is known
};

int Playing::Run() {
  const wire::Unit unit = session_.FindUnit(options_.unit);
  CheckOutput(unit, options_.output);
  ChooseFreq(unit);
  wire::AudioSender::Source source = OpenSource();

  const wire::Endpoint to = unit.Output(options_.output);
  const wire::Loop::Shield shield(session_.Loop());
  // From here on the loop moves audio: this thread, the only one, goes before those that needn't be
  // in time. Where the user may not ask for that, nothing happens.
  platform::SetTimeCritical();
  wire::AudioSender sender(session_.Loop(), to, freq_, options_.ppm, std::move(source));
  auto lastShown = wire::Clock::now();
  while (!sender.WaitEnd(kTurn) && !platform::WaitForStop(0)) {
    if (file_) file_->Fill();
    if (wire::Clock::now() - lastShown < milliseconds(200)) continue;
    lastShown = wire::Clock::now();
    out_.Progress(Progress(sender.Sent()) + " to " + to.ToText());
  }
  out_.EndProgress();
  ShowResult(sender, to.ToText());
  if (!sender.Ended()) throw Failure{kRefused, "stopped after " + Progress(sender.Sent())};
  return sender.Failed() == 0 ? kDone : kRefused;
}

// Refuses a frequency that the unit is heard not to run at.
void Playing::ChooseFreq(const wire::Unit& unit) {
  freq_ = options_.sampleFreq.value_or(kUsualFreq);
  if (options_.force) return;
  const UnitRate rate = HearRate(session_, unit);
  heard_ = rate.hertz != 0;
  if (!heard_) {
    if (options_.sampleFreq) return;
    session_.Note(unit.id + " is taken to run at " + std::to_string(freq_) +
                  " Hz: " + rate.unknown + "; --freq says what it runs at");
    return;
  }
  if (options_.sampleFreq && freq_ != rate.hertz) {
    const std::string what = options_.toneHz    ? "--tone " + FormatNumber(*options_.toneHz, 0)
                             : options_.pattern ? "--pattern"
                                                : "\"" + options_.file + "\"";
    throw Failure{kRefused, unit.id + " runs at " + std::to_string(rate.hertz) +
                                " Hz and would play " + std::to_string(freq_) +
                                " Hz at another pitch; this does it right: qz640ctl play " +
                                options_.unit + " " + what + " --freq " +
                                std::to_string(rate.hertz) + " (with --force it is sent as it is)"};
  }
  freq_ = rate.hertz;
}

wire::AudioSender::Source Playing::OpenSource() {
  const auto frames = static_cast<uint64_t>(std::llround(options_.seconds * freq_));
  if (options_.file.empty()) frames_ = frames;
  if (options_.pattern) return wire::PatternSource(frames);
  if (options_.toneHz) {
    return wire::ToneSource(*options_.toneHz, options_.levelDb, freq_, frames);
  }
  OpenFile();
  return [this] { return file_->Next(); };
}

// A unit takes a stream at either frequency and plays it at its own, so one at another would be
// heard at another pitch.
void Playing::OpenFile() {
  auto reader = OpenToRead(options_.file, options_.format, freq_);
  const std::string has = std::to_string(reader->SampleFreq());
  const std::string wanted = std::to_string(freq_);
  std::unique_ptr<Resampler> resampler;
  frames_ = reader->FrameCount();
  if (reader->SampleFreq() != freq_) {
    const std::string what =
        (IsPipe(options_.file) ? "standard input" : options_.file) + " has " + has + " Hz";
    const bool takes = reader->SampleFreq() == 44100 || reader->SampleFreq() == 48000;
    const std::string asIs =
        takes && !heard_ ? "for a unit that runs at " + has + " Hz give --freq " + has : "";
    resampler = Resampler::Create(reader->SampleFreq(), freq_);
    if (!resampler) {
      const std::string in = IsPipe(options_.file) ? "-" : "\"" + options_.file + "\"";
      throw Failure{kRefused,
                    what + (heard_ ? ", the unit runs at " : ", the unit is taken to run at ") +
                        wanted +
                        " Hz, and this qz640ctl was built without libsamplerate, which "
                        "converts; convert it first: ffmpeg -i " +
                        in + " -ar " + wanted + " -c:a pcm_s24le out.wav" +
                        (asIs.empty() ? "" : "; or " + asIs)};
    }
    session_.Note(what + ", converted to " + wanted + " Hz" + (asIs.empty() ? "" : "; " + asIs));
    if (frames_) {
      const double ratio = static_cast<double>(freq_) / reader->SampleFreq();
      frames_ = static_cast<uint64_t>(std::llround(static_cast<double>(*frames_) * ratio));
    }
  }
  file_ = std::make_unique<ReadAhead>(std::move(reader), std::move(resampler));
  for (file_->Fill(); !file_->CanBegin(); file_->Fill())
    session_.Loop().RunFor(kTurn);
}

std::string Playing::Progress(uint64_t sent) const {
  std::string text = std::to_string(sent);
  if (frames_) text += " of " + std::to_string((*frames_ + kPacketFrames - 1) / kPacketFrames);
  return text + " packets";
}

void Playing::ShowResult(const wire::AudioSender& sender, const std::string& to) {
  const uint64_t silent = file_ ? file_->Silent() : 0;
  out_.Object(Fields()
                  .Add("to", to)
                  .Add("sample_freq", freq_)
                  .Add("packets", sender.Sent())
                  .Add("failed", sender.Failed())
                  .Add("silent", silent));
  out_.Line("sent " + std::to_string(sender.Sent()) + " packets to " + to +
            (sender.Failed() ? ", " + std::to_string(sender.Failed()) + " failed" : "") +
            (silent
                 ? ", " + std::to_string(silent) + " of silence, as the audio didn't come in time"
                 : ""));
}

}  // namespace

int RunPlay(Session& session, const PlayOptions& options, Output& out) {
  return Playing(session, options, out).Run();
}

}  // namespace ctl
