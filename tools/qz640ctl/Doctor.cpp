// The command "doctor": looks at this machine and a settings file as a unit would meet them.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>
#include <system_error>

#include "Commands.h"
#include "EmulatorFile.h"
#include "PacketFilter.h"
#include "Printable.h"
#include "Settings.h"
#include "platform/advice.h"
#include "platform/errors.h"
#include "platform/interfaces.h"
#include "platform/ports.h"
#include "platform/startup.h"
#include "platform/thread.h"
#include "wire/PlatformAddress.h"
#include "wire/Streams.h"

namespace ctl {

using wire::Clock;
using wire::Endpoint;
using wire::Unit;
namespace files = std::filesystem;

namespace {

constexpr auto kFindTime = std::chrono::milliseconds(600);  // on each interface
constexpr auto kClockTestTime = std::chrono::seconds(3);
constexpr auto kTick = std::chrono::milliseconds(4);
constexpr double kOddSpeed = 0.001;  // 1000 ppm, ten times what hardware has
constexpr double kLateGoodMs = 2.0;  // p99; later ticks shrink what a peer's buffer is there for

// The subnet's broadcast address; nothing for an interface without one.
std::optional<Endpoint> BroadcastOf(const platform::Interface& interface) {
  const Endpoint broadcast = wire::ToEndpoint(interface.broadcast);
  if (broadcast.address == 0xFFFFFFFF) return std::nullopt;
  return broadcast;
}

// How a finding stands to what the user wants.
enum class Weight { Fine, Hint, Problem };

// What shows that it is so.
struct Evidence {
  explicit Evidence(std::string seen) : text(std::move(seen)) {}
  std::string text;
};

// What ends it: a command to type, and where that isn't all, what to do with it or instead.
struct Cure {
  explicit Cure(std::string toType, std::string further = {})
      : command(std::move(toType)), remark(std::move(further)) {}
  std::string ToText() const { return command + (remark.empty() ? "" : "   (" + remark + ")"); }

  std::string command;
  std::string remark;
};

// What stands in the way, or may. Nobody is left alone with the cause: there is none without what
// shows it and what to type against it.
struct Finding {
  Finding(std::string what, Evidence seen, Cure against)
      : cause(std::move(what)), evidence(std::move(seen)), cure(std::move(against)) {}

  std::string cause;
  Evidence evidence;
  Cure cure;
};

// The ports as ranges, for a packet filter: rules with many single ports are refused. What lies
// between two ports of one unit, which has ten at most, is the unit's own too.
std::vector<platform::PortRange> RangesOf(std::vector<uint16_t> ports) {
  constexpr int kUnitPorts = 10;
  std::sort(ports.begin(), ports.end());
  std::vector<platform::PortRange> ranges;
  for (const uint16_t port : ports) {
    if (ranges.empty() || port - ranges.back().last > kUnitPorts) ranges.push_back({port, port});
    ranges.back().last = port;
  }
  return ranges;
}

class Doctor {
 public:
  Doctor(Session& session, Output& out) : session_(session), out_(out) {}

  int Run(const std::string& settingsPath) {
    bool finished = false;
    try {
      ReadSettings(settingsPath);
      Interfaces();
      SettingsFile();
      Ports();
      PacketFilters();
      Scheduling();
      finished = true;
    } catch (const wire::Interrupted&) {
      // Says so below: what wasn't looked at isn't in order for that.
    }
    return Verdict(finished);
  }

 private:
  void ReadSettings(const std::string& given);
  void Interfaces();
  std::string AskAt(const Endpoint& at);
  void SettingsFile();
  void CheckUnits();
  void CheckPortPlan();
  void CheckAddress();
  void Ports();
  void Port(const std::string& name, int64_t number, size_t& ownEmulator);
  bool IsOfThisFile(const platform::PortOwner& owner) const;
  void OtherEmulators();
  void CheckAnswers();
  void PacketFilters();
  void RealTime();
  void Scheduling();
  int Verdict(bool finished);

  // `fields` are for programs, beyond those that every finding has.
  void Fine(const char* topic, const std::string& finding, Fields fields = {}) {
    AddCommon(fields, topic, finding, Weight::Fine);
    out_.Object(fields);
    out_.Line("  " + Printable(finding));
  }

  void Say(const char* topic, Weight weight, const Finding& finding, Fields fields = {}) {
    (weight == Weight::Problem ? problems_ : hints_) += 1;
    AddCommon(fields, topic, finding.cause, weight);
    out_.Object(fields.Add("evidence", finding.evidence.text)
                    .Add("cure", finding.cure.ToText())
                    .Add("command", finding.cure.command));
    out_.Line((weight == Weight::Problem ? out_.Paint(Colour::Red, "! ")
                                         : out_.Paint(Colour::Yellow, "? ")) +
              Printable(finding.cause));
    out_.Line("      seen: " + Printable(finding.evidence.text));
    out_.Line("      cure: " + Printable(finding.cure.ToText()));
  }

  static void AddCommon(Fields& fields, const char* topic, const std::string& finding,
                        Weight weight) {
    const bool fine = weight == Weight::Fine;
    fields.Add("topic", topic)
        .Add("finding", finding)
        .Add("weight", std::string(fine                     ? "fine"
                                   : weight == Weight::Hint ? "hint"
                                                            : "problem"))
        .Add("problem", weight == Weight::Problem ? 1 : 0);
  }

  // Of the settings file, which is its own evidence; `change` mends it there.
  void BadSetting(const std::string& finding, const std::string& change) {
    Say("settings", Weight::Problem, OfFile(finding, change));
  }

  // One that is wrong as long as nobody meant it.
  void OddSetting(const std::string& finding, const std::string& change) {
    Say("settings", Weight::Hint, OfFile(finding, change));
  }

  Finding OfFile(const std::string& finding, const std::string& change) const {
    return {finding, Evidence(path_.string()), Cure(platform::CommandEdit(path_.string()), change)};
  }

  Session& session_;
  Output& out_;
  unsigned problems_ = 0;
  unsigned hints_ = 0;

  std::string emulator_;  // the program file; empty: none was found
  files::path path_;      // of the settings file
  bool wanted_ = false;   // the user has named it
  bool exists_ = false;
  std::string missing_;     // why it doesn't exist, in the system's words
  std::string unreadable_;  // why it can't be taken in
  std::optional<Settings> settings_;
  uint16_t discoveryPort_ = wire::kDiscoveryPort;
  uint32_t addr_ = 0;  // that the units listen on; 0: all
  std::vector<std::pair<std::string, int64_t>> ports_{{"discovery", wire::kDiscoveryPort}};
  std::set<std::string> answered_;           // ids
  std::vector<platform::PortOwner> owners_;  // of all UDP ports in use
  int runs_ = 0;  // process of the emulator of this file; 0: it doesn't run
};

int Doctor::Verdict(bool finished) {
  std::string text = problems_ == 0 ? "nothing found that stands in the way"
                                    : std::to_string(problems_) + " problem(s) found";
  if (!finished) {
    text = "not finished: stopped in the middle, with " + std::to_string(problems_) +
           " problem(s) found so far";
  }
  if (hints_ > 0) text += ", " + std::to_string(hints_) + " hint(s)";
  out_.Object(Fields()
                  .Add("topic", "summary")
                  .Add("finding", text)
                  .Add("problems", problems_)
                  .Add("hints", hints_)
                  .Add("finished", finished ? 1 : 0));
  out_.Line(text);
  return finished && problems_ == 0 ? kDone : kRefused;
}

// First of all, as it says where the units are to be looked for.
void Doctor::ReadSettings(const std::string& given) {
  try {
    emulator_ = FindEmulator({}).string();
  } catch (const Failure&) {
    // "up" says so; a settings file can be looked at all the same.
  }
  wanted_ = !given.empty();
  path_ = wanted_ ? given : emulator_ + ".json";
  std::error_code error;
  exists_ = (wanted_ || !emulator_.empty()) && files::exists(path_, error);
  if (!exists_) {
    missing_ =
        (error ? error : std::make_error_code(std::errc::no_such_file_or_directory)).message();
    return;
  }
  try {
    settings_ = Settings::Read(path_);
  } catch (const BadSettings& bad) {
    unreadable_ = bad.what();
    return;
  }
  if (settings_->broadcastPort >= 1 && settings_->broadcastPort <= 65535) {
    discoveryPort_ = static_cast<uint16_t>(settings_->broadcastPort);
  }
}

std::string Doctor::AskAt(const Endpoint& at) {
  std::string names;
  for (const Unit& unit :
       session_.Find({at}, std::min(session_.Timeout(), Clock::duration(kFindTime)))) {
    names += (names.empty() ? "" : ", ") + unit.id + " (" + unit.control.ToText() + ")";
    answered_.insert(unit.id);
  }
  return names;
}

void Doctor::Interfaces() {
  out_.Line("interfaces, asked for units at port " + std::to_string(discoveryPort_));
  const std::vector<platform::Interface> all = platform::ListInterfaces();
  bool outside = false;
  for (const platform::Interface& interface : all) {
    outside = outside || !interface.loopback;
    const auto broadcast = BroadcastOf(interface);
    const std::string to = broadcast ? broadcast->ToText() : "none";
    const std::string address = wire::ToEndpoint(interface.address).ToText();
    std::string line = interface.name + "  " + address + "  broadcast " + to;
    std::string names;
    if (broadcast) {
      names = AskAt({broadcast->address, discoveryPort_});
      line += names.empty() ? "  nobody answers" : "  answers: " + names;
    }
    Fine("interfaces", line,
         Fields()
             .Add("interface", interface.name)
             .Add("address", address)
             .Add("broadcast", to)
             .Add("port", discoveryPort_)
             .Add("answers", names));
  }
  if (all.empty()) {
    Say("interfaces", Weight::Problem,
        {"no network interface with an IPv4 address is up", Evidence("the system's list is empty"),
         Cure(platform::CommandBringInterfaceUp())});
  } else if (!outside) {
    Say("interfaces", Weight::Hint,
        {"the loopback alone is up: units can be reached from this machine and no other",
         Evidence("the system's list has no other interface with an IPv4 address"),
         Cure(platform::CommandBringInterfaceUp())});
  }
}

void Doctor::SettingsFile() {
  out_.Line("settings file");
  if (!exists_) {
    if (wanted_) {
      const std::string own = emulator_.empty() ? "" : platform::Quoted(emulator_ + ".json");
      Say("settings", Weight::Problem,
          {path_.string() + " doesn't exist", Evidence(missing_),
           Cure("qz640ctl doctor" + (own.empty() ? "" : " " + own),
                "the file stands beside the emulator, as PROGRAM.json, from its first start on")});
    } else if (emulator_.empty()) {
      Fine("settings", "none was named, and no emulator is installed beside this program");
    } else {
      Fine("settings", path_.string() +
                           " doesn't exist; the emulator makes it at its first start, deaf until "
                           "\"AddrStr\" is set");
    }
    return;
  }
  if (!settings_) {
    Say("settings", Weight::Problem,
        {path_.string() + " can't be taken in", Evidence(unreadable_),
         Cure(platform::CommandEdit(path_.string()),
              "mend it, or remove it and the emulator writes a new one")});
    return;
  }
  Fine("settings", path_.string() + ": " + std::to_string(settings_->units.size()) + " unit(s)");
  CheckAddress();
  for (const std::string& key : settings_->unknownKeys) {
    BadSetting("\"" + key + "\" means nothing; the emulator drops it at its next start",
               "the keys are AddrStr, BasePort, BroadcastPort, units; in a unit UnitType, UnitId, "
               "SampleFreq, Mode, Speed");
  }
  CheckUnits();
  CheckPortPlan();
}

void Doctor::CheckAddress() {
  const std::string& text = settings_->addr;
  const std::string cure =
      "set it to an address of this machine from the list above, or to 0.0.0.0 for all of them";
  if (text.empty()) {
    BadSetting("\"AddrStr\" is empty: this unit can't be found", cure);
    return;
  }
  const auto addr = Endpoint::Parse(text);
  if (!addr) {
    BadSetting("\"AddrStr\" is \"" + text + "\", which is no address: these units can't be found",
               cure);
  } else if (addr->address == 0 || IsOwn(*addr)) {
    addr_ = addr->address;
  } else {
    BadSetting("\"AddrStr\" is " + text + ", which this machine doesn't have", cure);
  }
}

void Doctor::CheckUnits() {
  std::set<std::string> ids;
  for (const UnitSettings& unit : settings_->units) {
    const std::string& id = unit.id;
    if (!ids.insert(id).second) {
      OddSetting("two units are called \"" + id + "\"", "give each \"UnitId\" once");
    }
    if (unit.sampleFreq < 0 || wire::PayloadTypeOf(static_cast<uint32_t>(unit.sampleFreq)) == 0) {
      BadSetting(
          id + ": \"SampleFreq\" " + std::to_string(unit.sampleFreq) + " makes the start fail",
          "set it to 48000 or 44100");
    }
    const wire::Model model = unit.Model();
    if (model.inputs + model.outputs == 0) {
      BadSetting(id + ": \"UnitType\" \"" + unit.type +
                     "\" is no model that is known; the unit has no audio",
                 "set it to one of " + KnownModels());
    }
    if (unit.mode < 0 || unit.mode > 4) {
      BadSetting(id + ": \"Mode\" " + std::to_string(unit.mode) + " is none and acts as 0",
                 "set it to 0 to 4");
    }
    if (!(unit.speed > 0)) {
      BadSetting(id + ": \"Speed\" " + FormatNumber(unit.speed, 3) +
                     " isn't above 0, so the unit's clock stands still",
                 "set it to 1.0");
    } else if (std::abs(unit.speed - 1) > kOddSpeed) {
      OddSetting(id + ": \"Speed\" " + FormatNumber(unit.speed, 4) +
                     " is so far from 1 that listeners lose the stream again and again",
                 "set it to 1.0, or within 0.999 and 1.001");
    }
  }
}

void Doctor::CheckPortPlan() {
  ports_ = {{"discovery", settings_->broadcastPort}};
  for (const UnitSettings& unit : settings_->units) {
    ports_.emplace_back(unit.id + " control", unit.controlPort);
    for (uint32_t i = 0; i < unit.Model().outputs; ++i) {
      ports_.emplace_back(unit.id + " output " + std::to_string(i),
                          wire::OutputPort(unit.controlPort, i));
    }
  }
  const std::string cure = "change \"BasePort\" or \"BroadcastPort\"";
  std::map<int64_t, std::string> names;
  for (const auto& [name, port] : ports_) {
    if (port < 1 || port > 65535) {
      BadSetting(name + " would be port " + std::to_string(port) + ", which doesn't exist", cure);
    }
    const auto [other, isNew] = names.emplace(port, name);
    if (isNew) continue;
    BadSetting(other->second + " and " + name + " share port " + std::to_string(port), cure);
  }
}

// The emulator's settings stand beside its program file, so that tells one emulator from another.
bool Doctor::IsOfThisFile(const platform::PortOwner& owner) const {
  std::error_code error;
  return !owner.program.empty() && files::equivalent(owner.program + ".json", path_, error);
}

bool IsEmulator(const platform::PortOwner& owner) {
  return owner.name.starts_with("qz640emu");
}

void Doctor::Port(const std::string& name, int64_t number, size_t& ownEmulator) {
  const auto port = static_cast<uint16_t>(number);
  std::string owners;
  const platform::PortOwner* other = nullptr;  // some emulator, and none of this file
  bool own = false;
  bool emulators = true;
  int process = 0;  // that has it, and whose number is known
  for (const platform::PortOwner& owner : owners_) {
    if (owner.port != port) continue;
    owners += (owners.empty() ? "" : ", ") + owner.name;
    if (owner.process != 0) owners += " (" + std::to_string(owner.process) + ")";
    if (owner.process != 0) process = owner.process;
    if (IsOfThisFile(owner)) {
      own = true;
      runs_ = owner.process;
    }
    const bool emulator = IsEmulator(owner);
    if (emulator) other = &owner;
    emulators = emulators && emulator;
  }
  const Endpoint local(addr_, port);
  const uint32_t refused = BindError(local);
  const std::string text = "UDP " + std::to_string(port) + " (" + name + ") ";
  const std::string change =
      std::string("change ") + (name == "discovery" ? "\"BroadcastPort\"" : "\"BasePort\"");
  const Fields fields = Fields()
                            .Add("port", port)
                            .Add("use", name)
                            .Add("free", refused == 0 ? 1 : 0)
                            .Add("owner", owners);
  if (refused == 0) {
    Fine("ports", text + "is free" + (owners.empty() ? "" : " here; elsewhere " + owners), fields);
    return;
  }
  if (own) {
    ++ownEmulator;
    Fine("ports", text + "is in use by the emulator of this file, " + owners, fields);
    return;
  }
  if (other && emulators && !settings_) {
    Fine("ports", text + "is taken by " + owners, fields);
    return;
  }
  const std::string words = std::system_category().message(static_cast<int>(refused));
  const std::string seen = local.ToText() + " can't be bound: " + words;
  if (owners.empty() && refused != platform::kAddrInUse) {
    // Below 1024, or in a range that the system keeps for itself.
    Say("ports", Weight::Problem,
        {text + "is refused by the system", Evidence(seen),
         settings_ ? Cure(platform::CommandEdit(path_.string()), change)
                   : Cure(platform::CommandShowPort(port), "shows who has it")},
        fields);
  } else {
    const bool known = other && emulators;
    Say("ports", Weight::Problem,
        {text + "is taken by " + (owners.empty() ? "an unknown program" : owners) +
             (known ? ", an emulator with other settings" : ""),
         Evidence(known ? other->program + ".json; " + seen : seen),
         process == 0
             ? Cure(platform::CommandShowPort(port),
                    "shows by whom; end that program, or " + change)
             : Cure(platform::CommandEndProcess(process), "ends that program; or " + change)},
        fields);
  }
}

void Doctor::Ports() {
  out_.Line("ports");
  owners_ = platform::UdpPortOwners();
  size_t looked = 0;
  size_t ownEmulator = 0;
  for (const auto& [name, port] : ports_) {
    if (port < 1 || port > 65535) continue;
    ++looked;
    Port(name, port, ownEmulator);
  }
  OtherEmulators();
  if (runs_ == 0) return;
  if (ownEmulator < looked) {
    Say("ports", Weight::Problem,
        {"the emulator of this file runs with other ports than it names",
         Evidence(std::to_string(ownEmulator) + " of " + std::to_string(looked) +
                  " are in use by it"),
         Cure(platform::CommandEndProcess(runs_),
              "and start it again: it reads the file only then")});
  }
  CheckAnswers();
}

// Those that run at none of the ports that were looked at: units of which nothing was heard so far.
void Doctor::OtherEmulators() {
  std::map<int, std::vector<const platform::PortOwner*>> running;  // by process
  for (const platform::PortOwner& owner : owners_) {
    if (owner.process != 0 && IsEmulator(owner)) running[owner.process].push_back(&owner);
  }
  for (const auto& [process, owners] : running) {
    const auto isLookedAt = [this](const platform::PortOwner* owner) {
      return std::any_of(ports_.begin(), ports_.end(),
                         [owner](const auto& each) { return each.second == owner->port; });
    };
    if (std::any_of(owners.begin(), owners.end(), isLookedAt)) continue;
    if (IsOfThisFile(*owners.front())) {
      runs_ = process;
      continue;
    }
    std::string ports;
    for (const platform::PortOwner* owner : owners)
      ports += (ports.empty() ? "" : ", ") + std::to_string(owner->port);
    const std::string file = owners.front()->program + ".json";
    Say("ports", Weight::Hint,
        {"another emulator runs (" + std::to_string(process) +
             "), whose units aren't looked for here",
         Evidence("it has UDP " + ports), Cure("qz640ctl doctor " + platform::Quoted(file))});
  }
}

// A unit that runs here and answers nowhere is what people come for.
void Doctor::CheckAnswers() {
  const uint32_t at = addr_ == 0 ? 0x7F000001 : addr_;
  AskAt({at, discoveryPort_});
  for (const UnitSettings& unit : settings_->units) {
    if (answered_.count(unit.id) > 0) continue;
    Say("ports", Weight::Problem,
        {unit.id + " runs and doesn't answer",
         Evidence("asked at " + Endpoint(at, discoveryPort_).ToText() + " and at every interface"),
         Cure(platform::CommandEndProcess(runs_),
              "and start it again; its log says what it hears")});
  }
}

// Of the ports that others have to reach; what stays on this machine passes no rule of interest.
void Doctor::PacketFilters() {
  out_.Line("packet filter");
  if (addr_ != 0 && IsLoopback({addr_, 0})) {
    Fine("filter", "not asked: units at a loopback address are reached on this machine alone");
    return;
  }
  std::vector<uint16_t> ports;
  for (const auto& [name, port] : ports_) {
    if (port >= 1 && port <= 65535) ports.push_back(static_cast<uint16_t>(port));
  }
  const std::string permit = platform::CommandPermitUdp(emulator_, RangesOf(ports));
  const std::vector<platform::PacketFilter> filters = platform::ReadPacketFilters();
  if (filters.empty()) {
    Fine("filter", "none was found that could be asked; let UDP in if there is one");
  }
  for (const platform::PacketFilter& filter : filters) {
    if (!filter.read) {
      Say("filter", Weight::Hint,
          {"a packet filter may drop UDP; its rules can't be judged from here",
           Evidence(filter.command + ": " + filter.rules),
           Cure(permit, "lets the units through; first " + filter.command + " shows the rules")});
      continue;
    }
    FilterVerdict worst;
    std::vector<uint16_t> hit;
    for (const uint16_t port : ports) {
      const FilterVerdict verdict = JudgeUdp(filter.rules, port);
      if (verdict.kind != FilterVerdict::Kind::Passes) hit.push_back(port);
      if (verdict.kind > worst.kind) worst = verdict;
    }
    if (hit.empty()) {
      Fine("filter", "lets UDP in to all of these ports (" + filter.command + ")");
      continue;
    }
    const bool sure = worst.kind == FilterVerdict::Kind::Drops;
    Say("filter", sure ? Weight::Problem : Weight::Hint,
        {std::string("the packet filter ") + (sure ? "drops" : "may drop") + " UDP to " +
             std::to_string(hit.size()) + " of " + std::to_string(ports.size()) + " ports",
         Evidence(worst.rule.empty() ? filter.command : worst.rule),
         Cure(platform::CommandPermitUdp(emulator_, RangesOf(hit)))});
  }
}

// Without it all works the same, until the machine is busy.
void Doctor::RealTime() {
  if (platform::CanBeTimeCritical()) {
    Fine("scheduling", "real-time priority is permitted");
    return;
  }
  Say("scheduling", Weight::Hint,
      {"this user has no real-time priority: while the machine is busy, packets leave late",
       Evidence(
           "the system refuses it to this program; the emulator's file may have leave of its own"),
       Cure(platform::CommandPermitRealTime(emulator_))});
}

// How late each tick of 4 ms comes, in milliseconds, ascending.
std::vector<double> MeasureTicks(wire::Loop& loop) {
  std::vector<double> late;
  Clock::time_point due = Clock::now() + kTick;
  wire::Timer* next = nullptr;
  wire::Timer timer(loop, [&] {
    for (const auto now = Clock::now(); due <= now; due += kTick)
      late.push_back(std::chrono::duration<double, std::milli>(now - due).count());
    next->At(due);
  });
  next = &timer;
  timer.At(due);
  loop.RunFor(kClockTestTime);
  std::sort(late.begin(), late.end());
  return late;
}

// The last look: from here on this thread goes before those that needn't be in time.
void Doctor::Scheduling() {
  out_.Line("clock and scheduling (" + std::to_string(kClockTestTime.count()) +
            " s of 4 ms ticks)");
  RealTime();
  platform::SetTimeCritical();
  const std::vector<double> late = MeasureTicks(session_.Loop());
  if (late.empty()) {
    Say("scheduling", Weight::Problem,
        {"not one tick came",
         Evidence("in " + std::to_string(kClockTestTime.count()) + " s, " +
                  std::to_string(kClockTestTime / kTick) + " were due"),
         Cure(platform::CommandShowLoad(), "shows what keeps the machine busy")});
    return;
  }
  const auto at = [&late](double share) {
    return late[static_cast<size_t>(share * static_cast<double>(late.size() - 1))];
  };
  const std::string figures = "ticks late: p50 " + FormatNumber(at(0.5), 2) + " ms, p99 " +
                              FormatNumber(at(0.99), 2) + " ms, max " +
                              FormatNumber(late.back(), 2) + " ms";
  const Fields fields = Fields()
                            .Add("p50_ms", at(0.5))
                            .Add("p99_ms", at(0.99))
                            .Add("max_ms", late.back())
                            .Add("ticks", late.size());
  if (at(0.99) > kLateGoodMs) {
    const std::string permit = platform::CommandPermitRealTime(emulator_);
    Say("scheduling", Weight::Problem,
        {"ticks come late: a stream's listeners have room for some 20 ms, and this comes on top of "
         "the network's",
         Evidence(figures),
         Cure(platform::CommandShowLoad(), "shows what keeps the machine busy; end that" +
                                               (permit.empty() ? "" : ", or " + permit))},
        fields);
  } else {
    Fine("scheduling", figures, fields);
  }
  const double edges[] = {0.25, 0.5, 1, 2, 4, 8, 1e9};
  double from = 0;
  for (const double edge : edges) {
    const auto count =
        std::count_if(late.begin(), late.end(), [&](double ms) { return ms >= from && ms < edge; });
    const auto width = static_cast<size_t>(
        std::ceil(40.0 * static_cast<double>(count) / static_cast<double>(late.size())));
    out_.Object(Fields().Add("topic", "histogram").Add("from_ms", from).Add("ticks", count));
    out_.Line("  " + FormatNumber(from, 2) + " ms+  " + std::string(width, '#') + " " +
              std::to_string(count));
    from = edge;
  }
}

}  // namespace

int RunDoctor(Session& session, const std::string& settingsPath, Output& out) {
  return Doctor(session, out).Run(settingsPath);
}

}  // namespace ctl
