#include "emulator/Emulator.h"

#include <system_error>
#include <utility>

#include "platform/errors.h"
#include "platform/text.h"
#include "runtime/Environment.h"
#include "runtime/Format.h"
#include "runtime/Paths.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\Emulator";

// What `step` returns, or what it throws as a failure of `method` that begins with `what`: threads,
// descriptors and memory that the system doesn't have come as exceptions.
template <typename Step>
ErrInfo Try(const char* method, const std::wstring& what, Step step) {
  ErrInfo err(method, kSourceFile, __LINE__);
  const auto text = [&](const std::exception& e) {
    return what + platform::Utf8ToWideLossy(e.what()) +
           L"; raise this user's limits of threads and open files, or run fewer units";
  };
  try {
    return step();
  } catch (const std::system_error& e) {
    return err.SetCode(static_cast<uint32_t>(e.code().value()), text(e));
  } catch (const std::exception& e) {
    return err.SetText(text(e));
  }
}

std::wstring UnitFailed(const wchar_t* step, const UnitSettings& unit) {
  return Format(L"Can not %s unit \"%s\": ", step, unit.UnitId);
}

}  // namespace

Emulator::Emulator() : Emulator(&INetManager::Create, GetModulePath(true, true) + L".json") {}

Emulator::Emulator(NetFactory makeNet, const std::wstring& settingsPath)
    : makeNet_(std::move(makeNet)), netErr_(ERR_HERE("Network::Emulator::Init")) {
  netErr_ = Try("Network::Emulator::Init", L"Can not make the control network: ", [&] {
    netManager_ = makeNet_(NetWorker::Own);  // no audio delays an acknowledgement
    broadcastCatcher_.reset(IJsonUdpManager::Create(L"BroadcastCatcher", netManager_.get()));
    return ERR_HERE("Network::Emulator::Init");
  });
  TakeSettings(settingsPath);
}

void Emulator::TakeSettings(const std::wstring& path) {
  const ErrInfo err = settings_.FromFile(path);
  err.Log();  // before what the writing may have to report
  // What couldn't be taken in is the user's text with a mistake in it: not to be replaced.
  if (err.IsOk() || err.Code() == platform::kFileNotFound) settings_.ToFile(path);
}

Emulator::~Emulator() {
  Stop();
  netManager_.reset();
  broadcastCatcher_.reset();
}

ErrInfo Emulator::Init() {
  for (const std::wstring& remark : settings_.Remarks())
    GetDebugLog()->Write(remark);

  if (!netErr_.IsOk()) return netErr_;
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
    ErrInfo err = Try("Network::Emulator::Init", UnitFailed(L"make", unitSettings),
                      [&] { return InitUnit(unitSettings); });
    if (!err.IsOk()) {
      Stop();
      return err;
    }
  }
  return ERR_HERE("Network::Emulator::Init");
}

ErrInfo Emulator::InitUnit(const UnitSettings& unitSettings) {
  auto unit = std::make_shared<AudioCardEmu>(netManager_.get(), makeNet_);
  ErrInfo err = unit->Init(settings_, unitSettings);
  if (err.IsOk()) {
    std::lock_guard lock(unitsLock_);
    units_.push_back(unit);
  }
  return err;
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
    ErrInfo err = Try("Network::Emulator::Start", UnitFailed(L"start", unit->GetSettings()),
                      [&] { return unit->Start(); });
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
