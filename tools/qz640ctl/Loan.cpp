#include "Loan.h"

#include <algorithm>
#include <map>
#include <utility>

#include "Commands.h"
#include "Printable.h"

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

std::string ToText(const Destination& destination) {
  return destination ? destination->ToText() : "off";
}

std::string Name(const LoanRecord& loan) {
  return "input " + std::to_string(loan.input) + " of " + PrintableCell(loan.unitId) + " (" +
         loan.control.ToText() + ")";
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
  const std::vector<Destination> now = session_.Control(unit_).GetInputs();
  const std::vector<LoanRecord> running = LoanBook::Running();
  std::vector<wire::InputChange> changes(unit_.inputs);
  for (const Input& input : inputs_) {
    Destination former = input.number < now.size() ? now[input.number] : Destination();
    // A port that a program left behind and that this one has by chance: nobody hears there.
    if (former == input.here) former.reset();
    loans_.push_back({unit_.control, unit_.id, input.number, input.here, {}});
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
  const wire::Loop::Shield shield(session_.Loop());
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

std::string InUseLine(InUse how, const std::vector<std::string>& inputs) {
  constexpr size_t kNamed = 8;
  if (inputs.empty()) return "no input was in use";
  std::string line = "in use: ";
  for (size_t i = 0; i < std::min(inputs.size(), kNamed); ++i)
    line += (i == 0 ? "" : ", ") + inputs[i];
  if (inputs.size() > kNamed) line += " and " + std::to_string(inputs.size() - kNamed) + " more";
  switch (how) {
    case InUse::PassOn:
      return line + "; heard here and passed on to there";
    case InUse::Take:
      return line + "; taken from there until this command ends";
    case InUse::LeaveOut:
      return line + "; left out";
  }
  return line;
}

// Who restores is alone, so that nobody takes it for the process that it looks after.
std::vector<Restored> Restore(Session& session, wire::Clock::duration limit, bool forget) {
  const LoanBook::Turn turn;
  std::vector<Restored> all;
  if (!turn.IsMine()) return all;
  const std::vector<LoanRecord> running = LoanBook::Running();
  std::map<wire::Endpoint, std::optional<std::vector<Destination>>> inputs;  // nothing: silent

  const auto restore = [&](const LoanRecord& loan) -> Restored {
    wire::UnitControl control(session.Link(), loan.control, limit);
    try {
      if (!inputs.count(loan.control)) {
        inputs[loan.control] = std::nullopt;
        inputs[loan.control] = control.GetInputs();
      }
      const auto& known = inputs[loan.control];
      if (!known) return {loan, Restored::Fate::NoAnswer, loan.formers.back()};
      const Destination now = loan.input < known->size() ? (*known)[loan.input] : Destination();
      if (now != loan.here) return {loan, Restored::Fate::Elsewhere, now};
      std::vector<wire::InputChange> changes(known->size());
      changes[loan.input] = {true, Resolve(loan, running)};
      control.SetInputs(changes);
      return {loan, Restored::Fate::GivenBack, changes[loan.input].to};
    } catch (const wire::Interrupted&) {
      throw;
    } catch (const std::exception&) {
      return {loan, Restored::Fate::NoAnswer, loan.formers.back()};
    }
  };

  for (const LoanBook::Left& left : LoanBook::LeftBehind()) {
    bool done = true;
    for (const LoanRecord& loan : left.loans) {
      all.push_back(restore(loan));
      done = done && all.back().fate != Restored::Fate::NoAnswer;
    }
    if (done || forget) LoanBook::Remove(left);
  }
  return all;
}

void RestoreInPassing(Session& session) {
  for (const Restored& restored : Restore(session, kPassingTime, false)) {
    if (restored.fate == Restored::Fate::GivenBack) {
      session.Note(
          "a qz640ctl that was killed had left " + Name(restored.loan) + " sent to itself; it is " +
          (restored.now ? "sent to " + ToText(restored.now) : std::string("off")) + " again");
    } else if (restored.fate == Restored::Fate::NoAnswer) {
      session.Note("a qz640ctl that was killed has left " + Name(restored.loan) +
                   " sent to itself, and the unit doesn't answer; the next command tries again, "
                   "and \"qz640ctl restore --forget\" gives it up");
    }
  }
}

int RunRestore(Session& session, bool forget, Output& out) {
  const std::vector<Restored> all = Restore(session, session.Timeout(), forget);
  bool silent = false;
  for (const Restored& restored : all) {
    const bool answered = restored.fate != Restored::Fate::NoAnswer;
    silent = silent || !answered;
    const char* result = restored.fate == Restored::Fate::GivenBack   ? "given back"
                         : restored.fate == Restored::Fate::Elsewhere ? "sent elsewhere meanwhile"
                         : forget                                     ? "given up, no answer"
                                                                      : "no answer";
    out.Object(Fields()
                   .Add("unit_id", restored.loan.unitId)
                   .Add("control", restored.loan.control.ToText())
                   .Add("input", restored.loan.input)
                   .Add("result", answered ? "done"
                                  : forget ? "forgotten"
                                           : "no answer")
                   .Add("destination", ToText(restored.now)));
    out.Line(Name(restored.loan) + ": " + result + " (" + ToText(restored.now) + ")");
  }
  if (all.empty()) out.Line("nothing is left to be given back");
  return silent && !forget ? kNoAnswer : kDone;
}

}  // namespace ctl
