// The object that owns everything: settings, control network, discovery listener and units.
//
// Threads: the main thread, for all but the receiver's operations, which come on the worker of the
// control network. Lock: unitsLock_, the list of units. It is held while a broadcast is handed to
// the units, and never while a unit starts, stops or dies.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "control/IJsonUdp.h"
#include "emulator/AudioCardEmu.h"
#include "emulator/EmuSettings.h"
#include "sockets/INetManager.h"

namespace Network {

class Emulator : public IJsonUdpReceiver {
 public:
  // Reads the settings and writes them back; a failure shows in the log alone. A control network
  // that can't be made is a failure of Init. Tests give a network and a file of their own: the one
  // seam there is for the emulator, as its clock is the platform's, which can be replaced.
  Emulator();
  Emulator(NetFactory makeNet, const std::wstring& settingsPath);
  virtual ~Emulator();
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  // In this order. A failed Init or Start has stopped what it had begun; where the system has no
  // room for a unit, the failure names the unit. Stop may come at any time
  // and again; it ends all units, also after one that fails, and returns the latest failure.
  ErrInfo Init();
  ErrInfo Start();
  ErrInfo Stop();

  EmuSettings GetSettings() const { return settings_; }

  void OnMsgSent(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg) override;
  void OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                     const NetAddr& from) override;
  void OnError(IJsonUdpManager* manager, ErrInfo err) override;

 private:
  void TakeSettings(const std::wstring& path);
  ErrInfo InitUnits();
  ErrInfo InitUnit(const UnitSettings& unitSettings);
  ErrInfo InitListener();
  ErrInfo StartUnits();

  const NetFactory makeNet_;
  std::mutex unitsLock_;
  std::vector<std::shared_ptr<AudioCardEmu>> units_;  // changed on the main thread alone
  EmuSettings settings_;
  ErrInfo netErr_;                           // why there is no netManager_
  std::unique_ptr<INetManager> netManager_;  // all control traffic
  std::shared_ptr<IJsonUdpManager> broadcastCatcher_;
};

}  // namespace Network
