// The command "up": an emulator of one's own, on free ports, for as long as a command runs.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>

#include "Commands.h"
#include "FaultRelay.h"
#include "Settings.h"
#include "platform/child.h"
#include "platform/startup.h"

namespace ctl {

using wire::Unit;
namespace files = std::filesystem;

namespace {

constexpr uint32_t kReadyMs = 15'000;
constexpr uint32_t kStopMs = 10'000;

// "2xQZ820,QZ610" into units emu-1, emu-2, emu-3.
std::vector<UnitSettings> ParseUnits(const std::string& text, int32_t mode) {
  std::vector<UnitSettings> units;
  size_t begin = 0;
  while (begin <= text.size()) {
    const size_t end = std::min(text.find(',', begin), text.size());
    std::string type = text.substr(begin, end - begin);
    uint32_t count = 1;
    const size_t times = type.find('x');
    if (times != std::string::npos) {
      const auto parsed = std::from_chars(type.data(), type.data() + times, count);
      if (parsed.ptr == type.data() + times && times > 0) type.erase(0, times + 1);
    }
    if (type.empty() || count == 0 || count > 500) {
      throw Failure{kUsage, "\"" + text +
                                "\" is no list of units; it must read like "
                                "2xQZ820,QZ610"};
    }
    for (; count > 0; --count) {
      UnitSettings unit;
      unit.type = type;
      unit.id = "emu-" + std::to_string(units.size() + 1);
      unit.mode = mode;
      units.push_back(unit);
    }
    begin = end + 1;
  }
  return units;
}

// A block of `count` free ports and one more for discovery, somewhere in the range that no service
// has by default.
int32_t FindFreePorts(const std::string& addr, uint32_t count) {
  const wire::Endpoint local = ParseEndpoint(addr, 0);
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const uint32_t base = 20'000 + random() % 10'000 / 2 * 2;
    bool allFree = true;
    for (uint32_t port = base; port < base + count && allFree; ++port) {
      allFree = IsPortFree({local.address, static_cast<uint16_t>(port)});
    }
    if (allFree) return static_cast<int32_t>(base);
  }
  throw Failure{kNoPort, "found no " + std::to_string(count) + " free UDP ports in a row on " +
                             addr + "; is that an address of this machine? (qz640ctl doctor)"};
}

// The emulator's output, taken line by line on a thread of its own.
class OutputReader {
 public:
  OutputReader(platform::Child& child, bool show) : child_(child), show_(show) {
    thread_ = std::thread([this] { Run(); });
  }
  ~OutputReader() { thread_.join(); }  // ends with the child's output
  OutputReader(const OutputReader&) = delete;
  OutputReader& operator=(const OutputReader&) = delete;

  // Waits for a line with one of the texts; empty when the output ends or time is over.
  std::string WaitFor(const std::vector<std::string>& texts, uint32_t milliseconds) {
    std::unique_lock lock(mutex_);
    std::string found;
    changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] {
      for (const std::string& line : lines_) {
        for (const std::string& text : texts) {
          if (line.find(text) != std::string::npos) found = line;
        }
        if (!found.empty()) break;
      }
      return !found.empty() || ended_;
    });
    return found;
  }

  // Nobody waits for lines any more: they aren't kept.
  void Forget() {
    std::lock_guard lock(mutex_);
    keep_ = false;
    lines_.clear();
  }

 private:
  void Run() {
    std::string rest;
    for (std::string bytes = child_.ReadOutput(); !bytes.empty(); bytes = child_.ReadOutput()) {
      if (show_) std::fwrite(bytes.data(), 1, bytes.size(), stderr);
      rest += bytes;
      std::lock_guard lock(mutex_);
      for (size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
        if (keep_) lines_.push_back(rest.substr(0, end));
        rest.erase(0, end + 1);
      }
      changed_.notify_all();
    }
    std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  platform::Child& child_;
  const bool show_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool keep_ = true;
  bool ended_ = false;
  std::thread thread_;
};

// A folder of its own for the executable and its settings, removed at the end.
class Folder {
 public:
  Folder() {
    std::random_device random;
    do {
      path_ = files::temp_directory_path() / ("qz640ctl-up-" + std::to_string(random()));
    } while (!files::create_directory(path_));
  }
  ~Folder() {
    std::error_code ignored;
    files::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  // The settings file stands beside the executable, so the executable comes along.
  files::path Install(const files::path& emulator, const Settings& settings) const {
    const files::path installed = path_ / emulator.filename();
    std::error_code error;
    files::create_hard_link(emulator, installed, error);
    if (error) files::copy_file(emulator, installed, error);
    if (error) {
      throw Failure{kUsage, "can't use the emulator \"" + emulator.string() +
                                "\": " + error.message() + "; name it with --emulator PATH"};
    }
    std::ofstream(installed.string() + ".json", std::ios::binary) << settings.ToText();
    return installed;
  }

 private:
  files::path path_;
};

// By default the one that stands beside this program.
files::path EmulatorPath(const UpOptions& options) {
  if (!options.emulator.empty()) return options.emulator;
  return EmulatorBeside();
}

class Running {
 public:
  Running(Session& session, const UpOptions& options, Output& out);
  int Run();

 private:
  void Launch();
  void WaitStart(OutputReader& reader);
  void WaitReady();
  void StartFaults();
  int WaitCtrlC();
  int RunCommand();
  bool Stop();  // false when the emulator didn't end in good order
  void Announce();
  std::vector<std::pair<std::string, std::string>> Environment() const;

  Session& session_;
  const UpOptions& options_;
  Output& out_;
  Folder folder_;
  Settings settings_;
  wire::Endpoint discovery_;
  std::vector<Unit> found_;
  int32_t portsBefore_ = 0;  // from the emulator's to those that are shown, with faults
  std::optional<FaultRelay> faults_;
  platform::Child emulator_;
};

Running::Running(Session& session, const UpOptions& options, Output& out)
    : session_(session), options_(options), out_(out) {
  settings_.addr = options_.addr;
  settings_.units = ParseUnits(options_.units, options_.mode);
  if (!options_.faults.empty() || !options_.faultFile.empty()) faults_.emplace(options_);
  uint32_t ports = 2;  // in front: discovery
  for (const UnitSettings& unit : settings_.units)
    ports += unit.Model().Ports();
  // With faults, what stands before the units has the ports that they would have had.
  const uint32_t block = faults_ ? 2 * ports : ports;
  const int32_t shown = options_.port ? *options_.port : FindFreePorts(options_.addr, block);
  settings_.broadcastPort = !faults_         ? shown
                            : !options_.port ? shown + static_cast<int32_t>(ports)
                                             : FindFreePorts(options_.addr, ports);
  portsBefore_ = settings_.broadcastPort - shown;
  settings_.basePort = settings_.broadcastPort + 2;
  // Units that listen on all addresses are reached at loopback too.
  const std::string reached = options_.addr == "0.0.0.0" ? "127.0.0.1" : options_.addr;
  discovery_ = ParseEndpoint(reached, static_cast<uint16_t>(settings_.broadcastPort));
}

int Running::Run() {
  Launch();
  OutputReader reader(emulator_, options_.showLog);
  int status = kDone;
  try {
    WaitStart(reader);
    WaitReady();
    reader.Forget();
    if (faults_) StartFaults();
    Announce();
    status = options_.command.empty() ? WaitCtrlC() : RunCommand();
  } catch (...) {
    Stop();
    throw;
  }
  return Stop() || status != kDone ? status : kRefused;
}

void Running::Launch() {
  platform::ChildOptions options;
  options.command = {folder_.Install(EmulatorPath(options_), settings_).string()};
  options.piped = true;
  const uint32_t error = emulator_.Start(options);
  if (error != 0) {
    throw Failure{kRefused, "can't start " + options.command.front() + ": error " +
                                std::to_string(error) + "; is it the emulator of this system?"};
  }
}

void Running::WaitStart(OutputReader& reader) {
  constexpr std::string_view kFailed = " FAILED. ERR=";
  const std::string line = reader.WaitFor({" Start OK", std::string(kFailed)}, kReadyMs);
  if (line.empty()) {
    throw Failure{kRefused,
                  "the emulator didn't say that it is ready; --show-log shows what "
                  "it says, --emulator PATH names another"};
  }
  const size_t failed = line.find(kFailed);
  if (failed == std::string::npos) return;
  const std::string reason = line.substr(failed + kFailed.size());
  if (reason.find("bind socket failed") == std::string::npos) {
    throw Failure{kRefused, "the emulator could not start; --show-log shows more:" + reason};
  }
  throw Failure{kNoPort, "a port of the emulator, from " + std::to_string(settings_.broadcastPort) +
                             " on " + options_.addr +
                             ", is taken, or the address isn't this machine's (qz640ctl doctor "
                             "says); leave --port out for free ones:" +
                             reason};
}

int Running::WaitCtrlC() {
  while (!platform::WaitForStop(200)) {
    if (emulator_.Wait(0)) {
      throw Failure{kRefused, "the emulator has ended by itself; --show-log shows why"};
    }
    if (faults_) faults_->Refresh(out_);
  }
  return kDone;
}

// " Start OK" is the emulator's word; an answered discovery shows that it is reached.
void Running::WaitReady() {
  found_ = session_.Find({discovery_}, session_.Timeout(), std::chrono::milliseconds(100));
  if (found_.size() == settings_.units.size()) return;
  throw Failure{kNoAnswer, std::to_string(found_.size()) + " of " +
                               std::to_string(settings_.units.size()) +
                               " units answered the discovery at " + discovery_.ToText() +
                               " in time; give it longer with --timeout, or look with --show-log"};
}

// From here on the units are known by the addresses of what stands before them.
void Running::StartFaults() {
  wire::FaultyUnitsInfo info;
  info.realDiscovery = discovery_;
  info.local = discovery_.address;
  info.seed = options_.seed;
  discovery_.port = static_cast<uint16_t>(discovery_.port - portsBefore_);
  info.discovery = {ParseEndpoint(options_.addr, 0).address, discovery_.port};
  for (Unit& unit : found_) {
    const Unit real = unit;
    unit.control.port = static_cast<uint16_t>(unit.control.port - portsBefore_);
    unit.rtpPort = static_cast<uint16_t>(unit.rtpPort - portsBefore_);
    info.units.push_back({real, unit});
  }
  faults_->Start(info);
}

std::vector<std::pair<std::string, std::string>> Running::Environment() const {
  std::vector<std::pair<std::string, std::string>> variables{
      {"QZ640_ADDR", options_.addr},
      {"QZ640_DISCOVERY", discovery_.ToText()},
      {"QZ640_UNITS", std::to_string(found_.size())},
      {"QZ640_PID", std::to_string(emulator_.Id())}};
  for (size_t i = 0; i < found_.size(); ++i) {
    const std::string prefix = "QZ640_UNIT" + std::to_string(i) + "_";
    variables.emplace_back(prefix + "ID", found_[i].id);
    variables.emplace_back(prefix + "CONTROL", found_[i].control.ToText());
    variables.emplace_back(prefix + "RTP", found_[i].Output(0).ToText());
  }
  return variables;
}

void Running::Announce() {
  Fields fields;
  for (const auto& [key, value] : Environment())
    fields.Add(key.c_str(), value);
  out_.Object(fields);
  if (!options_.command.empty()) return;
  for (const auto& [key, value] : Environment())
    out_.Line(key + "=" + value);
  out_.Line("running until Ctrl-C");
}

int Running::RunCommand() {
  platform::ChildOptions options;
  options.command = options_.command;
  options.environment = Environment();
  options.outputToError = out_.Json();
  platform::Child command;
  const uint32_t error = command.Start(options);
  if (error != 0) {
    throw Failure{kUsage, "can't start \"" + options_.command.front() + "\": error " +
                              std::to_string(error) + "; give a program in PATH, or its path"};
  }
  for (;;) {
    if (const auto status = command.Wait(100)) {
      if (emulator_.Wait(0)) {
        out_.Error("the emulator ended before the command did; --show-log shows why");
      }
      return *status;
    }
    if (faults_) faults_->Refresh(out_);
    // The terminal has sent Ctrl-C to the command too; a signal from elsewhere it gets here.
    if (platform::WaitForStop(0)) command.Terminate();
  }
}

bool Running::Stop() {
  emulator_.WriteInput("\n");
  emulator_.CloseInput();
  const auto status = emulator_.Wait(kStopMs);
  if (!status) {
    out_.Error("the emulator didn't stop within ten seconds and was ended");
    emulator_.Kill();
  } else if (*status != 0) {
    out_.Error("the emulator ended with status " + std::to_string(*status) +
               "; --show-log shows why");
  }
  return status == 0;
}

}  // namespace

int RunUp(Session& session, const UpOptions& options, Output& out) {
  return Running(session, options, out).Run();
}

}  // namespace ctl
