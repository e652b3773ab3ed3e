#include "Loan.h"

#include <algorithm>
#include <map>
#include <utility>

#include "Columns.h"
#include "Commands.h"
#include "Printable.h"
#include "platform/clock.h"

namespace ctl {

using std::chrono::milliseconds;
using wire::Destination;

namespace {

// Packets that were under way when an input was given back.
constexpr auto kLastPackets = milliseconds(20);

// By then whoever passes packets on to here has noticed that they can go past, see Refresh.
constexpr auto kHandOver = milliseconds(600);

// A unit that is there answers within some milliseconds; the command that restores in passing has
// something else to do.
constexpr auto kPassingTime = milliseconds(500);

// A unit that comes back after that has been switched off meanwhile, and forgot where it sent.
constexpr int64_t kForgetAfter = 7 * 24 * 3600;  // seconds

std::string Name(const LoanRecord& loan) {
  return "input " + std::to_string(loan.input) + " of " + PrintableCell(loan.unitId) + " (" +
         loan.control.ToText() + ")";
}

// Seconds. The system's time may have been set back.
int64_t AgeOf(const LoanRecord& loan) {
  return std::max<int64_t>(0, platform::GetClock().WallSeconds() - loan.since);
}

bool IsStale(const LoanRecord& loan) {
  return AgeOf(loan) > kForgetAfter;
}

// "record" 12 min ago
std::string Borrower(const LoanRecord& loan) {
  const int64_t age = AgeOf(loan);
  const auto text = [age](int64_t unit, const char* name) {
    return std::to_string(age / unit) + name + " ago";
  };
  return "\"" + PrintableCell(loan.command) + "\" " +
         (age < 120         ? text(1, " s")
          : age < 2 * 3600  ? text(60, " min")
          : age < 48 * 3600 ? text(3600, " h")
                            : text(24 * 3600, " days"));
}

// Of one unit: "inputs 0, 2 of tuner-b (10.0.0.7:8000)".
std::string Names(const std::vector<LoanRecord>& loans) {
  if (loans.size() == 1) return Name(loans.front());
  std::string numbers;
  for (const LoanRecord& loan : loans)
    numbers += (numbers.empty() ? "" : ", ") + std::to_string(loan.input);
  return "inputs " + numbers + " of " + PrintableCell(loans.front().unitId) + " (" +
         loans.front().control.ToText() + ")";
}

// Also where a unit of this machine is spoken to at several of its addresses.
bool IsSameUnit(const wire::Endpoint& a, const wire::Endpoint& b) {
  return a == b || (a.port == b.port && IsOwn(a) && IsOwn(b));
}

// `lent` says that the input of `loan` is sent to `to`.
bool LeadsTo(const LoanRecord& lent, const LoanRecord& loan, const wire::Endpoint& to) {
  return lent.here == to && lent.input == loan.input && IsSameUnit(lent.control, loan.control);
}

bool IsBorrower(const std::vector<LoanRecord>& loans, const LoanRecord& loan,
                const Destination& to) {
  return to && std::any_of(loans.begin(), loans.end(),
                           [&](const LoanRecord& lent) { return LeadsTo(lent, loan, *to); });
}

// Where the input is to go now: to the latest borrower that still runs, and else to where it
// belongs.
Destination Resolve(const LoanRecord& loan, const std::vector<LoanRecord>& running) {
  const auto borrowers = loan.formers.end() - 1;
  const auto found = std::find_if(loan.formers.begin(), borrowers, [&](const Destination& former) {
    return IsBorrower(running, loan, former);
  });
  return *found;
}

// Where an input that goes to `now` came from, through all who have borrowed it. A borrower knows
// those before it; one that was killed is left out.
std::vector<Destination> FormersOf(const LoanRecord& loan, const Destination& now) {
  if (!now) return {now};
  for (const LoanRecord& lent : LoanBook::Running()) {
    if (!LeadsTo(lent, loan, *now)) continue;
    std::vector<Destination> formers{now};
    formers.insert(formers.end(), lent.formers.begin(), lent.formers.end());
    return formers;
  }
  for (const LoanBook::Left& left : LoanBook::LeftBehind()) {
    for (const LoanRecord& lent : left.loans) {
      if (LeadsTo(lent, loan, *now)) return lent.formers;
    }
  }
  return {now};
}

}  // namespace

InputLoan::InputLoan(Session& session, const wire::Unit& unit, std::vector<Input> inputs)
    : session_(session), unit_(unit), inputs_(std::move(inputs)) {
  const LoanBook::Exchange exchange;
  const std::vector<Destination> now = session_.Control(unit_).GetInputs();
  const std::vector<LoanRecord> running = LoanBook::Running();
  std::vector<wire::InputChange> changes(unit_.inputs);
  for (const Input& input : inputs_) {
    Destination former = input.number < now.size() ? now[input.number] : Destination();
    // A port that a program left behind and that this one has by chance: nobody hears there.
    if (former == input.here) former.reset();
    loans_.push_back({unit_.control,
                      unit_.id,
                      input.number,
                      input.here,
                      {},
                      session_.Common().command,
                      platform::GetClock().WallSeconds()});
    loans_.back().formers = FormersOf(loans_.back(), former);
    passedOnTo_.push_back(Resolve(loans_.back(), running));
    if (input.passOn) input.passOn(passedOnTo_.back());
    changes[input.number] = {true, input.here};
  }
  if (!session_.Loans().Lend(loans_)) {
    session_.Note(
        "no place to note what is borrowed (XDG_STATE_HOME, LOCALAPPDATA): if this "
        "command is killed, the inputs stay sent here");
  }
  try {
    Set(changes);
  } catch (const std::exception&) {
    // The request may have arrived though its acknowledgement didn't.
    TryReturn();
    throw;
  }
}

InputLoan::~InputLoan() {
  TryReturn();
}

void InputLoan::TryReturn() {
  try {
    Return();
  } catch (const std::exception&) {
    // The unit is gone; who wants to know calls Return.
  }
}

void InputLoan::Refresh() {
  const auto borrowed = [](const LoanRecord& loan) { return loan.formers.size() > 1; };
  if (std::none_of(loans_.begin(), loans_.end(), borrowed)) return;
  const std::vector<LoanRecord> running = LoanBook::Running();
  for (size_t i = 0; i < loans_.size(); ++i) {
    const Destination to = Resolve(loans_[i], running);
    if (to == passedOnTo_[i]) continue;
    passedOnTo_[i] = to;
    if (inputs_[i].passOn) inputs_[i].passOn(to);
  }
}

void InputLoan::Return() {
  if (!lent_) return;
  lent_ = false;
  try {
    GiveBack();
  } catch (const std::exception&) {
    session_.Note(Names(loans_) +
                  " couldn't be given back; the next command that meets the unit does it, or "
                  "\"qz640ctl restore\"");
    throw;
  }
}

void InputLoan::GiveBack() {
  const wire::Loop::Shield shield(session_.Loop());
  std::optional<LoanBook::Exchange> exchange(std::in_place);
  const std::vector<Destination> now = session_.Control(unit_).GetInputs();
  const std::vector<LoanRecord> running = LoanBook::Running();
  std::vector<wire::InputChange> changes(unit_.inputs);
  std::vector<std::pair<const LoanRecord*, Destination>> elsewhere;
  bool any = false;
  for (const LoanRecord& loan : loans_) {
    const Destination to = loan.input < now.size() ? now[loan.input] : Destination();
    if (to == loan.here) {
      changes[loan.input] = {true, Resolve(loan, running)};
      any = true;
    } else {
      elsewhere.emplace_back(&loan, to);
    }
  }
  if (any) Set(changes);
  for (const LoanRecord& loan : loans_)
    session_.Loans().Returned(loan);
  exchange.reset();
  for (const auto& [loan, to] : elsewhere)
    Note(*loan, to);
  const bool passedOnToHere = std::any_of(elsewhere.begin(), elsewhere.end(), [&](const auto& one) {
    return IsBorrower(running, *one.first, one.second);
  });
  if (passedOnToHere) {
    session_.Loop().RunFor(kHandOver);
  } else if (any) {
    session_.Loop().RunFor(kLastPackets);
  }
}

void InputLoan::Note(const LoanRecord& loan, const Destination& now) {
  const Destination& home = loan.formers.back();
  if (now == home) return;
  const std::string before = home ? "sent to " + ToText(home) : std::string("off");
  const bool borrowed = IsBorrower(LoanBook::Running(), loan, now);
  session_.Note(Name(loan) + (now ? " goes to " + ToText(now) : " is off") + " now, not here: " +
                (borrowed ? "to another qz640ctl, which leaves it as it was, "
                          : "left so; before this command it was ") +
                before);
}

void InputLoan::Set(const std::vector<wire::InputChange>& changes) {
  session_.Control(unit_).SetInputs(changes);
}

std::string InUseText(const wire::Unit& unit, uint32_t input, const Destination& destination) {
  return PrintableCell(unit.id) + " " + std::to_string(input) + " (goes to " + ToText(destination) +
         ")";
}

std::string InUseNames(const std::vector<std::string>& inputs, size_t named) {
  std::string text = "in use: ";
  for (size_t i = 0; i < inputs.size() && i < named; ++i)
    text += (i == 0 ? "" : ", ") + inputs[i];
  if (inputs.size() > named) text += " and " + std::to_string(inputs.size() - named) + " more";
  return text;
}

std::string InUseLine(InUse how, const std::vector<std::string>& inputs, size_t columns) {
  if (inputs.empty()) return "no input was in use";
  std::string fate = "; left out";
  if (how == InUse::PassOn) fate = "; heard here and passed on to there";
  if (how == InUse::Take) fate = "; taken from there until this command ends";
  for (size_t named = std::min(inputs.size(), kMostNamed); named > 0; --named) {
    const std::string line = InUseNames(inputs, named) + fate;
    if (Columns(line) <= columns) return line;
  }
  const std::string line = std::to_string(inputs.size()) + " in use" + fate;
  if (Columns(line) <= columns) return line;
  return std::to_string(inputs.size()) + (how == InUse::PassOn ? " passed on"
                                          : how == InUse::Take ? " taken"
                                                               : " left out");
}

namespace {

// What became of an input that a process which has ended had borrowed.
struct Restored {
  enum class Fate { GivenBack, Elsewhere, NoAnswer, Forgotten };

  LoanRecord loan;
  Fate fate = Fate::NoAnswer;
  wire::Destination now;  // where it goes; without an answer where it went before
};
using Fate = Restored::Fate;

// Asks each unit once, however many of its inputs are left.
class Restoring {
 public:
  // What isn't answered within `limit` is kept for the next time, and with `forget` given up.
  Restoring(Session& session, wire::Clock::duration limit, bool forget)
      : session_(session), limit_(limit), forget_(forget), running_(LoanBook::Running()) {}

  Restored Restore(const LoanRecord& loan) {
    wire::UnitControl control(session_.Link(), loan.control, limit_);
    try {
      if (!inputs_.count(loan.control)) {
        inputs_[loan.control] = std::nullopt;
        inputs_[loan.control] = control.GetInputs();
      }
      const auto& known = inputs_[loan.control];
      if (!known) return NotAnswered(loan);
      const Destination now = loan.input < known->size() ? (*known)[loan.input] : Destination();
      if (now != loan.here) return {loan, Fate::Elsewhere, now};
      std::vector<wire::InputChange> changes(known->size());
      changes[loan.input] = {true, Resolve(loan, running_)};
      control.SetInputs(changes);
      return {loan, Fate::GivenBack, changes[loan.input].to};
    } catch (const wire::Interrupted&) {
      throw;
    } catch (const std::exception&) {
      return NotAnswered(loan);
    }
  }

 private:
  Restored NotAnswered(const LoanRecord& loan) const {
    const bool given = forget_ || IsStale(loan);
    return {loan, given ? Fate::Forgotten : Fate::NoAnswer, loan.formers.back()};
  }

  Session& session_;
  const wire::Clock::duration limit_;
  const bool forget_;
  const std::vector<LoanRecord> running_;
  std::map<wire::Endpoint, std::optional<std::vector<Destination>>> inputs_;  // nothing: silent
};

}  // namespace

// Who restores is alone, so that nobody takes it for the process that it looks after.
void RestoreInPassing(Session& session, const std::vector<wire::Unit>& units) {
  const LoanBook::Turn turn;
  if (!turn.IsMine()) return;
  Restoring restoring(session, kPassingTime, false);
  for (const LoanBook::Left& left : LoanBook::LeftBehind()) {
    bool done = true;
    for (const LoanRecord& loan : left.loans) {
      const bool isThere = std::any_of(units.begin(), units.end(), [&](const wire::Unit& unit) {
        return IsSameUnit(unit.control, loan.control);
      });
      if (!isThere) {
        done = done && IsStale(loan);
        continue;
      }
      const Restored restored = restoring.Restore(loan);
      done = done && restored.fate != Fate::NoAnswer;
      if (restored.fate == Fate::GivenBack) {
        session.Note(
            Name(loan) + " was lent to " + Borrower(loan) + " and hasn't been given back; it " +
            (restored.now ? "goes to " + ToText(restored.now) : std::string("is off")) + " again");
      }
    }
    if (done) LoanBook::Remove(left);
  }
}

int RunRestore(Session& session, bool forget, Output& out) {
  const LoanBook::Turn turn;
  if (!turn.IsMine()) {
    throw Failure{kRefused, "another qz640ctl gives inputs back at this moment; try again"};
  }
  Restoring restoring(session, session.Timeout(), forget);
  bool any = false;
  bool silent = false;
  for (const LoanBook::Left& left : LoanBook::LeftBehind()) {
    bool done = true;
    for (const LoanRecord& loan : left.loans) {
      const Restored restored = restoring.Restore(loan);
      any = true;
      done = done && restored.fate != Fate::NoAnswer;
      static constexpr const char* kResults[] = {"done", "done", "no answer", "forgotten"};
      static constexpr const char* kTexts[] = {
          "given back", "sent elsewhere meanwhile",
          "no answer; tried again when the unit is met, forgotten after 7 days or by --forget",
          "no answer, forgotten"};
      const auto fate = static_cast<size_t>(restored.fate);
      out.Object(Fields()
                     .Add("unit_id", loan.unitId)
                     .Add("control", loan.control.ToText())
                     .Add("input", loan.input)
                     .Add("lent_to", loan.command)
                     .Add("seconds_ago", AgeOf(loan))
                     .Add("result", kResults[fate])
                     .Add("destination", ToText(restored.now)));
      out.Line(Name(loan) + ", lent to " + Borrower(loan) + ": " + kTexts[fate] + " (" +
               ToText(restored.now) + ")");
    }
    if (done) LoanBook::Remove(left);
    silent = silent || !done;
  }
  if (!any) out.Line("nothing is left to be given back");
  return silent ? kNoAnswer : kDone;
}

}  // namespace ctl
