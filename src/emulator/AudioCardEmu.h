// One emulated audio unit: a clock, an audio stream manager and a control connection, and the
// behaviour that stands in for the unit's hardware.
//
// Threads: the main thread (Init, Start, Stop, destructor), the thread of `sync_` (OnSync), the
// thread of `connect_` (OnMsgReceived), the worker of the control network (OnBroadcastMsg).
// Lock: audioMutex_, the audio set-up against its users. OnSync must not take it: Stop holds it
// while it waits for the last OnSync to return, and the two would wait for each other forever.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "audio/IRtp.h"
#include "audio/ISyncManager.h"
#include "control/IJsonUdp.h"
#include "control/JsonMsgs.h"
#include "emulator/EmuSettings.h"
#include "emulator/Tuner.h"
#include "runtime/IDebugLog.h"
#include "sockets/INetManager.h"

namespace Network {

// Makes the networks of units and emulator: INetManager::Create, but for tests.
using NetFactory = std::function<std::unique_ptr<INetManager>(NetWorker)>;

class AudioCardEmu final : public ISyncTarget, public IJsonUdpReceiver {
 public:
  // `ctlNet` serves the control connection; it isn't owned and outlives the unit.
  // Throws what `makeNet` throws, which makes the network of the audio.
  explicit AudioCardEmu(INetManager* ctlNet, const NetFactory& makeNet = &INetManager::Create);

  // Ends what still runs. No control message is handled any more when the audio parts go.
  virtual ~AudioCardEmu();
  AudioCardEmu(const AudioCardEmu&) = delete;
  AudioCardEmu& operator=(const AudioCardEmu&) = delete;

  // In this order, on one thread. A failed Start has stopped the audio again. Stop ends the audio
  // for good (no control message restarts it); the control connection goes with the unit.
  ErrInfo Init(const EmuSettings& emu, const UnitSettings& unit);
  ErrInfo Start();
  ErrInfo Stop();

  // The audio side alone. InitAudio belongs between StopAudio and StartAudio, takes 48000 and 44100
  // Hz, and switches all inputs off; on another frequency it fails and changes nothing. A failed
  // StartAudio has stopped the audio again.
  ErrInfo InitAudio(uint32_t freq);
  ErrInfo StartAudio();
  ErrInfo StopAudio();

  // What arrived on the discovery port. Never waits.
  void OnBroadcastMsg(const std::shared_ptr<JsonMsg>& msg, const NetAddr& from);

  const UnitSettings& GetSettings() const { return unitSettings_; }

  // The unit's description, as a new message.
  std::shared_ptr<JsonMsg> MakeDevInfo() const;

  // One tick: takes a packet from every output, checks it against the test pattern, fills the
  // inputs and sends them. Allocates on the first call alone.
  void OnSync(ISyncSource* source, int64_t pos, uint32_t freq) override;

  void OnMsgSent(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg) override;
  void OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                     const NetAddr& from) override;
  void OnError(IJsonUdpManager* manager, ErrInfo err) override;

 private:
  // Under audioMutex_, but for those of Init.
  ErrInfo DoInitAudio(uint32_t freq);
  ErrInfo DoStartAudio();
  void DoStopAudio();

  ErrInfo InitConnect();

  // The requests of a controller; AudioCardEmuControl.cpp.
  void OnGetDevInfo(const JsonMsgGetDevInfo& request, const NetAddr& from);
  void OnGetInputs(const JsonMsgGetInputs& request, const NetAddr& from);
  void OnSetInputs(const JsonMsgSetInputs& request, const NetAddr& from);
  void OnSetState(const JsonMsgSetState& request, const NetAddr& from);
  void OnGetFmFreq(const JsonMsgGetFmFreq& request, const NetAddr& from);
  void OnSetFmFreq(const JsonMsgSetFmFreq& request, const NetAddr& from);
  void OnGetFmQuality(const JsonMsgGetFmQuality& request, const NetAddr& from);
  void SendError(uint32_t code, const wchar_t* text, const JsonMsg& request, const NetAddr& to);

  void SizeAudioBuf();
  void CheckTestData();

  std::shared_ptr<IDebugLog> log_;
  INetManager* const ctlNet_;
  EmuSettings emuSettings_;              // fixed by Init
  UnitSettings unitSettings_;            // fixed by Init
  std::unique_ptr<INetManager> rtpNet_;  // this unit's audio sockets alone

  // What the parts are made into; fixed from Init to the destructor.
  std::shared_ptr<ISyncManager> sync_;
  std::shared_ptr<IRtpAudioManager> rtp_;
  std::shared_ptr<IJsonUdpConnect> connect_;

  std::mutex audioMutex_;
  bool closed_ = false;  // Stop was called: the audio stays off

  // On the thread of `sync_` alone.
  bool testDataOk_ = false;
  std::vector<float> audioBuf_;  // pairs of channels; output i and input i share pair i
  std::vector<float*> outBufs_;  // into audioBuf_: left and right of each output
  std::vector<float*> inBufs_;   // into audioBuf_: left and right of each input

  std::vector<Tuner> tuners_;  // on the thread of `connect_` alone
};

}  // namespace Network
