// The command "trace": control messages and streams that pass an interface, or that a capture has.
#include <chrono>
#include <optional>

#include "Capture.h"
#include "Commands.h"
#include "Printable.h"
#include "Tracer.h"
#include "platform/startup.h"
#include "wire/Explain.h"
#include "wire/Link.h"

namespace ctl {

using wire::Json;

namespace {

using Fate = TracedMessage::Fate;

// An acknowledgement that comes later than this makes the sender repeat its message.
constexpr double kLateMs = std::chrono::duration<double, std::milli>(wire::kAckTimeout).count();

// Frames of several threads of the system may come in somewhat mixed order.
constexpr int64_t kStillComing = 200'000'000;  // ns

constexpr size_t kMostShown = 160;  // bytes of a message's own keys

int64_t WallNanoseconds() {
  using namespace std::chrono;
  return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

// The message without what the line says already.
std::string OwnKeys(const TracedMessage& message) {
  if (message.fate == Fate::Bad) return {};
  Json body = message.body;
  for (const char* key : {"msg", "msg_id", "err_msg_id"})
    body.erase(key);
  if (body.empty()) return {};
  const std::string text = wire::ToAscii(body);
  return " " + (text.size() <= kMostShown ? text : text.substr(0, kMostShown) + "...");
}

class Tracing {
 public:
  Tracing(const TraceOptions& options, Output& out) : options_(options), out_(out) {
    tracer_.onMessage = [this](const TracedMessage& message) { Show(message); };
    tracer_.onStream = [this](const TracedStream& stream) { Show(stream); };
  }

  void ReadFile();
  void Listen();
  void ShowSums();

 private:
  void Show(const TracedMessage& message);
  void Show(const TracedStream& stream);
  std::string FateText(const TracedMessage& message, double afterMs) const;
  void Take(const CapturedFrame& frame) {
    if (const auto datagram = ToDatagram(frame)) tracer_.Take(*datagram);
  }

  const TraceOptions& options_;
  Output& out_;
  Tracer tracer_;
  uint64_t messages_ = 0;
  uint64_t unacknowledged_ = 0;
  uint64_t late_ = 0;
  uint64_t repeated_ = 0;
  uint64_t errors_ = 0;
  uint64_t bad_ = 0;
  uint64_t packets_ = 0;
  uint64_t lost_ = 0;
};

void Tracing::ReadFile() {
  CaptureReader reader(options_.read);
  while (const auto frame = reader.Next()) {
    if (platform::WaitForStop(0)) break;
    Take(*frame);
  }
  tracer_.Settle(INT64_MAX);
}

void Tracing::Listen() {
  Capture capture(options_.on);
  std::optional<CaptureWriter> writer;
  if (!options_.write.empty()) writer.emplace(options_.write, capture.LinkType());
  out_.Note("listening on " + options_.on + " until Ctrl-C");
  const auto end =
      wire::Clock::now() + std::chrono::duration<double>(options_.seconds.value_or(1e9));
  while (!platform::WaitForStop(0) && wire::Clock::now() < end) {
    capture.Take([&](const CapturedFrame& frame) {
      if (writer) writer->Write(frame);
      Take(frame);
    });
    tracer_.Settle(WallNanoseconds() - kStillComing);
  }
  tracer_.Settle(INT64_MAX);
  if (const uint64_t dropped = capture.Dropped()) {
    out_.Note(std::to_string(dropped) +
              " datagrams came faster than they were taken and are missing here, so what is shown "
              "as lost or not acknowledged may not be");
  }
}

std::string Tracing::FateText(const TracedMessage& message, double afterMs) const {
  switch (message.fate) {
    case Fate::Acknowledged: {
      const std::string text = "acknowledged after " + FormatNumber(afterMs, 2) + " ms";
      return afterMs < kLateMs ? text : out_.Paint(Colour::Yellow, "late: " + text);
    }
    case Fate::NotAcknowledged:
      return out_.Paint(Colour::Red, "NOT ACKNOWLEDGED");
    case Fate::NeedsNone:
      return "to all";
    case Fate::Bad:
      return out_.Paint(Colour::Red, "BAD: " + Printable(message.why));
  }
  return {};
}

void Tracing::Show(const TracedMessage& message) {
  const double afterMs = static_cast<double>(message.acknowledgedAfter) / 1e6;
  ++messages_;
  unacknowledged_ += message.fate == Fate::NotAcknowledged ? 1 : 0;
  bad_ += message.fate == Fate::Bad ? 1 : 0;
  late_ += message.fate == Fate::Acknowledged && afterMs >= kLateMs ? 1 : 0;
  repeated_ += message.transmissions > 1 ? 1 : 0;
  const bool error = message.type == "error" && message.fate != Fate::Bad;
  errors_ += error ? 1 : 0;

  constexpr const char* kFates[] = {"acknowledged", "not acknowledged", "needs none", "bad"};
  Fields fields;
  fields.Add("time", TimeText(message.datagram.time))
      .Add("from", message.datagram.from.ToText())
      .Add("to", message.datagram.to.ToText())
      .Add("msg", message.type)
      .Add("msg_id", message.id)
      .Add("fate", kFates[static_cast<int>(message.fate)])
      .Add("sent", message.transmissions);
  if (message.fate == Fate::Acknowledged) fields.Add("after_ms", afterMs);
  if (error) fields.Add("error_of", wire::NumberAt(message.body, "err_msg_id"));
  if (message.fate == Fate::Bad) {
    fields.Add("why", message.why);
  } else {
    fields.Add("body", wire::ToAscii(message.body));
  }
  out_.Object(fields);

  std::string line = TimeText(message.datagram.time) + "  " + message.datagram.from.ToText() +
                     " > " + message.datagram.to.ToText() + "  ";
  const std::string name = PrintableCell(message.type) + " " + std::to_string(message.id);
  line +=
      error ? out_.Paint(Colour::Red,
                         name + " to " + std::to_string(wire::NumberAt(message.body, "err_msg_id")))
            : name;
  line += OwnKeys(message) + "  " + FateText(message, afterMs);
  if (message.transmissions > 1) {
    line += ", " +
            out_.Paint(Colour::Yellow, "sent " + std::to_string(message.transmissions) + " times");
  }
  out_.Line(line);
}

void Tracing::Show(const TracedStream& stream) {
  packets_ += stream.packets;
  lost_ += stream.lost;
  out_.Object(Fields()
                  .Add("time", TimeText(stream.time))
                  .Add("from", stream.from.ToText())
                  .Add("to", stream.to.ToText())
                  .Add("freq", stream.freq)
                  .Add("packets", stream.packets)
                  .Add("lost", stream.lost)
                  .Add("out_of_order", stream.outOfOrder)
                  .Add("doubled", stream.doubled)
                  .Add("jitter_ms", stream.jitterMs)
                  .Add("peak_left_db", ToDecibel(stream.peak[0]))
                  .Add("peak_right_db", ToDecibel(stream.peak[1])));
  const auto count = [&](const char* what, uint64_t number, Colour colour) {
    const std::string text = std::string(what) + " " + std::to_string(number);
    return ", " + (number == 0 ? text : out_.Paint(colour, text));
  };
  out_.Line(
      TimeText(stream.time) + "  " + stream.from.ToText() + " > " + stream.to.ToText() +
      "  stream of " + std::to_string(stream.freq) + " Hz: " + std::to_string(stream.packets) +
      " packets" + count("lost", stream.lost, Colour::Red) +
      count("out of order", stream.outOfOrder, Colour::Yellow) +
      count("doubled", stream.doubled, Colour::Yellow) + ", jitter " +
      FormatNumber(stream.jitterMs, 2) + " ms, peak " + FormatNumber(ToDecibel(stream.peak[0]), 1) +
      " " + FormatNumber(ToDecibel(stream.peak[1]), 1) + " dB");
}

void Tracing::ShowSums() {
  out_.Note(std::to_string(messages_) + " messages (" + std::to_string(unacknowledged_) +
            " not acknowledged, " + std::to_string(late_) + " late, " + std::to_string(repeated_) +
            " repeated, " + std::to_string(errors_) + " errors, " + std::to_string(bad_) +
            " bad), " + std::to_string(packets_) + " packets of streams (" + std::to_string(lost_) +
            " lost)");
}

}  // namespace

int RunTrace(const TraceOptions& options, Output& out) {
  Tracing tracing(options, out);
  if (options.read.empty()) {
    tracing.Listen();
  } else {
    tracing.ReadFile();
  }
  tracing.ShowSums();
  return kDone;
}

}  // namespace ctl
