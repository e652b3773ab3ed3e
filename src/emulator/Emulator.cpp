#include "emulator/Emulator.h"

#include "platform/errors.h"
#include "runtime/Paths.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\Emulator";

}  // namespace

Emulator::Emulator() : Emulator(EmulatorParts()) {}

Emulator::Emulator(const EmulatorParts& parts)
    : parts_(parts),
      netManager_(parts_.MakeNet()),
      broadcastCatcher_(parts_.MakeListener(L"BroadcastCatcher", netManager_.get())) {
  TakeSettings();
}

void Emulator::TakeSettings() {
  std::wstring path = parts_.SettingsPath;
  if (path.empty()) path = GetModulePath(true, true) + L".json";

  bool missing = false;
  bool taken = false;
  {
    ErrInfo err = settings_.FromFile(path);
    taken = err.IsOk();
    missing = err.Code() == platform::kFileNotFound;
  }
  // What couldn't be taken in is the user's text with a mistake in it: not to be replaced.
  if (taken || missing) settings_.ToFile(path);
}

Emulator::~Emulator() {
  Stop();
  netManager_.reset();
  broadcastCatcher_.reset();
}

ErrInfo Emulator::Init() {
  ErrInfo err = InitUnits();
  if (!err.IsOk()) return err;
  err = InitListener();
  if (!err.IsOk()) {
    Stop();
    return err;
  }
  return ERR_HERE("Network::Emulator::Init");
}

ErrInfo Emulator::InitUnits() {
  for (const UnitSettings& unitSettings : settings_.units) {
    auto unit = std::make_shared<AudioCardEmu>(netManager_.get(), parts_.Unit);
    ErrInfo err = unit->Init(settings_, unitSettings);
    if (!err.IsOk()) {
      Stop();
      return err;
    }
    std::lock_guard lock(unitsLock_);
    units_.push_back(unit);
  }
  return ERR_HERE("Network::Emulator::Init");
}

ErrInfo Emulator::InitListener() {
  JsonUdpInfo info;
  info.Receiver = this;
  info.BindAddr.SetFromTextAndPort(settings_.AddrStr,
                                   static_cast<uint32_t>(settings_.BroadcastPort));
  return broadcastCatcher_->Init(info);
}

ErrInfo Emulator::Start() {
  ErrInfo err = StartUnits();
  if (!err.IsOk()) return err;
  err = broadcastCatcher_->Start();
  if (!err.IsOk()) Stop();
  return err;
}

ErrInfo Emulator::StartUnits() {
  for (const auto& unit : units_) {
    ErrInfo err = unit->Start();
    if (!err.IsOk()) {
      Stop();  // empties units_: the loop ends here
      return err;
    }
  }
  return ERR_HERE("Network::Emulator::Start");
}

ErrInfo Emulator::Stop() {
  ErrInfo result = ERR_HERE("Network::Emulator::Stop");
  std::vector<std::shared_ptr<AudioCardEmu>> units;
  {
    // Waits for the broadcast in progress; later ones meet no unit. So the last reference to each
    // unit is the one here, and none dies on the worker.
    std::lock_guard lock(unitsLock_);
    units.swap(units_);
  }
  for (const auto& unit : units) {
    ErrInfo err = unit->Stop();
    if (!err.IsOk()) result = err;
  }
  for (auto& unit : units)
    unit.reset();  // in order
  return result;
}

void Emulator::OnMsgReceived(IJsonUdpManager*, const std::shared_ptr<JsonMsg>& msg,
                             const NetAddr& from) {
  std::lock_guard lock(unitsLock_);
  for (const auto& unit : units_)
    unit->OnBroadcastMsg(msg, from);
}

void Emulator::OnMsgSent(IJsonUdpManager*, const std::shared_ptr<JsonMsg>&) {}

void Emulator::OnError(IJsonUdpManager*, ErrInfo) {}  // the argument logs itself as it dies

}  // namespace Network
