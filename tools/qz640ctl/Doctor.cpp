// The command "doctor": looks at this machine and a settings file as a unit would meet them.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <mutex>

#include "Commands.h"
#include "Streams.h"
#include "audio/ISyncManager.h"
#include "audio/RtpPacket.h"
#include "emulator/EmuSettings.h"
#include "platform/interfaces.h"
#include "platform/ports.h"
#include "platform/startup.h"
#include "platform/text.h"
#include "runtime/Clocks.h"
#include "runtime/Paths.h"

namespace ctl {

using namespace Network;
namespace files = std::filesystem;

namespace {

constexpr uint32_t kFindMs = 600;  // on each interface
constexpr uint32_t kClockTestMs = 3000;
constexpr double kLateGoodMs = 2.0;  // p99; later ticks shrink what a peer's buffer is there for

std::string Text(const platform::SocketAddress& address) {
  return ToText(NetAddr(address));
}

class Doctor {
 public:
  Doctor(uint32_t timeoutMs, Output& out) : timeoutMs_(timeoutMs), out_(out) {}

  int Run(const std::string& settingsPath) {
    Interfaces();
    Settings(settingsPath);
    Ports();
    Scheduling();
    out_.Line(problems_ == 0 ? "nothing found that stands in the way"
                             : std::to_string(problems_) + " problem(s) found");
    return problems_ == 0 ? kDone : kRefused;
  }

 private:
  void Interfaces();
  void Settings(const std::string& path);
  void CheckSettings(const EmuSettings& settings);
  void CheckAddress(const EmuSettings& settings);
  void Ports();
  void Scheduling();

  void Print(const char* topic, const std::string& text, bool problem, Fields fields) {
    fields.Add("topic", topic).Add("finding", text).Add("problem", problem ? 1 : 0);
    out_.Object(fields);
    out_.Line((problem ? out_.Paint(Colour::Red, "! ") : "  ") + text);
  }

  // `fields` are for programs, beside topic and text.
  void Report(const char* topic, const std::string& text, const Fields& fields = {}) {
    Print(topic, text, false, fields);
  }

  void Problem(const char* topic, const std::string& text, const Fields& fields = {}) {
    ++problems_;
    Print(topic, text, true, fields);
  }

  const uint32_t timeoutMs_;
  Output& out_;
  unsigned problems_ = 0;
  std::string addr_ = "0.0.0.0";  // that the units listen on
  std::vector<std::pair<std::string, int64_t>> ports_{{"discovery", kDiscoveryPort}};
};

void Doctor::Interfaces() {
  out_.Line("interfaces");
  for (const platform::Interface& interface : platform::ListInterfaces()) {
    NetAddr broadcast(interface.broadcast);
    const std::string to = broadcast.IsDefined() ? ToText(broadcast) : "none";
    std::string line = interface.name + "  " + Text(interface.address) + "  broadcast " + to;
    std::string names;
    if (broadcast.IsDefined()) {
      broadcast.SetFromTextAndPort(broadcast.ToText(), kDiscoveryPort);
      for (const Unit& unit : Discovery().Find({broadcast}, std::min(timeoutMs_, kFindMs)))
        names += (names.empty() ? "" : ", ") + unit.Id() + " (" + unit.Control() + ")";
      line += names.empty() ? "  nobody answers" : "  answers: " + names;
    }
    Report("interfaces", line,
           Fields()
               .Add("interface", interface.name)
               .Add("address", Text(interface.address))
               .Add("broadcast", to)
               .Add("answers", names));
  }
}

void Doctor::Settings(const std::string& given) {
  out_.Line("settings file");
  files::path path = given;
  if (given.empty()) {
    const files::path own = platform::WideToUtf8Lossy(GetModulePath(true, true));
    path = own.parent_path() / ("qz640emu" + own.extension().string() + ".json");
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
  EmuSettings settings;
  const ErrInfo err = settings.FromFile(platform::Utf8ToWideLossy(path.string()));
  if (!err.IsOk()) {
    Problem("settings", path.string() +
                            " can't be taken in; mend it, or remove it and the emulator writes a "
                            "new one:" +
                            platform::WideToUtf8Lossy(err.ToString()));
    return;
  }
  Report("settings", path.string() + ": " + std::to_string(settings.units.size()) + " unit(s)");
  CheckAddress(settings);
  CheckSettings(settings);
}

void Doctor::CheckAddress(const EmuSettings& settings) {
  const std::string text = platform::WideToUtf8Lossy(settings.AddrStr);
  NetAddr addr;
  if (text.empty()) {
    Problem("settings",
            "\"AddrStr\" is empty: this unit can't be found. Set it to an address of "
            "this machine, or to 0.0.0.0 for all of them");
    return;
  }
  if (!addr.SetFromTextAndPort(settings.AddrStr, 0)) {
    Problem("settings", "\"AddrStr\" is \"" + text +
                            "\", which is no address: these units can't be found. Set it to "
                            "an address of this machine, or to 0.0.0.0 for all of them");
    return;
  }
  const auto interfaces = platform::ListInterfaces();
  const bool own = text == "0.0.0.0" || text.starts_with("127.") ||
                   std::any_of(interfaces.begin(), interfaces.end(), [&](const auto& interface) {
                     return Text(interface.address) == text;
                   });
  if (own) {
    addr_ = text;
  } else {
    Problem("settings", "\"AddrStr\" is " + text +
                            ", which this machine doesn't have; set it to one of the addresses "
                            "above, or to 0.0.0.0 for all of them");
  }
}

void Doctor::CheckSettings(const EmuSettings& settings) {
  ports_ = {{"discovery", settings.BroadcastPort}};
  for (const UnitSettings& unit : settings.units) {
    const std::string id = platform::WideToUtf8Lossy(unit.UnitId);
    if (PayloadTypeFromFreq(unit.SampleFreq) == 0) {
      Problem("settings", id + ": \"SampleFreq\" " + std::to_string(unit.SampleFreq) +
                              " makes the start fail; units run at 48000 or 44100");
    }
    if (unit.GetInputCount() + unit.GetOutputCount() == 0) {
      Problem("settings", id + ": \"UnitType\" \"" + platform::WideToUtf8Lossy(unit.UnitType) +
                              "\" is neither QZ610 nor QZ820; the unit has no audio");
    }
    ports_.emplace_back(id + " control", unit.BasePort);
    for (int32_t i = 0; i < unit.GetOutputCount(); ++i) {
      ports_.emplace_back(id + " output " + std::to_string(i), RtpPort(unit.BasePort, i));
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
    const bool isFree = IsPortFree(addr_, static_cast<uint32_t>(port));
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

// Counts how late each tick of 4 ms comes.
class LatenessTarget final : public ISyncTarget {
 public:
  void OnSync(ISyncSource*, int64_t pos, uint32_t freq) override {
    const int64_t now = ClockRead(nullptr);
    std::lock_guard lock(mutex_);
    if (times_.empty()) first_ = now - MulDiv64(pos, 10'000'000, freq);
    times_.push_back(static_cast<double>(now - first_ - MulDiv64(pos, 10'000'000, freq)) / 1e4);
  }

  // In milliseconds, ascending, against the earliest tick.
  std::vector<double> Lateness() {
    std::lock_guard lock(mutex_);
    std::sort(times_.begin(), times_.end());
    const double earliest = times_.empty() ? 0 : times_.front();
    for (double& time : times_)
      time -= earliest;
    return times_;
  }

 private:
  std::mutex mutex_;
  int64_t first_ = 0;
  std::vector<double> times_;
};

void Doctor::Scheduling() {
  out_.Line("clock and scheduling (" + std::to_string(kClockTestMs / 1000) + " s of 4 ms ticks)");
  LatenessTarget target;
  const std::unique_ptr<ISyncManager> sync(ISyncManager::Create(L"qz640ctl.doctor"));
  sync->AddTarget(&target);
  sync->SetSyncFreq(48000, kPacketFrames);
  sync->Start();
  platform::WaitForStop(kClockTestMs);
  sync->Stop();
  const std::vector<double> late = target.Lateness();
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

int RunDoctor(const std::string& settingsPath, const CommonOptions& common, Output& out) {
  return Doctor(common.timeoutMs, out).Run(settingsPath);
}

}  // namespace ctl
