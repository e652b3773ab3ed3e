// The command "up": an emulator of one's own, on free ports, for as long as a command runs.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <system_error>

#include "Commands.h"
#include "EmulatorFile.h"
#include "FaultRelay.h"
#include "OutputReader.h"
#include "Printable.h"
#include "RunFolder.h"
#include "Settings.h"
#include "platform/child.h"
#include "platform/interfaces.h"
#include "platform/paths.h"
#include "platform/startup.h"
#include "platform/text.h"
#include "wire/PlatformAddress.h"

namespace ctl {

using wire::Clock;
using wire::Unit;
namespace files = std::filesystem;

namespace {

constexpr auto kStartTime = std::chrono::seconds(15);
constexpr auto kStartTimeOfUnit = std::chrono::milliseconds(100);
constexpr auto kAnswerTimeOfUnit = std::chrono::milliseconds(20);
constexpr auto kLongStart = std::chrono::seconds(5);
constexpr auto kRound = std::chrono::milliseconds(100);
constexpr uint32_t kStopMs = 10'000;
constexpr uint32_t kLookMs = 200;
constexpr uint32_t kCommandLookMs = 100;

// A block of `count` free ports and one more for discovery, somewhere in the range that no service
// has by default.
int32_t FindFreePorts(const std::string& addr, uint32_t count) {
  const wire::Endpoint local = ParseEndpoint(addr, 0);
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const uint32_t base = 20'000 + random() % 10'000 / 2 * 2;
    bool allFree = true;
    for (uint32_t port = base; port < base + count && allFree; ++port) {
      allFree = BindError({local.address, static_cast<uint16_t>(port)}) == 0;
    }
    if (allFree) return static_cast<int32_t>(base);
  }
  throw Failure{kNoPort, "found no " + std::to_string(count) + " free UDP ports in a row on " +
                             addr + "; is that an address of this machine? (qz640ctl doctor)"};
}

// What a failure report of the emulator's log says to people: "ErrType=1 ErrCode=b ErrStr=TEXT
// Method=...".
std::string TextOfFailure(const std::string& report) {
  constexpr std::string_view kText = "ErrStr=";
  const size_t begin = report.find(kText);
  if (begin == std::string::npos) return report;
  const size_t end = report.rfind(" Method=");
  return report.substr(begin + kText.size(), end - begin - kText.size());
}

class Running {
 public:
  Running(Session& session, const UpOptions& options, Output& out);
  ~Running();
  int Run();

 private:
  void TakeSettings();
  void PlanPorts();
  void Launch();
  void StartIn(const files::path& emulator);
  void WaitStart(OutputReader& reader);
  void WaitReady(OutputReader& reader);
  void Progress(Clock::time_point begin, const std::string& what);
  void StartFaults();
  bool WaitStop(uint32_t milliseconds);
  int WaitCtrlC(OutputReader& reader);
  int RunCommand(OutputReader& reader);
  bool Stop();  // false when the emulator didn't end in good order
  void Announce();
  void StartWeb();
  void WriteEnvironment();
  std::string HowItEnded(OutputReader& reader, int status);
  std::string UnitCount() const { return std::to_string(settings_.units.size()) + " unit(s)"; }
  std::vector<std::pair<std::string, std::string>> Environment() const;

  Session& session_;
  const UpOptions& options_;
  Output& out_;
  Settings settings_;  // the emulator's
  wire::Endpoint discovery_;
  std::vector<Unit> found_;
  // The ports that users see. With faults, what stands before the units has the ports that they
  // would have had.
  int32_t shownBroadcastPort_ = 0;
  int32_t shownBasePort_ = 0;
  std::optional<FaultRelay> faults_;
  bool noted_ = false;        // that the start takes long
  bool endReported_ = false;  // that the emulator ended by itself
  bool wroteEnvironment_ = false;
  std::unique_ptr<RunFolder> folder_;
  std::optional<platform::Child> emulator_;
  platform::Child web_;  // runs with --web alone
};

Running::Running(Session& session, const UpOptions& options, Output& out)
    : session_(session), options_(options), out_(out) {
  TakeSettings();
  if (!options_.faults.empty() || !options_.faultFile.empty()) faults_.emplace(options_);
  PlanPorts();
}

Running::~Running() {
  std::error_code ignored;
  if (wroteEnvironment_) files::remove(options_.envFile, ignored);
  emulator_.reset();
  if (!folder_) return;
  const std::string reason = folder_->Leave();
  if (reason.empty()) return;
  out_.Error("can't remove " + folder_->Path().string() + " (" + reason +
             "); close what looks at it: the next \"up\" tries again");
}

// The file stays as it is: the emulator, which rewrites its settings, gets a text of its own.
void Running::TakeSettings() {
  if (options_.settings.empty()) {
    const bool none = options_.units.empty() && options_.named.empty();
    if (none) settings_.units = ParseUnits("QZ610,QZ820");
    if (!options_.units.empty()) settings_.units = ParseUnits(options_.units);
    for (const std::string& named : options_.named)
      settings_.units.push_back(ParseNamedUnit(named));
    settings_.addr = "127.0.0.1";
  } else {
    try {
      settings_ = Settings::Read(options_.settings);
    } catch (const BadSettings& error) {
      throw Failure{kUsage, options_.settings + " can't be taken in: " + error.what() +
                                " (qz640ctl doctor " + options_.settings + " looks closer)"};
    }
    std::string keys;
    for (const std::string& key : settings_.unknownKeys)
      keys += (keys.empty() ? "" : ", ") + key;
    if (!keys.empty()) out_.Note(options_.settings + " has keys that nothing reads: " + keys);
  }
  if (options_.addr) settings_.addr = *options_.addr;
  std::set<std::string> ids;
  for (UnitSettings& unit : settings_.units) {
    if (options_.mode) unit.mode = *options_.mode;
    if (options_.freq) unit.sampleFreq = *options_.freq;
    if (options_.speed) unit.speed = *options_.speed;
    if (!ids.insert(unit.id).second && options_.settings.empty()) {
      throw Failure{kUsage, "two units would be called \"" + unit.id + "\"; give each its own id"};
    }
  }
  if (settings_.addr.empty()) {
    throw Failure{kUsage, "\"AddrStr\" is empty in " + options_.settings +
                              ", so nobody would find these units; set it there, or give --addr"};
  }
  const wire::Endpoint local = ParseEndpoint(settings_.addr, 0);
  if (local.port != 0) {
    throw Failure{kUsage, settings_.addr + " must be an address alone; --port sets the port"};
  }
  if (local.address != 0 && !IsOwn(local)) {
    throw Failure{kNoPort, settings_.addr +
                               " is no address of this machine; qz640ctl doctor lists "
                               "them, 0.0.0.0 stands for all"};
  }
}

void Running::PlanPorts() {
  uint32_t ports = 2;  // in front: discovery
  for (const UnitSettings& unit : settings_.units)
    ports += unit.Model().Ports();
  if (options_.port || options_.settings.empty()) {
    const uint32_t block = faults_ ? 2 * ports : ports;
    settings_.broadcastPort = options_.port ? *options_.port : FindFreePorts(settings_.addr, block);
    settings_.basePort = settings_.broadcastPort + 2;
  }
  shownBroadcastPort_ = settings_.broadcastPort;
  shownBasePort_ = settings_.basePort;
  if (faults_) {
    const bool free = !options_.port && options_.settings.empty();
    settings_.broadcastPort = free ? shownBroadcastPort_ + static_cast<int32_t>(ports)
                                   : FindFreePorts(settings_.addr, ports);
    settings_.basePort = settings_.broadcastPort + 2;
  }
  // Units that listen on all addresses are reached at loopback too.
  const std::string reached = settings_.addr == "0.0.0.0" ? "127.0.0.1" : settings_.addr;
  discovery_ = ParseEndpoint(reached, static_cast<uint16_t>(settings_.broadcastPort));
}

int Running::Run() {
  Launch();
  OutputReader reader(*emulator_, [this](const std::string& bytes) {
    if (options_.showLog) std::fwrite(bytes.data(), 1, bytes.size(), stderr);
  });
  int status = kDone;
  try {
    WaitStart(reader);
    WaitReady(reader);
    out_.EndProgress();
    reader.Forget();
    if (faults_) StartFaults();
    if (options_.untilEof) platform::StopAtEndOfInput();
    if (options_.web) StartWeb();
    Announce();
    status = options_.command.empty() ? WaitCtrlC(reader) : RunCommand(reader);
  } catch (...) {
    Stop();
    throw;
  }
  return Stop() || status != kDone ? status : kRefused;
}

// Places for temporary files may be missing or full, or nothing in them may be run (mounted
// "noexec"): then the next one is tried.
void Running::Launch() {
  const files::path emulator = FindEmulator(options_.emulator);
  const bool stays = !options_.stateDir.empty();
  if (!stays) RunFolder::Sweep();
  std::string failures;
  const auto places = stays ? std::vector<files::path>{options_.stateDir} : RunFolder::Places();
  for (const files::path& place : places) {
    try {
      folder_ = stays ? RunFolder::Open(place) : RunFolder::MakeIn(place);
      StartIn(emulator);
      if (!failures.empty()) out_.Note(failures + "; the run is in " + folder_->Path().string());
      return;
    } catch (const RunFolder::Unusable& error) {
      folder_.reset();
      failures += (failures.empty() ? "" : "; ") + std::string(error.what());
    }
  }
  throw Failure{kRefused, failures + (stays ? "" : "; name a folder with --state-dir DIR")};
}

// A folder that stays gets the logs too; elsewhere they stand where every emulator's do.
void Running::StartIn(const files::path& emulator) {
  platform::ChildOptions options;
  options.command = {folder_->Install(emulator, settings_.ToText()).string()};
  options.piped = true;
  options.errorsToOutput = true;
  if (folder_->Stays()) {
    for (const char* variable : {"TMPDIR", "TMP", "TEMP"})
      options.environment.emplace_back(variable, folder_->Path().string());
  }
  emulator_.emplace();
  const uint32_t error = emulator_->Start(options);
  if (error == 0) return;
  throw RunFolder::Unusable("nothing can be run in " + folder_->Path().string() + " (" +
                            std::system_category().message(static_cast<int>(error)) + "), or " +
                            emulator.string() + " is no program of this system");
}

// People wait more patiently where they see for what; a log file gets one line.
void Running::Progress(Clock::time_point begin, const std::string& what) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin);
  if (seconds.count() < 1) return;
  out_.Progress(what + ", " + std::to_string(seconds.count()) + " s");
  if (seconds < kLongStart || noted_) return;
  noted_ = true;
  out_.Note(what + " takes long; --show-log shows why");
}

std::string Running::HowItEnded(OutputReader& reader, int status) {
  endReported_ = true;
  const std::string tail = reader.Tail();
  return "with status " + std::to_string(status) +
         (tail.empty() ? ", without a word" : "; it said last: " + tail);
}

// A thread or memory that can't be had may leave the emulator alive and silent: nobody waits for it
// without an end.
void Running::WaitStart(OutputReader& reader) {
  constexpr std::string_view kFailed = " FAILED. ERR=";
  const auto begin = Clock::now();
  const auto limit = kStartTime + kStartTimeOfUnit * static_cast<int>(settings_.units.size());
  std::string line;
  while (line.empty()) {
    line = reader.WaitFor({" Start OK", std::string(kFailed)}, kLookMs);
    if (!line.empty()) break;
    if (platform::WaitForStop(0)) throw wire::Interrupted();
    if (const auto status = emulator_->Wait(0)) {
      reader.WaitEnd(kStopMs);
      line = reader.WaitFor({" Start OK", std::string(kFailed)}, 0);
      if (!line.empty()) break;
      throw Failure{kRefused,
                    "the emulator ended before it was ready, " + HowItEnded(reader, *status)};
    }
    if (Clock::now() - begin > limit) {
      const std::string tail = reader.Tail();
      throw Failure{
          kRefused,
          "the emulator hasn't said \"Start OK\" within " +
              std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limit).count()) +
              " s; " + (tail.empty() ? "it said nothing at all" : "it said last: " + tail)};
    }
    Progress(begin, "waiting for the emulator to start " + UnitCount());
  }
  const size_t failed = line.find(kFailed);
  if (failed == std::string::npos) return;
  const std::string reason = " " + TextOfFailure(line.substr(failed + kFailed.size()));
  if (reason.find("bind socket failed") == std::string::npos) {
    throw Failure{kRefused, "the emulator could not start; --show-log shows more:" + reason};
  }
  throw Failure{kNoPort, "a port of the emulator, " + std::to_string(settings_.broadcastPort) +
                             " or from " + std::to_string(settings_.basePort) + " on " +
                             settings_.addr + ", is taken (qz640ctl doctor says by whom)" +
                             (options_.port ? "; leave --port out for free ones:" : ":") + reason};
}

// Until Ctrl-C, or what counts as it. True once it has come.
bool Running::WaitStop(uint32_t milliseconds) {
  return platform::WaitForStop(milliseconds) || folder_->IsStopAsked();
}

// Who ends this run may end all of its processes at once, as services are ended: an emulator that
// was faster than the signal to this process hasn't failed.
int Running::WaitCtrlC(OutputReader& reader) {
  while (!WaitStop(kLookMs)) {
    if (const auto status = emulator_->Wait(0)) {
      if (WaitStop(kLookMs)) break;
      throw Failure{kRefused, "the emulator has ended by itself, " + HowItEnded(reader, *status)};
    }
    if (faults_) faults_->Refresh(out_);
  }
  return kDone;
}

// " Start OK" is the emulator's word; an answered discovery shows that it is reached.
void Running::WaitReady(OutputReader& reader) {
  const auto begin = Clock::now();
  const auto limit = std::max<Clock::duration>(
      session_.Timeout(), kAnswerTimeOfUnit * static_cast<int>(settings_.units.size()));
  do {
    const auto rest = std::max<Clock::duration>(begin + limit - Clock::now(), kRound);
    found_ = session_.Find({discovery_}, rest, kRound);
    if (found_.size() == settings_.units.size()) return;
    if (const auto status = emulator_->Wait(0)) {
      throw Failure{kRefused,
                    "the emulator ended as soon as it had started, " + HowItEnded(reader, *status)};
    }
    Progress(begin, "waiting for " + UnitCount() + " to answer");
  } while (Clock::now() - begin < limit);
  throw Failure{kNoAnswer, std::to_string(found_.size()) + " of " + UnitCount() +
                               " answered the discovery at " + discovery_.ToText() +
                               " in time; give it longer with --timeout, or look with --show-log"};
}

// From here on the units are known by the addresses of what stands before them. On the address of
// an interface that hears the interface's broadcasts, as units do.
void Running::StartFaults() {
  wire::FaultyUnitsInfo info;
  info.realDiscovery = discovery_;
  info.local = discovery_.address;
  info.seed = options_.seed;
  discovery_.port = static_cast<uint16_t>(shownBroadcastPort_);
  info.discovery = {ParseEndpoint(settings_.addr, 0).address, discovery_.port};
  for (const platform::Interface& interface : platform::ListInterfaces()) {
    const bool own = wire::ToEndpoint(interface.address).address == info.discovery.address ||
                     (interface.loopback && IsLoopback(info.discovery));
    if (!own) continue;
    info.broadcasts.emplace_back(wire::ToEndpoint(interface.broadcast).address, discovery_.port);
    if (!interface.loopback) info.broadcasts.emplace_back(0xFFFFFFFF, discovery_.port);
  }
  const int32_t moved = settings_.basePort - shownBasePort_;
  for (Unit& unit : found_) {
    const Unit real = unit;
    unit.control.port = static_cast<uint16_t>(unit.control.port - moved);
    unit.rtpPort = static_cast<uint16_t>(unit.rtpPort - moved);
    info.units.push_back({real, unit});
  }
  faults_->Start(info);
}

std::vector<std::pair<std::string, std::string>> Running::Environment() const {
  std::vector<std::pair<std::string, std::string>> variables{
      {"QZ640_ADDR", settings_.addr},
      {"QZ640_DISCOVERY", discovery_.ToText()},
      {"QZ640_UNITS", std::to_string(found_.size())},
      {"QZ640_PID", std::to_string(emulator_->Id())},
      {kRunVariable, folder_->Path().string()}};
  for (size_t i = 0; i < found_.size(); ++i) {
    const std::string prefix = "QZ640_UNIT" + std::to_string(i) + "_";
    variables.emplace_back(prefix + "ID", found_[i].id);
    variables.emplace_back(prefix + "CONTROL", found_[i].control.ToText());
    variables.emplace_back(prefix + "RTP", found_[i].Output(0).ToText());
  }
  return variables;
}

// Whoever waits for the file to come finds all of it.
void Running::WriteEnvironment() {
  const std::string part = options_.envFile + ".part";
  std::ofstream file(part, std::ios::binary);
  for (const auto& [key, value] : Environment())
    file << key << '=' << platform::QuotedForSh(value) << '\n';
  file.close();
  std::error_code error;
  if (file) files::rename(part, options_.envFile, error);
  if (!file || error) {
    throw Failure{kUsage, "can't write " + options_.envFile + "; name another --env-file"};
  }
  wroteEnvironment_ = true;
}

void Running::Announce() {
  if (!options_.envFile.empty()) WriteEnvironment();
  if (options_.background) folder_->MarkDetached();
  Fields fields;
  for (const auto& [key, value] : Environment())
    fields.Add(key.c_str(), value);
  out_.Object(fields);
  const bool supervised = platform::NotifyReady("answering at " + discovery_.ToText() +
                                                ", units: " + std::to_string(found_.size()));
  if (!options_.command.empty()) return;
  for (const auto& [key, value] : Environment())
    out_.Line(Printable(key + "=" + value));
  if (options_.background) {
    out_.Note("running; end it with: qz640ctl down " + folder_->Path().string());
    platform::LeaveStreams();
  } else {
    out_.Line(options_.untilEof ? "running until standard input ends"
              : supervised      ? "running until the service is stopped"
                                : "running until Ctrl-C");
  }
}

int Running::RunCommand(OutputReader& reader) {
  platform::ChildOptions options;
  options.command = options_.command;
  options.environment = Environment();
  options.outputToError = out_.Json();
  platform::Child command;
  const uint32_t error = command.Start(options);
  if (error != 0) {
    throw Failure{kUsage, "can't start \"" + options_.command.front() +
                              "\": " + std::system_category().message(static_cast<int>(error)) +
                              "; give a program in PATH, or its path"};
  }
  bool died = false;
  for (;;) {
    const auto status = command.Wait(kCommandLookMs);
    if (const auto end = emulator_->Wait(0); end && !died) {
      died = true;
      out_.Error("the emulator ended before the command did, " + HowItEnded(reader, *end));
    }
    if (status) return died && *status == kDone ? int{kRefused} : *status;
    if (faults_) faults_->Refresh(out_);
    // The terminal has sent Ctrl-C to the command too; a signal from elsewhere it gets here.
    if (WaitStop(0)) command.Terminate();
  }
}

// Where the page can't be shown, its program says so and the units run all the same.
void Running::StartWeb() {
  platform::ChildOptions start;
  start.command = {platform::WideToUtf8Lossy(platform::ModuleFile(nullptr)), "web", "--to",
                   discovery_.ToText(), "--until-eof"};
  start.inputPiped = true;
  start.outputToError = true;
  const uint32_t error = web_.Start(start);
  if (error == 0) return;
  out_.Error("can't start " + start.command.front() +
             " for the page: " + std::system_category().message(static_cast<int>(error)));
}

bool Running::Stop() {
  // It gives back what it has borrowed, so the units have to be there still.
  if (options_.web) {
    web_.CloseInput();
    if (!web_.Wait(kStopMs)) web_.Kill();
  }
  emulator_->WriteInput("\n");
  emulator_->CloseInput();
  const auto status = emulator_->Wait(kStopMs);
  if (!status) {
    out_.Error("the emulator didn't stop within ten seconds and was ended");
    emulator_->Kill();
  } else if (*status != 0 && !endReported_) {
    out_.Error("the emulator ended with status " + std::to_string(*status) +
               "; --show-log shows why");
  }
  return status == 0;
}

}  // namespace

int RunUp(Session& session, const UpOptions& options, Output& out) {
  if (options.detach && !options.background) return RunDetached(options, out);
  try {
    return Running(session, options, out).Run();
  } catch (const std::system_error& error) {
    throw Failure{kRefused, "the system refuses a thread or a file (" + error.code().message() +
                                "); raise this user's limits (ulimit -u, ulimit -n)"};
  }
}

}  // namespace ctl
