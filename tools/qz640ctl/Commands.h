// The commands of qz640ctl. Each returns its exit status or throws Failure.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Alerts.h"
#include "Output.h"
#include "Session.h"
#include "wire/LossyLink.h"

namespace ctl {

struct PlayOptions {
  std::string unit;
  uint32_t output = 0;
  std::string file;    // path or "-"; empty: tone or pattern
  std::string format;  // "raw"; empty: by its bytes and ending
  std::optional<double> toneHz;
  double levelDb = -20;
  bool pattern = false;
  double seconds = 5;                  // of a tone or the pattern
  std::optional<uint32_t> sampleFreq;  // Hz; none: the unit's own
  bool force = false;                  // at that, whatever the unit runs at
  double ppm = 0;
};

struct RecordOptions {
  std::string unit;
  uint32_t input = 0;
  bool allInputs = false;         // instead: each into a file of its own
  std::optional<double> seconds;  // none: until Ctrl-C
  std::optional<double> split;    // seconds of a file, of which there are many then; none: one file
  std::string file;               // path or "-"
  std::string format;             // wav, rf64, flac or raw; empty: by the ending
  bool force = false;
};

struct WatchOptions {
  std::vector<std::string> units;  // empty: all that answer
  std::optional<double> seconds;   // none: until Ctrl-C
  AlertOptions alerts;
  std::optional<uint16_t> metricsPort;  // 0: any free one
};

struct WebOptions {
  std::vector<std::string> units;  // empty: all that answer
  std::string at = "127.0.0.1";    // own address to be asked at
  uint16_t port = 6400;            // 0: a free one
  bool untilEof = false;           // ends with standard input
};

struct CheckOptions {
  std::string unit;                // empty with `all`
  std::vector<std::string> parts;  // as ParseParts takes them; empty: all
  bool all = false;                // every unit that answers
  unsigned repeat = 1;             // rounds
  bool intrusive = false;          // also what a unit in use would notice
  std::string junit;               // files to write; empty: none
  std::string html;
};

struct UpOptions {
  std::string units;               // with `named` empty too: a QZ610 and a QZ820
  std::vector<std::string> named;  // ID=MODEL
  std::string settings;            // path of a file with the units; excludes the two above
  std::string stateDir;            // the folder to run in; empty: one for this run alone
  // None: as the settings file says, else the emulator's defaults at 127.0.0.1.
  std::optional<int32_t> mode;
  std::optional<int32_t> freq;
  std::optional<double> speed;
  std::optional<std::string> addr;
  // Of discovery, the units' from 2 further on; none: those of the settings file, else free ones.
  std::optional<int32_t> port;
  std::string emulator;  // path; empty: see FindEmulator
  bool showLog = false;
  bool web = false;                    // shows the page of RunWeb meanwhile
  bool untilEof = false;               // ends with standard input
  bool detach = false;                 // leaves it running
  bool background = false;             // is what --detach leaves running
  std::vector<std::string> arguments;  // the whole command line, for --detach
  std::string envFile;                 // path; gets the command's environment; empty: none
  std::vector<std::string> faults;     // as wire::ParseFault takes them
  std::string faultFile;               // path; empty: none
  uint64_t seed = 1;                   // of the faults
  std::vector<std::string> command;    // empty: until Ctrl-C
};

// The folder of a run, as "up" announces it and "down" takes it.
constexpr const char* kRunVariable = "QZ640_RUN";

struct DownOptions {
  std::string run;  // its folder; empty: the only detached one
  bool all = false;
};

struct ExpectOptions {
  std::string unit;
  std::vector<std::string> words;  // the conditions
  std::optional<double> toneHz;    // of the input that the conditions name last
  std::string level;               // of the tone, dB of full scale: "-6", "-6+-0.5"
  std::string within = "5s";
};

struct ListenOptions {
  std::string at = "127.0.0.1";  // address and port; without a port any free one
  bool explain = false;
};

struct RelayOptions {
  uint64_t seed = 1;
  wire::LinkFaults faults;
  std::vector<std::string> ways;  // LISTEN=TARGET
  bool discovery = false;         // of units, instead of datagrams as they are
};

struct TraceOptions {
  std::string on;                 // interface
  std::string read;               // path of a capture; empty: listen
  std::string write;              // path; empty: none
  std::optional<double> seconds;  // none: until Ctrl-C
};

struct ReplayOptions {
  std::string file;
  std::string against;  // unit
  std::string of;       // the unit in the capture, address:port; empty: the only one
  bool diff = false;
};

struct SoakOptions {
  std::vector<std::string> units;  // empty: all that answer
  double seconds = 60;
  uint64_t seed = 1;
  std::optional<int> pid;  // the emulator's process; none: memory and threads aren't looked at
  bool intrusive = false;  // units that somebody hears too
};

int RunFind(Session& session, Output& out);
int RunInfo(Session& session, const std::string& unit, Output& out);
int RunInputs(Session& session, const std::string& unit, Output& out);
int RunSetInputs(Session& session, const std::string& unit, const std::vector<std::string>& changes,
                 Output& out);
int RunFreq(Session& session, const std::string& unit, uint32_t freq, Output& out);
int RunFm(Session& session, const std::string& unit, const std::vector<std::string>& changes,
          Output& out);
int RunFmQuality(Session& session, const std::string& unit, Output& out);
int RunRecord(Session& session, const RecordOptions& options, Output& out);
int RunPlay(Session& session, const PlayOptions& options, Output& out);
int RunWatch(Session& session, const WatchOptions& options, Output& out);
int RunWeb(Session& session, const WebOptions& options, Output& out);
int RunRelay(Session& session, const RelayOptions& options, Output& out);
int RunTrace(const TraceOptions& options, Output& out);
int RunReplay(Session& session, const ReplayOptions& options, Output& out);
int RunSoak(Session& session, const SoakOptions& options, Output& out);
int RunDoctor(Session& session, const std::string& settingsPath, Output& out);
int RunCheck(Session& session, const CheckOptions& options, Output& out);
std::string CheckPartsHelp();  // the parts of a check, a line each
int RunRestore(Session& session, bool forget, Output& out);
int RunExpect(Session& session, const ExpectOptions& options, Output& out);
int RunSend(Session& session, const std::string& unit, const std::string& request, Output& out);
int RunListen(Session& session, const ListenOptions& options, Output& out);
int RunUp(Session& session, const UpOptions& options, Output& out);
int RunDetached(const UpOptions& options, Output& out);
int RunDown(Session& session, const DownOptions& options, Output& out);

}  // namespace ctl
