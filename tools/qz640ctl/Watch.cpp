// The command "watch": live levels, rate, jitter and loss of inputs.
#include <algorithm>
#include <deque>
#include <memory>

#include "Commands.h"
#include "Listeners.h"
#include "Loan.h"
#include "Printable.h"
#include "StreamFields.h"
#include "platform/startup.h"

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

// One row of the live view.
struct Watched {
  Unit unit;
  uint32_t input = 0;
  std::string passedOnTo;  // where the input goes at other times; empty: nowhere
  StreamStats stats;
  double rate = 0;  // packets a second since then
};

std::vector<std::string> ToRow(Watched& row, Output& out) {
  const double left = row.stats.TakePeak(0);
  const double right = row.stats.TakePeak(1);
  const uint64_t lost = row.stats.Lost();
  return {PrintableCell(row.unit.id),
          std::to_string(row.input),
          FormatMeter(left, kMeterWidth) + " " + FormatMeter(right, kMeterWidth),
          FormatNumber(row.rate, 1),
          FormatNumber(row.stats.JitterMs(), 2),
          lost == 0 ? "0" : out.Paint(Colour::Red, std::to_string(lost)),
          std::to_string(row.stats.late)};
}

Fields ToFields(Watched& row) {
  Fields fields;
  fields.Add("unit_id", row.unit.id)
      .Add("input", row.input)
      .Add("passed_on_to", row.passedOnTo)
      .Add("peak_left_db", ToDecibel(row.stats.TakePeak(0)))
      .Add("peak_right_db", ToDecibel(row.stats.TakePeak(1)))
      .Add("rate", row.rate);
  AddStats(fields, row.stats);
  return fields;
}

class Watching {
 public:
  Watching(Session& session, Output& out) : session_(session), out_(out) {}

  int Run(const WatchOptions& options);

 private:
  void Open(const Unit& unit);
  void Take();
  void Draw();

  Session& session_;
  Output& out_;
  Listeners listeners_;  // one a row
  std::vector<Watched> rows_;
  std::vector<wire::Endpoint> opened_;             // control addresses
  std::vector<std::unique_ptr<InputLoan>> loans_;  // given back before the listeners go
  std::vector<std::string> inUse_;
  size_t drawn_ = 0;  // lines of the previous drawing, to be drawn over
};

int Watching::Run(const WatchOptions& options) {
  if (options.units.empty()) {
    for (const Unit& unit : session_.Find(session_.DiscoverAt(), session_.Timeout()))
      Open(unit);
  }
  for (const std::string& name : options.units)
    Open(session_.FindUnit(name));
  if (rows_.empty() && !inUse_.empty()) {
    throw Failure{kRefused, InUseLine(InUse::LeaveOut, inUse_) +
                                "; without --idle they are heard and passed on"};
  }
  if (rows_.empty()) {
    throw Failure{
        kNoAnswer,
        "no unit with an input answered; is one running, with \"AddrStr\" set? (qz640ctl doctor)"};
  }

  session_.Note(InUseLine(session_.Common().inUse, inUse_));

  // Ctrl-C is the ordinary end.
  const wire::Loop::Shield shield(session_.Loop());
  const auto start = Clock::now();
  auto lastDraw = start;
  auto lastRefresh = start;
  const double period = out_.Live() ? 0.2 : 1.0;
  while (!platform::WaitForStop(0)) {
    session_.Loop().RunFor(kPoll);
    Take();
    if (Clock::now() - lastRefresh >= kRefresh) {
      for (const auto& loan : loans_)
        loan->Refresh();
      lastRefresh = Clock::now();
    }
    if (SecondsSince(lastDraw) >= period) {
      Draw();
      lastDraw = Clock::now();
    }
    if (options.seconds && SecondsSince(start) >= *options.seconds) break;
  }
  for (const auto& loan : loans_)
    loan->Return();
  NoteNotPassedOn(session_, listeners_);
  return kDone;
}

void Watching::Take() {
  const std::vector<Packets> packets = listeners_.Take();
  for (size_t i = 0; i < packets.size(); ++i) {
    for (const StreamPacket& packet : packets[i])
      rows_[i].stats.Add(packet);
  }
}

void Watching::Open(const Unit& unit) {
  // Named twice it is still one unit, with one former destination an input.
  if (std::find(opened_.begin(), opened_.end(), unit.control) != opened_.end()) return;
  opened_.push_back(unit.control);
  if (unit.inputs == 0) return;
  const InUse inUse = session_.Common().inUse;
  std::vector<wire::Destination> now;
  if (inUse == InUse::LeaveOut) now = session_.Control(unit).GetInputs();
  std::vector<InputLoan::Input> wanted;
  const size_t first = rows_.size();
  for (uint32_t input = 0; input < unit.inputs; ++input) {
    if (input < now.size() && now[input]) {
      inUse_.push_back(InUseText(unit, input, now[input]));
      continue;
    }
    const size_t number = listeners_.Open(session_.LocalFor(unit));
    rows_.push_back({unit, input, {}, {}, 0});
    wanted.push_back(ToBorrow(session_, listeners_, number, input));
  }
  if (wanted.empty()) return;
  loans_.push_back(std::make_unique<InputLoan>(session_, unit, wanted));
  for (size_t i = 0; i < wanted.size(); ++i) {
    const wire::Destination& former = loans_.back()->Former(i);
    if (!former) continue;
    inUse_.push_back(InUseText(unit, wanted[i].number, former));
    if (inUse == InUse::PassOn) rows_[first + i].passedOnTo = former->ToText();
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

int RunWatch(Session& session, const WatchOptions& options, Output& out) {
  return Watching(session, out).Run(options);
}

}  // namespace ctl
