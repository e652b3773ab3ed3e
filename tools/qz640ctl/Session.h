// What all commands share: the options of each, the loop and link to the units, finding a unit,
// and how what goes wrong is reported.
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ExitStatus.h"
#include "LoanBook.h"
#include "wire/Units.h"

namespace ctl {

// What becomes of an input that is in use, which has a destination, when it is to be heard here.
enum class InUse { PassOn, Take, LeaveOut };

// What every command takes.
struct CommonOptions {
  std::string command;  // its name
  bool json = false;
  uint32_t timeoutMs = 3000;    // for an answer, and for a discovery
  std::vector<std::string> to;  // where to look for units; empty: every interface
  std::string local;            // own address for streams; empty: the one that faces the unit
  InUse inUse = InUse::PassOn;
};

// a.b.c.d[:port]; throws Failure (kUsage) for anything else. `defaultPort` where the text has none.
wire::Endpoint ParseEndpoint(const std::string& text, uint16_t defaultPort);

// The control port that UNIT gives on a command line; nothing when it is a unit id.
std::optional<wire::Endpoint> ControlOf(const std::string& name);

// Why no UDP socket can be bound there, as the system's error number; 0: one can be, for now, as
// another program could still take it.
uint32_t BindError(const wire::Endpoint& local);

// 127.a.b.c
bool IsLoopback(const wire::Endpoint& endpoint);

// The address is one of this machine's.
bool IsOwn(const wire::Endpoint& endpoint);

// Throws Failure (kUsage) when `input` isn't one of the unit's.
void CheckInput(const wire::Unit& unit, uint32_t input);
void CheckOutput(const wire::Unit& unit, uint32_t output);

// One run of a command. Whatever waits here throws wire::Interrupted once Ctrl-C has come, and the
// exceptions of the far end otherwise; ToFailure says them in the words of the command line.
class Session {
 public:
  // With `verbose` every control message is shown on standard error.
  Session(const CommonOptions& common, bool verbose);

  const CommonOptions& Common() const { return common_; }
  wire::Clock::duration Timeout() const { return std::chrono::milliseconds(common_.timeoutMs); }
  wire::Loop& Loop() { return loop_; }
  wire::Link& Link();  // opened when it is first asked for
  wire::UnitControl Control(const wire::Unit& unit) { return {Link(), unit.control, Timeout()}; }

  // Where to look for units: what the command line names, or the discovery port at the broadcast
  // address of every interface.
  std::vector<wire::Endpoint> DiscoverAt() const;

  // Sorted by control address. A unit of this machine that hears at all of its addresses, and so
  // answers from several, comes once. Answers that aren't understood get a note each.
  std::vector<wire::Unit> Find(const std::vector<wire::Endpoint>& to, wire::Clock::duration limit,
                               wire::Clock::duration round = std::chrono::milliseconds(300));

  // After a Find that found nobody: where was asked, what may be the reason, and what to do.
  Failure NobodyAnswered(const std::vector<wire::Endpoint>& to);

  // The unit that the command line names: a unit id, found by discovery, or address:port, which is
  // asked itself. Throws Failure where several have the id or it isn't among those that answered.
  wire::Unit FindUnit(const std::string& name);

  // The local address that packets of `unit` can reach, port 0.
  wire::Endpoint LocalFor(const wire::Unit& unit) const;

  // Throws once Ctrl-C has come: whatever is on loan returns on the way out.
  void CheckStop() { Loop().RunFor({}); }

  Failure ToFailure(const std::exception& error) const;

  // What people should know and what is no result; goes to standard error.
  void OnNote(std::function<void(const std::string&)> show) { showNote_ = std::move(show); }
  void Note(const std::string& text) const {
    if (showNote_) showNote_(text);
  }

  // Gets the units that have answered for the first time, before whoever looked for them.
  void OnFound(std::function<void(const std::vector<wire::Unit>&)> look) {
    onFound_ = std::move(look);
  }

  // For who has met units in another way than by Find and FindUnit.
  void Found(const std::vector<wire::Unit>& units);

  // What this process has borrowed.
  LoanBook& Loans() { return loans_; }

 private:
  const CommonOptions common_;
  wire::Loop loop_;
  std::optional<wire::Link> link_;
  std::function<void(const std::string&)> showNote_;
  std::function<void(const std::vector<wire::Unit>&)> onFound_;
  std::set<wire::Endpoint> known_;  // control addresses
  std::set<std::string> leftOut_;   // answers that got their note
  std::set<std::string> unsent_;    // what the latest discovery couldn't send
  LoanBook loans_;
};

}  // namespace ctl
