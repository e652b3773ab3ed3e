// The commands of qz640ctl. Each returns its exit status or throws Failure.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ExitStatus.h"
#include "Output.h"
#include "Units.h"
#include "relay/LossyLink.h"

namespace ctl {

// What every command takes.
struct CommonOptions {
  bool json = false;
  uint32_t timeoutMs = 3000;    // for an answer, and for a discovery
  std::vector<std::string> to;  // where to look for units; empty: every interface
  std::string local;            // own address for streams; empty: the one that faces the unit

  std::vector<Network::NetAddr> DiscoverAt() const;
};

// The unit that a command line names.
Unit FindUnit(const std::string& name, const CommonOptions& common);

// The local address that packets of `unit` can reach, port 0.
Network::NetAddr LocalFor(const Unit& unit, const CommonOptions& common);

// Throws Failure (kUsage) when `input` isn't one of the unit's.
void CheckInput(const Unit& unit, uint32_t input);
void CheckOutput(const Unit& unit, uint32_t output);

// Throws Failure once Ctrl-C has come: whatever is on loan returns on the way out.
void CheckStop();

// Takes an input's stream to this program for its lifetime and gives the input its former
// destination back at the end.
class InputLoan {
 public:
  InputLoan(UnitLink& link, const Unit& unit, uint32_t input, const Network::NetAddr& to);
  ~InputLoan();
  InputLoan(const InputLoan&) = delete;
  InputLoan& operator=(const InputLoan&) = delete;

  // Gives it back now, and throws Failure when the unit doesn't take it.
  void Return();

 private:
  void Set(const Network::NetAddr& to);
  void TryReturn();

  UnitLink& link_;
  const Unit unit_;
  const uint32_t input_;
  Network::NetAddr former_;
  bool lent_ = true;
};

struct PlayOptions {
  std::string unit;
  uint32_t output = 0;
  std::string file;
  std::optional<double> toneHz;
  double levelDb = -20;
  bool pattern = false;
  double seconds = 5;  // of a tone or the pattern
  uint32_t sampleFreq = 48000;
  double ppm = 0;
};

struct RecordOptions {
  std::string unit;
  uint32_t input = 0;
  std::optional<double> seconds;  // none: until Ctrl-C
  std::string file;
  bool force = false;
};

struct WatchOptions {
  std::vector<std::string> units;  // empty: all that answer
  std::optional<double> seconds;   // none: until Ctrl-C
};

struct UpOptions {
  std::string units = "QZ610,QZ820";
  int32_t mode = 0;
  std::string addr = "127.0.0.1";
  std::optional<int32_t> port;  // of discovery, the units' from 2 further on; none: free ones
  std::string emulator;         // path; empty: the one beside this program
  bool showLog = false;
  std::vector<std::string> command;  // empty: until Ctrl-C
};

struct RelayOptions {
  uint64_t seed = 1;
  relay::LinkFaults faults;
  std::vector<std::string> ways;  // LISTEN=TARGET
};

int RunFind(const CommonOptions& common, Output& out);
int RunInfo(const std::string& unit, const CommonOptions& common, Output& out);
int RunInputs(const std::string& unit, const CommonOptions& common, Output& out);
int RunSetInputs(const std::string& unit, const std::vector<std::string>& changes,
                 const CommonOptions& common, Output& out);
int RunFreq(const std::string& unit, uint32_t freq, const CommonOptions& common, Output& out);
int RunFm(const std::string& unit, const std::vector<std::string>& changes,
          const CommonOptions& common, Output& out);
int RunFmQuality(const std::string& unit, const CommonOptions& common, Output& out);
int RunRecord(const RecordOptions& options, const CommonOptions& common, Output& out);
int RunPlay(const PlayOptions& options, const CommonOptions& common, Output& out);
int RunWatch(const WatchOptions& options, const CommonOptions& common, Output& out);
int RunRelay(const RelayOptions& options, Output& out);
int RunDoctor(const std::string& settingsPath, const CommonOptions& common, Output& out);
int RunCheck(const std::string& unit, const CommonOptions& common, Output& out);
int RunUp(const UpOptions& options, const CommonOptions& common, Output& out);

}  // namespace ctl
