// The command "doctor": looks at this machine and a settings file as a unit would meet them.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <mutex>

#include "Commands.h"
#include "EmuSettings.h"
#include "ISyncManager.h"
#include "RtpPacket.h"
#include "Streams.h"
#include "platform/clock.h"
#include "platform/interfaces.h"
#include "platform/ports.h"
#include "platform/text.h"
#include "runtime/Clocks.h"
#include "runtime/Paths.h"

namespace ctl {

using namespace Network;
namespace files = std::filesystem;

namespace {

constexpr uint32_t kClockTestMs = 3000;
constexpr double kLateGoodMs = 2.0;  // p99; later ticks shrink what a peer's buffer is there for

std::string Text(const platform::SocketAddress& address) {
  return ToText(NetAddr(address));
}

class Doctor {
 public:
  explicit Doctor(Output& out) : out_(out) {}

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

  void Print(const char* topic, const std::string& text, bool problem) {
    JSON::Value object;
    object.ItemForWrite(L"topic").SetString(platform::Utf8ToWideLossy(topic));
    object.ItemForWrite(L"finding").SetString(platform::Utf8ToWideLossy(text));
    object.ItemForWrite(L"problem").SetInt(problem ? 1 : 0);
    out_.Object(object);
    out_.Line((problem ? out_.Paint(Colour::Red, "! ") : "  ") + text);
  }

  void Report(const char* topic, const std::string& text) { Print(topic, text, false); }

  void Problem(const char* topic, const std::string& text) {
    ++problems_;
    Print(topic, text, true);
  }

  Output& out_;
  unsigned problems_ = 0;
  std::vector<std::pair<std::string, int64_t>> ports_{{"discovery", kDiscoveryPort}};
};

void Doctor::Interfaces() {
  out_.Line("interfaces");
  for (const platform::Interface& interface : platform::ListInterfaces()) {
    NetAddr broadcast(interface.broadcast);
    std::string line = interface.name + "  " + Text(interface.address) + "  broadcast " +
                       (broadcast.IsDefined() ? ToText(broadcast) : "none");
    if (broadcast.IsDefined()) {
      broadcast.SetFromTextAndPort(broadcast.ToText(), kDiscoveryPort);
      const std::vector<Unit> units = Discovery().Find({broadcast}, 600);
      std::string names;
      for (const Unit& unit : units)
        names += " " + unit.Id() + " (" + unit.Control() + ")";
      line += units.empty() ? "  nobody answers" : "  answers:" + names;
    }
    Report("interfaces", line);
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
    const std::string text = path.string() +
                             " doesn't exist; the emulator makes it at its first "
                             "start, deaf until \"AddrStr\" is set";
    given.empty() ? Report("settings", text) : Problem("settings", text);
    return;
  }
  EmuSettings settings;
  const ErrInfo err = settings.FromFile(platform::Utf8ToWideLossy(path.string()));
  if (!err.IsOk()) {
    Problem("settings", "can't be taken in:" + platform::WideToUtf8Lossy(err.ToString()));
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
                            "\", which is no address; the units hear "
                            "nothing");
    return;
  }
  const auto interfaces = platform::ListInterfaces();
  const bool own = text == "0.0.0.0" || text.starts_with("127.") ||
                   std::any_of(interfaces.begin(), interfaces.end(), [&](const auto& interface) {
                     return Text(interface.address) == text;
                   });
  if (!own) Problem("settings", "\"AddrStr\" is " + text + ", which this machine doesn't have");
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
      ports_.emplace_back(id + " output " + std::to_string(i), int64_t{unit.BasePort} + 2 + 2 * i);
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
    for (const std::string& owner : platform::UdpPortOwners(static_cast<uint16_t>(port))) {
      owners += (owners.empty() ? "" : ", ") + owner;
    }
    Report("ports", "UDP " + std::to_string(port) + " (" + name + ") " +
                        (owners.empty() ? "is free" : "is taken by " + owners));
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
  platform::GetClock().Sleep(kClockTestMs);
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
  if (at(0.99) > kLateGoodMs) {
    Problem("scheduling", figures +
                              "; the machine is busy or gives no real-time priority (on "
                              "Linux: CAP_SYS_NICE or an rtprio limit)");
  } else {
    Report("scheduling", figures);
  }
  const double edges[] = {0.25, 0.5, 1, 2, 4, 8, 1e9};
  double from = 0;
  for (const double edge : edges) {
    const auto count =
        std::count_if(late.begin(), late.end(), [&](double ms) { return ms >= from && ms < edge; });
    const auto width = static_cast<size_t>(
        std::ceil(40.0 * static_cast<double>(count) / static_cast<double>(late.size())));
    out_.Line("  " + FormatNumber(from, 2) + " ms+  " + std::string(width, '#') + " " +
              std::to_string(count));
    from = edge;
  }
}

}  // namespace

int RunDoctor(const std::string& settingsPath, Output& out) {
  return Doctor(out).Run(settingsPath);
}

}  // namespace ctl
