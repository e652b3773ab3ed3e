// The command "check": a tour through everything that a unit has to do on the wire.
#include <algorithm>

#include "Check.h"
#include "Commands.h"
#include "Probe.h"
#include "platform/clock.h"
#include "platform/startup.h"
#include "platform/text.h"
#include "runtime/Clocks.h"

namespace ctl {

using namespace Network;

namespace {

constexpr uint32_t kAckMs = 500;     // for an acknowledgement, before it counts as missing
constexpr uint32_t kSettleMs = 400;  // by then all repeats of a datagram are over
constexpr double kAckGoodMs = 50;    // later ones make the peer repeat
constexpr uint32_t kTransmissions = 5;
constexpr uint32_t kNoFreq = 1;           // Hz; whatever a unit has, it isn't this
constexpr size_t kLongAttachment = 3000;  // bytes: a head and three segments

double Ms(int64_t ticks) {
  return static_cast<double>(ticks) / 1e4;
}
std::string MsText(double ms) {
  return FormatNumber(ms, 1) + " ms";
}

const char* Word(Verdict verdict) {
  switch (verdict) {
    case Verdict::Pass:
      return "pass";
    case Verdict::Warn:
      return "warn";
    case Verdict::Fail:
      return "fail";
    case Verdict::Skip:
      return "could-not-test";
  }
  return "";
}

Colour ColourOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::Pass:
      return Colour::Green;
    case Verdict::Warn:
      return Colour::Yellow;
    case Verdict::Fail:
      return Colour::Red;
    case Verdict::Skip:
      return Colour::Dim;
  }
  return Colour::None;
}

// The control protocol's checks. Each asks for one thing and reports one line.
class ControlTour {
 public:
  ControlTour(const Unit& unit, const CommonOptions& common, CheckReport& report)
      : unit_(unit), common_(common), report_(report) {}

  void Run() {
    Discovery();
    Acknowledgement();
    Repeats();
    DuplicateFilter();
    UnknownIsHarmless();
    DevInfo();
    Inputs();
    State();
    Fm();
    Segments();
  }

 private:
  void Discovery();
  void Acknowledgement();
  void Repeats();
  void DuplicateFilter();
  void UnknownIsHarmless();
  void DevInfo();
  void Inputs();
  void State();
  void Fm();
  void FmTuner(uint32_t tuners);
  void FmRefused(const char* name, const std::shared_ptr<JsonMsg>& request, uint32_t code);
  void Segments();

  // Sends a request and waits for its answer; both are acknowledged as they should be.
  template <typename Answer>
  std::shared_ptr<Answer> Ask(const std::shared_ptr<JsonMsg>& request) {
    probe_.Clear();
    probe_.Send(request, unit_.control);
    const auto answer = probe_.Wait(Is<Answer>(), common_.timeoutMs);
    return answer ? std::dynamic_pointer_cast<Answer>(answer->msg) : nullptr;
  }

  Probe::Test AckOf(const JsonMsg& msg) const {
    const uint32_t id = msg.msg_id;
    return [id](const Probe::Arrival& arrival) {
      const auto* ack = dynamic_cast<const JsonMsgAck*>(arrival.msg.get());
      return ack && ack->ack_msg_id == id;
    };
  }

  const Unit unit_;
  const CommonOptions& common_;
  CheckReport& report_;
  Probe probe_;
};

void ControlTour::Discovery() {
  const std::vector<NetAddr> at = common_.DiscoverAt();
  for (const NetAddr& addr : at)
    probe_.Send(std::make_shared<JsonMsgDevFind>(), addr);
  const auto found = probe_.Wait(
      [&](const Probe::Arrival& arrival) {
        return arrival.from == unit_.control && Is<JsonMsgDevInfo>()(arrival);
      },
      common_.timeoutMs);
  if (found) {
    report_.Add("discovery", Verdict::Pass, "answered from " + unit_.Control());
  } else {
    report_.Add("discovery", Verdict::Fail,
                "no dev_info from " + unit_.Control() + " (asked at " +
                    (at.empty() ? std::string("no interface") : ToText(at.front())) +
                    (at.size() > 1 ? " and elsewhere)" : ")"));
  }
}

void ControlTour::Acknowledgement() {
  probe_.Clear();
  const auto request = std::make_shared<JsonMsgGetState>();  // has no answer but this
  const int64_t sent = probe_.Send(request, unit_.control);
  const auto ack = probe_.Wait(AckOf(*request), kAckMs);
  if (ack) {
    const double ms = Ms(ack->time - sent);
    report_.Add("acknowledgement", ms <= kAckGoodMs ? Verdict::Pass : Verdict::Fail, MsText(ms));
    return;
  }
  const auto other = probe_.Wait(Is<JsonMsgAck>(), 0);
  if (!other) {
    report_.Add("acknowledgement", Verdict::Fail, "none within " + MsText(kAckMs));
    return;
  }
  const auto& wrong = static_cast<const JsonMsgAck&>(*other->msg);
  report_.Add("acknowledgement", Verdict::Fail,
              "names message " + std::to_string(wrong.ack_msg_id) + ", not " +
                  std::to_string(request->msg_id));
}

// An answer that nobody acknowledges comes five times, some 50 ms apart, and then no more.
void ControlTour::Repeats() {
  probe_.Clear();
  probe_.SetAcknowledge(false);
  probe_.Send(std::make_shared<JsonMsgGetDevInfo>(), unit_.control);
  const auto first = probe_.Wait(Is<JsonMsgDevInfo>(), common_.timeoutMs);
  if (!first) {
    probe_.SetAcknowledge(true);
    report_.Add("repeats", Verdict::Fail, "get_dev_info was not answered");
    return;
  }
  const uint32_t id = first->msg->msg_id;
  const auto same = [id](const Probe::Arrival& arrival) { return arrival.msg->msg_id == id; };
  const auto all = probe_.Collect(same, 2 * kSettleMs);
  probe_.SetAcknowledge(true);
  probe_.Send(std::make_shared<JsonMsgAck>(id), unit_.control);

  double longest = 0;
  double shortest = 1e9;
  for (size_t i = 1; i < all.size(); ++i) {
    longest = std::max(longest, Ms(all[i].time - all[i - 1].time));
    shortest = std::min(shortest, Ms(all[i].time - all[i - 1].time));
  }
  const std::string figure =
      std::to_string(all.size()) + " transmissions" +
      (all.size() > 1 ? ", " + MsText(shortest) + " to " + MsText(longest) + " apart" : "");
  if (all.size() != kTransmissions) {
    report_.Add("repeats", Verdict::Fail, figure + "; there must be 5");
  } else {
    const bool paced = shortest >= 40 && longest <= 100;
    report_.Add("repeats", paced ? Verdict::Pass : Verdict::Warn, figure);
  }
}

void ControlTour::DuplicateFilter() {
  probe_.Clear();
  const auto request = std::make_shared<JsonMsgGetDevInfo>();
  for (int i = 0; i < 3; ++i)
    probe_.Send(request, unit_.control);
  const auto acks = probe_.Collect(AckOf(*request), kSettleMs);
  const auto answers = probe_.Collect(Is<JsonMsgDevInfo>(), 0);
  std::vector<uint32_t> ids;
  for (const auto& answer : answers)
    ids.push_back(answer.msg->msg_id);
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  const bool good = acks.size() == 3 && ids.size() == 1;
  report_.Add("duplicate filter", good ? Verdict::Pass : Verdict::Fail,
              "3 copies: " + std::to_string(acks.size()) + " acknowledgements, " +
                  std::to_string(ids.size()) + " answer(s)");
}

void ControlTour::UnknownIsHarmless() {
  // An answer type is no request: acknowledged, and nothing else.
  probe_.Clear();
  const auto stray = std::make_shared<JsonMsgState>();
  probe_.Send(stray, unit_.control);
  const bool acked = probe_.Wait(AckOf(*stray), kAckMs).has_value();
  const auto others = probe_.Collect(
      [](const Probe::Arrival& arrival) { return !Is<JsonMsgAck>()(arrival); }, kSettleMs / 2);
  report_.Add("stray message", acked && others.empty() ? Verdict::Pass : Verdict::Fail,
              std::string(acked ? "acknowledged" : "not acknowledged") + ", " +
                  std::to_string(others.size()) + " other datagram(s)");
}

void ControlTour::DevInfo() {
  const auto info = Ask<JsonMsgDevInfo>(std::make_shared<JsonMsgGetDevInfo>());
  if (!info) {
    report_.Add("get_dev_info", Verdict::Fail, "no answer");
    return;
  }
  const bool same = info->inputs == unit_.inputs && info->outputs == unit_.outputs;
  report_.Add("get_dev_info", same ? Verdict::Pass : Verdict::Fail,
              unit_.Type() + ", " + std::to_string(info->inputs) + " in, " +
                  std::to_string(info->outputs) + " out, RTP port " +
                  std::to_string(info->rtp_port));
}

void ControlTour::Inputs() {
  const auto inputs = Ask<JsonMsgInputs>(std::make_shared<JsonMsgGetInputs>());
  const bool counted = inputs && inputs->inputs.size() == unit_.inputs;
  report_.Add("get_inputs", counted ? Verdict::Pass : Verdict::Fail,
              inputs ? std::to_string(inputs->inputs.size()) + " addresses" : "no answer");
  if (!counted) return;

  // A wrong count must change nothing.
  auto wrong = std::make_shared<JsonMsgSetInputs>();
  wrong->inputs.resize(unit_.inputs + 1);
  for (InputChange& input : wrong->inputs)
    input.set = true;
  probe_.Send(wrong, unit_.control);
  probe_.Wait(AckOf(*wrong), kAckMs);
  const auto after = Ask<JsonMsgInputs>(std::make_shared<JsonMsgGetInputs>());
  const bool kept = after && after->inputs == inputs->inputs;
  report_.Add("set_inputs, wrong count", kept ? Verdict::Pass : Verdict::Fail,
              kept ? "nothing changed" : "the inputs changed, or the unit went silent");
}

void ControlTour::State() {
  const auto request = std::make_shared<JsonMsgSetState>();
  request->device_freq = kNoFreq;
  probe_.Clear();
  probe_.Send(request, unit_.control);
  const bool acked = probe_.Wait(AckOf(*request), kAckMs).has_value();
  const auto info = Ask<JsonMsgDevInfo>(std::make_shared<JsonMsgGetDevInfo>());
  report_.Add("set_state, 1 Hz", acked && info ? Verdict::Pass : Verdict::Fail,
              std::string(acked ? "acknowledged" : "not acknowledged") +
                  (info ? ", goes on" : ", and silent from then on"));
}

void ControlTour::Fm() {
  const auto request = std::make_shared<JsonMsgGetFmFreq>();
  probe_.Clear();
  probe_.Send(request, unit_.control);
  const auto answer = probe_.Wait(
      [](const Probe::Arrival& a) { return Is<JsonMsgFmFreq>()(a) || Is<JsonMsgError>()(a); },
      common_.timeoutMs);
  if (!answer) {
    report_.Add("get_fm_freq", Verdict::Fail, "no answer");
    return;
  }
  if (const auto* freqs = dynamic_cast<const JsonMsgFmFreq*>(answer->msg.get())) {
    report_.Add("get_fm_freq", freqs->freq.size() == unit_.inputs ? Verdict::Pass : Verdict::Fail,
                std::to_string(freqs->freq.size()) + " tuners");
    FmTuner(static_cast<uint32_t>(freqs->freq.size()));
    return;
  }
  // Without tuners all three requests are refused.
  FmRefused("get_fm_freq", std::make_shared<JsonMsgGetFmFreq>(), 1);
  FmRefused("set_fm_freq", std::make_shared<JsonMsgSetFmFreq>(), 1);
  FmRefused("get_fm_quality", std::make_shared<JsonMsgGetFmQuality>(), 1);
}

void ControlTour::FmTuner(uint32_t tuners) {
  const auto before = Ask<JsonMsgFmFreq>(std::make_shared<JsonMsgGetFmFreq>());
  if (!before || tuners == 0) return;
  auto change = std::make_shared<JsonMsgSetFmFreq>();
  change->freq.assign(tuners, 0);
  change->freq[tuners - 1] = before->freq[tuners - 1] + 100;
  probe_.Send(change, unit_.control);
  probe_.Wait(AckOf(*change), kAckMs);
  const auto after = Ask<JsonMsgFmFreq>(std::make_shared<JsonMsgGetFmFreq>());
  auto expected = before->freq;
  expected[tuners - 1] += 100;

  auto restore = std::make_shared<JsonMsgSetFmFreq>();
  restore->freq = before->freq;
  probe_.Send(restore, unit_.control);
  probe_.Wait(AckOf(*restore), kAckMs);
  report_.Add("set_fm_freq", after && after->freq == expected ? Verdict::Pass : Verdict::Fail,
              "the last tuner alone, 100 up");

  auto wrong = std::make_shared<JsonMsgSetFmFreq>();
  wrong->freq.assign(tuners + 1, 0);
  FmRefused("set_fm_freq, wrong count", wrong, 2);
  const auto quality = Ask<JsonMsgFmQuality>(std::make_shared<JsonMsgGetFmQuality>());
  report_.Add("get_fm_quality",
              quality && quality->rssi.size() == tuners ? Verdict::Pass : Verdict::Fail,
              quality ? std::to_string(quality->rssi.size()) + " tuners" : "no answer");
}

void ControlTour::FmRefused(const char* name, const std::shared_ptr<JsonMsg>& request,
                            uint32_t code) {
  const auto error = Ask<JsonMsgError>(request);
  if (!error) {
    report_.Add(name, Verdict::Fail, "no error answer");
    return;
  }
  const bool good = error->code == code && error->err_msg_id == request->msg_id;
  report_.Add(name, good ? Verdict::Pass : Verdict::Fail,
              "error " + std::to_string(error->code) + " for message " +
                  std::to_string(error->err_msg_id) +
                  (good ? ""
                        : "; expected error " + std::to_string(code) + " for " +
                              std::to_string(request->msg_id)));
}

// Head and segments by the connection itself; the unit puts them together and answers.
void ControlTour::Segments() {
  auto request = std::make_shared<JsonMsgGetDevInfo>();
  request->attachment.assign(kLongAttachment, 0xA5);
  const int64_t start = ClockRead(nullptr);
  try {
    UnitLink link(unit_.control, common_.timeoutMs);
    link.Ask<JsonMsgDevInfo>(request);
    report_.Add("segmented message", Verdict::Pass,
                std::to_string(kLongAttachment) + " bytes, answered in " +
                    MsText(Ms(ClockRead(nullptr) - start)));
  } catch (const Failure& failure) {
    report_.Add("segmented message", Verdict::Fail, failure.text);
  }
}

}  // namespace

void CheckReport::Add(const std::string& name, Verdict verdict, const std::string& figure) {
  CheckStop();
  worst_ = std::max(worst_, verdict);
  ++counts_[static_cast<size_t>(verdict)];
  std::string word = Word(verdict);
  out_.Object(Fields().Add("check", name).Add("result", word).Add("figure", figure));
  word.resize(16, ' ');
  std::string padded = name;
  padded.resize(std::max<size_t>(padded.size(), 26), ' ');
  out_.Line(out_.Paint(ColourOf(verdict), word) + padded + "  " + figure);
}

void CheckReport::Summarise() {
  const auto count = [this](Verdict verdict) {
    return std::to_string(counts_[static_cast<size_t>(verdict)]);
  };
  out_.Line(count(Verdict::Pass) + " passed, " + count(Verdict::Warn) + " warned, " +
            count(Verdict::Fail) + " failed, " + count(Verdict::Skip) + " could not be tested");
}

// A unit that answers but doesn't acknowledge is one to be checked, not one that isn't there.
Unit FindUnitToCheck(const std::string& name, const CommonOptions& common) {
  const NetAddr control = ControlAddr(name);
  if (!control.IsDefined()) return FindUnit(name, common);
  Probe probe;
  probe.Send(std::make_shared<JsonMsgGetDevInfo>(), control);
  const auto answer = probe.Wait(Is<JsonMsgDevInfo>(), common.timeoutMs);
  if (answer) return ToUnit(static_cast<const JsonMsgDevInfo&>(*answer->msg), control);
  throw Failure{kNoAnswer, name +
                               " has not answered \"get_dev_info\": is a unit running there, and "
                               "does a firewall let UDP through?"};
}

int RunCheck(const std::string& name, const CommonOptions& common, Output& out) {
  const Unit unit = FindUnitToCheck(name, common);
  out.Line("checking " + unit.Id() + " (" + unit.Type() + ") at " + unit.Control());
  CheckReport report(out);
  ControlTour(unit, common, report).Run();
  try {
    CheckStreams(unit, common, report);
  } catch (const Failure& failure) {
    if (platform::WaitForStop(0)) throw;
    report.Add("streams", Verdict::Fail, failure.text);
  }
  report.Summarise();
  return report.Worst() == Verdict::Fail ? kRefused : kDone;
}

}  // namespace ctl
