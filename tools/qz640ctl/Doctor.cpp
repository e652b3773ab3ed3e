// The command "doctor": looks at this machine and a settings file as a unit would meet them.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>

#include "Commands.h"
#include "Printable.h"
#include "Settings.h"
#include "platform/interfaces.h"
#include "platform/ports.h"
#include "platform/startup.h"
#include "platform/thread.h"
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
constexpr double kLateGoodMs = 2.0;  // p99; later ticks shrink what a peer's buffer is there for

// The subnet's broadcast address; nothing for an interface without one.
std::optional<Endpoint> BroadcastOf(const platform::Interface& interface) {
  const Endpoint broadcast = ToEndpoint(interface.broadcast);
  if (broadcast.address == 0xFFFFFFFF) return std::nullopt;
  return broadcast;
}

class Doctor {
 public:
  Doctor(Session& session, Output& out) : session_(session), out_(out) {}

  int Run(const std::string& settingsPath) {
    Interfaces();
    SettingsFile(settingsPath);
    Ports();
    Scheduling();
    out_.Line(problems_ == 0 ? "nothing found that stands in the way"
                             : std::to_string(problems_) + " problem(s) found");
    return problems_ == 0 ? kDone : kRefused;
  }

 private:
  void Interfaces();
  void SettingsFile(const std::string& path);
  void CheckSettings(const Settings& settings);
  void CheckAddress(const Settings& settings);
  void Ports();
  void Scheduling();

  void Print(const char* topic, const std::string& text, bool problem, Fields fields) {
    fields.Add("topic", topic).Add("finding", text).Add("problem", problem ? 1 : 0);
    out_.Object(fields);
    out_.Line((problem ? out_.Paint(Colour::Red, "! ") : "  ") + Printable(text));
  }

  // `fields` are for programs, beside topic and text.
  void Report(const char* topic, const std::string& text, const Fields& fields = {}) {
    Print(topic, text, false, fields);
  }

  void Problem(const char* topic, const std::string& text, const Fields& fields = {}) {
    ++problems_;
    Print(topic, text, true, fields);
  }

  Session& session_;
  Output& out_;
  unsigned problems_ = 0;
  uint32_t addr_ = 0;  // that the units listen on; 0: all
  std::vector<std::pair<std::string, int64_t>> ports_{{"discovery", wire::kDiscoveryPort}};
};

void Doctor::Interfaces() {
  out_.Line("interfaces");
  for (const platform::Interface& interface : platform::ListInterfaces()) {
    const auto broadcast = BroadcastOf(interface);
    const std::string to = broadcast ? broadcast->ToText() : "none";
    const std::string address = ToEndpoint(interface.address).ToText();
    std::string line = interface.name + "  " + address + "  broadcast " + to;
    std::string names;
    if (broadcast) {
      const Endpoint at(broadcast->address, wire::kDiscoveryPort);
      for (const Unit& unit :
           session_.Find({at}, std::min(session_.Timeout(), Clock::duration(kFindTime))))
        names += (names.empty() ? "" : ", ") + unit.id + " (" + unit.control.ToText() + ")";
      line += names.empty() ? "  nobody answers" : "  answers: " + names;
    }
    Report("interfaces", line,
           Fields()
               .Add("interface", interface.name)
               .Add("address", address)
               .Add("broadcast", to)
               .Add("answers", names));
  }
}

void Doctor::SettingsFile(const std::string& given) {
  out_.Line("settings file");
  files::path path = given;
  if (given.empty()) {
    path = EmulatorBeside();
    path += ".json";
  }
  std::error_code ignored;
  if (!files::exists(path, ignored)) {
    const std::string text = path.string() + " doesn't exist";
    if (given.empty()) {
      Report("settings", text +
                             "; the emulator makes it at its first start, deaf until \"AddrStr\" "
                             "is set");
    } else {
      Problem("settings", text + "; give the path of the file beside the emulator");
    }
    return;
  }
  Settings settings;
  try {
    settings = Settings::Read(path);
  } catch (const BadSettings& error) {
    Problem("settings", path.string() +
                            " can't be taken in; mend it, or remove it and the emulator writes a "
                            "new one: " +
                            error.what());
    return;
  }
  Report("settings", path.string() + ": " + std::to_string(settings.units.size()) + " unit(s)");
  CheckAddress(settings);
  CheckSettings(settings);
}

void Doctor::CheckAddress(const Settings& settings) {
  const std::string& text = settings.addr;
  if (text.empty()) {
    Problem("settings",
            "\"AddrStr\" is empty: this unit can't be found. Set it to an address of "
            "this machine, or to 0.0.0.0 for all of them");
    return;
  }
  const auto addr = Endpoint::Parse(text);
  if (!addr) {
    Problem("settings", "\"AddrStr\" is \"" + text +
                            "\", which is no address: these units can't be found. Set it to "
                            "an address of this machine, or to 0.0.0.0 for all of them");
    return;
  }
  const bool own = addr->address == 0 || IsOwn(*addr);
  if (own) {
    addr_ = addr->address;
  } else {
    Problem("settings", "\"AddrStr\" is " + text +
                            ", which this machine doesn't have; set it to one of the addresses "
                            "above, or to 0.0.0.0 for all of them");
  }
}

void Doctor::CheckSettings(const Settings& settings) {
  ports_ = {{"discovery", settings.broadcastPort}};
  for (const UnitSettings& unit : settings.units) {
    const std::string& id = unit.id;
    if (unit.sampleFreq < 0 || wire::PayloadTypeOf(static_cast<uint32_t>(unit.sampleFreq)) == 0) {
      Problem("settings", id + ": \"SampleFreq\" " + std::to_string(unit.sampleFreq) +
                              " makes the start fail; units run at 48000 or 44100");
    }
    const wire::Model model = unit.Model();
    if (model.inputs + model.outputs == 0) {
      std::string known;
      for (const wire::Model& each : wire::kModels)
        known += (known.empty() ? "" : ", ") + std::string(each.name);
      Problem("settings", id + ": \"UnitType\" \"" + unit.type + "\" is no model that is known (" +
                              known + "); the unit has no audio");
    }
    ports_.emplace_back(id + " control", unit.controlPort);
    for (uint32_t i = 0; i < model.outputs; ++i) {
      ports_.emplace_back(id + " output " + std::to_string(i),
                          wire::OutputPort(unit.controlPort, i));
    }
  }
  for (size_t i = 0; i < ports_.size(); ++i) {
    if (ports_[i].second < 1 || ports_[i].second > 65535) {
      Problem("settings", ports_[i].first + " would be port " + std::to_string(ports_[i].second) +
                              ", which doesn't exist; change \"BasePort\" or \"BroadcastPort\"");
    }
    for (size_t j = i + 1; j < ports_.size(); ++j) {
      if (ports_[i].second != ports_[j].second) continue;
      Problem("settings", ports_[i].first + " and " + ports_[j].first + " share port " +
                              std::to_string(ports_[i].second) +
                              "; change \"BasePort\" or \"BroadcastPort\"");
    }
  }
}

void Doctor::Ports() {
  out_.Line("ports");
  for (const auto& [name, port] : ports_) {
    if (port < 1 || port > 65535) continue;
    std::string owners;
    bool byEmulator = true;
    for (const std::string& owner : platform::UdpPortOwners(static_cast<uint16_t>(port))) {
      owners += (owners.empty() ? "" : ", ") + owner;
      byEmulator = byEmulator && owner.starts_with("qz640emu");
    }
    const bool isFree = IsPortFree({addr_, static_cast<uint16_t>(port)});
    const std::string text = "UDP " + std::to_string(port) + " (" + name + ") ";
    const Fields fields = Fields()
                              .Add("port", port)
                              .Add("use", name)
                              .Add("free", isFree ? 1 : 0)
                              .Add("owner", owners);
    if (isFree) {
      Report("ports", text + "is free" + (owners.empty() ? "" : " here; elsewhere " + owners),
             fields);
    } else if (byEmulator && !owners.empty()) {
      Report("ports", text + "is taken by " + owners, fields);
    } else {
      Problem("ports",
              text + "is taken by " + (owners.empty() ? "an unknown program" : owners) +
                  "; end that, or change " +
                  (name == "discovery" ? "\"BroadcastPort\"" : "\"BasePort\""),
              fields);
    }
  }
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
  platform::SetTimeCritical();
  const std::vector<double> late = MeasureTicks(session_.Loop());
  if (late.empty()) {
    Problem("scheduling", "not one tick came");
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
    Problem("scheduling",
            figures +
                "; the machine is busy or gives no real-time priority (on "
                "Linux: CAP_SYS_NICE or an rtprio limit)",
            fields);
  } else {
    Report("scheduling", figures, fields);
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
