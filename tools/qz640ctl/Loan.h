// Borrowing a unit's inputs: hearing them without taking them from whoever hears them already, and
// leaving them as they were, also where this process is killed.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "LoanBook.h"
#include "Session.h"

namespace ctl {

// Sends inputs of one unit to this program for its lifetime and then to where they went before.
class InputLoan {
 public:
  struct Input {
    uint32_t number = 0;
    wire::Endpoint here;

    // Is given where the input's packets are to be passed on to (nothing: nowhere), before the
    // first comes and again when that changes. Null takes the input from who had it.
    std::function<void(const wire::Destination&)> passOn;
  };

  // Throws what the far end throws; nothing is borrowed then.
  InputLoan(Session& session, const wire::Unit& unit, std::vector<Input> inputs);
  ~InputLoan();
  InputLoan(const InputLoan&) = delete;
  InputLoan& operator=(const InputLoan&) = delete;

  // Where an input, counted as in the constructor, went before.
  const wire::Destination& Former(size_t index) const { return loans_[index].formers.front(); }

  // To be called every 200 ms or so: where an input came from another qz640ctl, which has ended
  // since, its packets go on to where that one passed them.
  void Refresh();

  // Gives them back now, whether Ctrl-C has come or not. An input that doesn't go here any more is
  // left as it is, which a note says. Throws what the far end throws when the unit doesn't take it;
  // a later command tries again then.
  void Return();

 private:
  void Set(const std::vector<wire::InputChange>& changes);
  void TryReturn();
  void GiveBack();
  void Note(const LoanRecord& loan, const wire::Destination& now);

  Session& session_;
  const wire::Unit unit_;
  const std::vector<Input> inputs_;
  std::vector<LoanRecord> loans_;              // one an input
  std::vector<wire::Destination> passedOnTo_;  // likewise
  bool lent_ = true;
};

// "tuner-b 0 (127.0.0.1:9001)", for the line that says what becomes of inputs in use.
std::string InUseText(const wire::Unit& unit, uint32_t input, const wire::Destination& destination);

constexpr size_t kMostNamed = 8;

// "in use: " and the first eight of them; "in use: a, b and 3 more" where only two are to be named.
std::string InUseNames(const std::vector<std::string>& inputs, size_t named = kMostNamed);

// That line. Where it is to fit so many columns, it names fewer of them.
std::string InUseLine(InUse how, const std::vector<std::string>& inputs, size_t columns = SIZE_MAX);

// Gives back what processes that have ended had borrowed from these units and is still sent to
// them, and notes it. To be called with units that have just answered, so that a command never
// waits for one that it isn't about. What was borrowed a week ago is forgotten, also of others.
void RestoreInPassing(Session& session, const std::vector<wire::Unit>& units);

}  // namespace ctl
