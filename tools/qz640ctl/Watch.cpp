// The command "watch": live levels, packet rate, jitter and loss of inputs.
#include <algorithm>
#include <deque>
#include <memory>

#include "Commands.h"
#include "Listeners.h"
#include "LiveView.h"
#include "Loan.h"
#include "Metrics.h"
#include "Watched.h"
#include "platform/startup.h"
#include "platform/terminal.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::Clock;
using wire::Unit;
using Packets = std::deque<wire::StreamPacket>;

namespace {

constexpr auto kPoll = milliseconds(50);
constexpr auto kRefresh = milliseconds(200);
constexpr auto kJudge = milliseconds(900);  // about each second, however the loop's turns fall

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

class Watching {
 public:
  Watching(Session& session, Output& out) : session_(session), out_(out) {}

  int Run(const WatchOptions& options);

 private:
  void Prepare(const WatchOptions& options);
  void OpenAll(const WatchOptions& options);
  void Open(const Unit& unit);
  void Watch(const WatchOptions& options, LiveView* view);
  void Take();
  void Refresh();
  std::vector<Figures> TakeFigures();
  void Print(const std::vector<Figures>& rows);

  Session& session_;
  Output& out_;
  std::unique_ptr<Alerts> alerts_;
  std::unique_ptr<MetricsServer> metrics_;
  Listeners listeners_;  // one a row
  std::vector<Watched> rows_;
  std::vector<Figures> latest_;                    // one a row, as shown last
  std::vector<wire::Endpoint> opened_;             // control addresses
  std::vector<std::unique_ptr<InputLoan>> loans_;  // given back before the listeners go
  std::vector<std::string> inUse_;
};

// What goes wrong on the way out of the view shows on the terminal as it was before.
int Watching::Run(const WatchOptions& options) {
  Prepare(options);
  OpenAll(options);
  const auto inUse = [this](size_t columns) {
    return InUseLine(session_.Common().inUse, inUse_, columns);
  };
  session_.Note(inUse(SIZE_MAX));

  // Ctrl-C is the ordinary end.
  const wire::Loop::Shield shield(session_.Loop());
  if (out_.Live()) {
    {
      LiveView view(out_, inUse);
      Watch(options, &view);
    }
    Print(latest_);  // what stood there stays to be read
  } else {
    Watch(options, nullptr);
  }
  alerts_->Judge(TakeFigures());  // the last second need not be a whole one
  for (const auto& loan : loans_)
    loan->Return();
  NoteNotPassedOn(session_, listeners_);
  alerts_->Finish();
  return kDone;
}

// What can be refused is refused before any input is touched.
void Watching::Prepare(const WatchOptions& options) {
  alerts_ = std::make_unique<Alerts>(session_, out_, options.alerts);
  if (!options.metricsPort) return;
  metrics_ = std::make_unique<MetricsServer>(*options.metricsPort,
                                             [this] { return MetricsText(latest_); });
  session_.Note("metrics at http://127.0.0.1:" + std::to_string(metrics_->Port()) + "/metrics");
}

void Watching::OpenAll(const WatchOptions& options) {
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
}

// Until Ctrl-C, the end of the time, or the user's wish.
void Watching::Watch(const WatchOptions& options, LiveView* view) {
  const auto start = Clock::now();
  auto lastShown = start;
  auto lastRefresh = start;
  auto lastJudged = start;
  const double period = view ? 0.2 : 1.0;
  while (!platform::WaitForStop(0)) {
    session_.Loop().RunFor(kPoll);
    Take();
    if (Clock::now() - lastRefresh >= kRefresh) {
      Refresh();
      lastRefresh = Clock::now();
    }
    const LiveView::Wish wish = view ? view->TakeKeys() : LiveView::Wish::None;
    if (wish == LiveView::Wish::Quit) return;
    if (wish == LiveView::Wish::Reset) {
      for (Watched& row : rows_)
        row.Reset();
    }
    if (SecondsSince(lastShown) >= period) {
      latest_ = TakeFigures();
      lastShown = Clock::now();
      if (lastShown - lastJudged >= kJudge) {
        alerts_->Judge(latest_);
        for (Watched& row : rows_)
          row.ForgetSilences();
        lastJudged = lastShown;
      }
      view ? view->Show(latest_) : Print(latest_);
    }
    if (metrics_) metrics_->Poll();
    if (options.seconds && SecondsSince(start) >= *options.seconds) return;
  }
}

void Watching::Refresh() {
  for (const auto& loan : loans_)
    loan->Refresh();
}

std::vector<Figures> Watching::TakeFigures() {
  std::vector<Figures> figures;
  for (Watched& row : rows_)
    figures.push_back(row.Take());
  return figures;
}

void Watching::Print(const std::vector<Figures>& rows) {
  for (const Figures& row : rows)
    out_.Object(ToFields(row));
  const auto size = out_.Live() ? platform::SizeOf(platform::Stream::Output) : std::nullopt;
  for (const std::string& line : LevelTable(rows, size ? size->columns : 0, out_))
    out_.Line(line);
}

void Watching::Take() {
  const std::vector<Packets> packets = listeners_.Take();
  for (size_t i = 0; i < packets.size(); ++i)
    rows_[i].Add(packets[i]);
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
    rows_.emplace_back(unit, input);
    wanted.push_back(ToBorrow(session_, listeners_, number, input));
  }
  if (wanted.empty()) return;
  loans_.push_back(std::make_unique<InputLoan>(session_, unit, wanted));
  for (size_t i = 0; i < wanted.size(); ++i) {
    const wire::Destination& former = loans_.back()->Former(i);
    if (!former) continue;
    inUse_.push_back(InUseText(unit, wanted[i].number, former));
    if (inUse == InUse::PassOn) rows_[first + i].PassedOnTo(former->ToText());
  }
}

}  // namespace

int RunWatch(Session& session, const WatchOptions& options, Output& out) {
  return Watching(session, out).Run(options);
}

}  // namespace ctl
