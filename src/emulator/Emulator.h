// The object that owns everything: settings, control network, discovery listener and units.
//
// Threads: the main thread, for all but the receiver's operations, which come on the worker of the
// control network. Lock: unitsLock_, the list of units. It is held while a broadcast is handed to
// the units, and never while a unit starts, stops or dies.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "control/IJsonUdp.h"
#include "emulator/AudioCardEmu.h"
#include "emulator/EmuSettings.h"
#include "sockets/INetManager.h"

namespace Network {

// What the emulator makes its parts with, and its settings file; tests put their own in place.
struct EmulatorParts {
  std::function<std::unique_ptr<INetManager>()> MakeNet = &INetManager::Create;
  std::function<IJsonUdpManager*(const std::wstring&, INetManager*)> MakeListener =
      &IJsonUdpManager::Create;
  UnitParts Unit;
  std::wstring SettingsPath;  // empty: the executable's own path with ".json" behind it
};

class Emulator : public IJsonUdpReceiver {
 public:
  // Reads the settings and writes them back. A failure shows in the log alone.
  Emulator();
  explicit Emulator(const EmulatorParts& parts);
  virtual ~Emulator();
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // In this order. A failed Init or Start has stopped what it had begun. Stop may come at any time
  // and again; it ends all units, also behind one that fails, and returns the latest failure.
  ErrInfo Init();
  ErrInfo Start();
  ErrInfo Stop();

  EmuSettings GetSettings() const { return settings_; }

  void OnMsgSent(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg) override;
  void OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                     const NetAddr& from) override;
  void OnError(IJsonUdpManager* manager, ErrInfo err) override;

 private:
  void TakeSettings();
  ErrInfo InitUnits();
  ErrInfo InitListener();
  ErrInfo StartUnits();

  const EmulatorParts parts_;
  std::mutex unitsLock_;
  std::vector<std::shared_ptr<AudioCardEmu>> units_;  // changed on the main thread alone
  EmuSettings settings_;
  std::unique_ptr<INetManager> netManager_;  // all control traffic
  std::shared_ptr<IJsonUdpManager> broadcastCatcher_;
};

}  // namespace Network
