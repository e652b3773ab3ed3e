// The command "doctor": looks at this machine and a settings file as a unit would meet them.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "Commands.h"
#include "EmulatorFile.h"
#include "PacketFilter.h"
#include "Printable.h"
#include "Settings.h"
#include "platform/advice.h"
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
  void CheckAnswers();
  void PacketFilters();
  void RealTime();
  void Scheduling();
  int Verdict(bool finished);

  // What was found, what shows it, what to do about it. `fields` are for programs.
  void Say(const char* topic, Weight weight, const std::string& finding,
           const std::string& evidence, const std::string& cure, Fields fields = {}) {
    problems_ += weight == Weight::Problem;
    hints_ += weight == Weight::Hint;
    fields.Add("topic", topic)
        .Add("finding", finding)
        .Add("weight", std::string(weight == Weight::Fine   ? "fine"
                                   : weight == Weight::Hint ? "hint"
                                                            : "problem"))
        .Add("problem", weight == Weight::Problem ? 1 : 0);
    if (!evidence.empty()) fields.Add("evidence", evidence);
    if (!cure.empty()) fields.Add("cure", cure);
    out_.Object(fields);
    const std::string mark = weight == Weight::Fine   ? "  "
                             : weight == Weight::Hint ? out_.Paint(Colour::Yellow, "? ")
                                                      : out_.Paint(Colour::Red, "! ");
    out_.Line(mark + Printable(finding));
    if (!evidence.empty()) out_.Line("      seen: " + Printable(evidence));
    if (!cure.empty()) out_.Line("      cure: " + Printable(cure));
  }

  void Fine(const char* topic, const std::string& finding, const Fields& fields = {}) {
    Say(topic, Weight::Fine, finding, {}, {}, fields);
  }

  // Of the settings file, which is its own evidence.
  void BadSetting(const std::string& finding, const std::string& cure) {
    Say("settings", Weight::Problem, finding, path_.string(), cure);
  }

  // One that is wrong as long as nobody meant it.
  void OddSetting(const std::string& finding, const std::string& cure) {
    Say("settings", Weight::Hint, finding, path_.string(), cure);
  }

  Session& session_;
  Output& out_;
  unsigned problems_ = 0;
  unsigned hints_ = 0;

  std::string emulator_;  // the program file; empty: none was found
  files::path path_;      // of the settings file
  bool wanted_ = false;   // the user has named it
  bool exists_ = false;
  std::string unreadable_;  // why it can't be taken in
  std::optional<Settings> settings_;
  uint16_t discoveryPort_ = wire::kDiscoveryPort;
  uint32_t addr_ = 0;  // that the units listen on; 0: all
  std::vector<std::pair<std::string, int64_t>> ports_{{"discovery", wire::kDiscoveryPort}};
  std::set<std::string> answered_;  // ids
  bool runs_ = false;               // the emulator of this file
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
  if (!exists_) return;
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
    Say("interfaces", Weight::Problem, "no network interface with an IPv4 address is up",
        "the system's list is empty", platform::CommandBringInterfaceUp());
  } else if (!outside) {
    Say("interfaces", Weight::Hint,
        "the loopback alone is up: units can be reached from this machine and no other",
        "the system's list has no other interface with an IPv4 address",
        platform::CommandBringInterfaceUp());
  }
}

void Doctor::SettingsFile() {
  out_.Line("settings file");
  if (!exists_) {
    if (wanted_) {
      Say("settings", Weight::Problem, path_.string() + " doesn't exist", {},
          "give the path of the file beside the emulator");
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
    Say("settings", Weight::Problem, path_.string() + " can't be taken in: " + unreadable_, {},
        "mend it, or remove it and the emulator writes a new one");
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

void Doctor::Port(const std::string& name, int64_t number, size_t& ownEmulator) {
  const auto port = static_cast<uint16_t>(number);
  std::string owners;
  const platform::PortOwner* other = nullptr;  // some emulator, and none of this file
  bool own = false;
  bool emulators = true;
  const std::vector<platform::PortOwner> all = platform::UdpPortOwners(port);
  for (const platform::PortOwner& owner : all) {
    owners += (owners.empty() ? "" : ", ") + owner.name;
    if (owner.process != 0) owners += " (" + std::to_string(owner.process) + ")";
    own = own || IsOfThisFile(owner);
    const bool emulator = owner.name.starts_with("qz640emu");
    if (emulator) other = &owner;
    emulators = emulators && emulator;
  }
  const bool isFree = IsPortFree({addr_, port});
  const std::string text = "UDP " + std::to_string(port) + " (" + name + ") ";
  const std::string change =
      std::string("change ") + (name == "discovery" ? "\"BroadcastPort\"" : "\"BasePort\"");
  const Fields fields =
      Fields().Add("port", port).Add("use", name).Add("free", isFree ? 1 : 0).Add("owner", owners);
  if (isFree) {
    Fine("ports", text + "is free" + (owners.empty() ? "" : " here; elsewhere " + owners), fields);
  } else if (own) {
    ++ownEmulator;
    Fine("ports", text + "is in use by the emulator of this file, " + owners, fields);
  } else if (other && emulators && !settings_) {
    Fine("ports", text + "is taken by " + owners, fields);
  } else if (other && emulators) {
    Say("ports", Weight::Problem,
        text + "is taken by " + owners + ", an emulator with other settings",
        other->program + ".json", "end that one, or " + change, fields);
  } else {
    Say("ports", Weight::Problem,
        text + "is taken by " + (owners.empty() ? "an unknown program" : owners), {},
        "end that program, or " + change, fields);
  }
}

void Doctor::Ports() {
  out_.Line("ports");
  size_t looked = 0;
  size_t ownEmulator = 0;
  for (const auto& [name, port] : ports_) {
    if (port < 1 || port > 65535) continue;
    ++looked;
    Port(name, port, ownEmulator);
  }
  runs_ = ownEmulator > 0;
  if (runs_ && ownEmulator < looked) {
    Say("ports", Weight::Problem, "the emulator of this file runs with other ports than it names",
        std::to_string(ownEmulator) + " of " + std::to_string(looked) + " are in use by it",
        "start it anew: it reads the file only then");
  }
  if (runs_) CheckAnswers();
}

// A unit that runs here and answers nowhere is what people come for.
void Doctor::CheckAnswers() {
  const uint32_t at = addr_ == 0 ? 0x7F000001 : addr_;
  AskAt({at, discoveryPort_});
  for (const UnitSettings& unit : settings_->units) {
    if (answered_.count(unit.id) > 0) continue;
    Say("ports", Weight::Problem, unit.id + " runs and doesn't answer",
        "asked at " + Endpoint(at, discoveryPort_).ToText() + " and at every interface",
        "look into the emulator's log, and start it anew");
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
  const std::string permit = platform::CommandPermitUdp(emulator_, ports);
  const std::vector<platform::PacketFilter> filters = platform::ReadPacketFilters();
  if (filters.empty()) {
    Fine("filter", "none was found that could be asked; let UDP in if there is one");
  }
  for (const platform::PacketFilter& filter : filters) {
    if (!filter.read) {
      Say("filter", Weight::Hint, "a packet filter may drop UDP; this user may not see its rules",
          {}, filter.command + "   shows them, and this lets the units through: " + permit);
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
        std::string("the packet filter ") + (sure ? "drops" : "may drop") + " UDP to " +
            std::to_string(hit.size()) + " of " + std::to_string(ports.size()) + " ports",
        worst.rule.empty() ? filter.command : worst.rule,
        platform::CommandPermitUdp(emulator_, hit));
  }
}

// Without it all works the same, until the machine is busy.
void Doctor::RealTime() {
  if (platform::CanBeTimeCritical()) {
    Fine("scheduling", "real-time priority is permitted");
    return;
  }
  Say("scheduling", Weight::Hint,
      "this user has no real-time priority: while the machine is busy, packets leave late",
      "the system refuses it to this program; the emulator's file may have leave of its own",
      platform::CommandPermitRealTime(emulator_));
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
    Say("scheduling", Weight::Problem, "not one tick came", {}, "look what keeps the machine busy");
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
    Say("scheduling", Weight::Problem, figures,
        "a stream's listeners have room for some 20 ms, and this comes on top of the network's",
        "end what keeps the machine busy, or: " + platform::CommandPermitRealTime(emulator_),
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
