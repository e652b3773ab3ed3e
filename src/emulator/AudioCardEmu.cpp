#include "emulator/AudioCardEmu.h"

#include <algorithm>

#include "audio/Format.h"
#include "emulator/TestSignal.h"
#include "runtime/Clocks.h"
#include "runtime/Environment.h"
#include "runtime/Format.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\AudioCardEmu";

constexpr size_t kPairSamples = 2 * kTickSamples;

// Two pointers for each stereo pair from the start of `samples`.
void PointIntoPairs(std::vector<float*>& bufs, int32_t pairs, float* samples) {
  bufs.clear();
  for (size_t i = 0; i < static_cast<size_t>(pairs); ++i) {
    bufs.push_back(samples + i * kPairSamples);
    bufs.push_back(samples + i * kPairSamples + kTickSamples);
  }
}

}  // namespace

AudioCardEmu::AudioCardEmu(INetManager* ctlNet, const NetFactory& makeNet)
    : log_(GetDebugLog()), ctlNet_(ctlNet), rtpNet_(makeNet(NetWorker::Shared)) {}

AudioCardEmu::~AudioCardEmu() {
  // The connection's thread may be waiting for audioMutex_, so it isn't held here.
  if (connect_) connect_->Stop();
  sync_.reset();
  rtp_.reset();
  connect_.reset();
  rtpNet_.reset();
}

ErrInfo AudioCardEmu::Init(const EmuSettings& emu, const UnitSettings& unit) {
  emuSettings_ = emu;
  unitSettings_ = unit;
  tuners_.resize(static_cast<size_t>(unitSettings_.GetModel().Tuners));

  const std::wstring& id = unitSettings_.UnitId;
  sync_.reset(ISyncManager::Create(Format(L"%s.%s", id, L"SyncManager")));
  rtp_.reset(IRtpAudioManager::Create(Format(L"%s.%s", id, L"RtpManager"), rtpNet_.get()));
  connect_.reset(IJsonUdpConnect::Create(Format(L"%s.%s", id, L"JsonUdpConnect"), ctlNet_));
  sync_->AddTarget(this);

  ErrInfo err = InitAudio(unitSettings_.SampleFreq);
  if (!err.IsOk()) return err;
  err = InitConnect();
  if (!err.IsOk()) return err;
  return ERR_HERE("Network::AudioCardEmu::Init");
}

ErrInfo AudioCardEmu::InitConnect() {
  JsonUdpInfo info;
  info.Receiver = this;
  info.BindAddr.SetFromTextAndPort(emuSettings_.AddrStr,
                                   static_cast<uint32_t>(unitSettings_.BasePort));
  return connect_->Init(info);
}

ErrInfo AudioCardEmu::Start() {
  {
    std::lock_guard lock(audioMutex_);
    closed_ = false;
    ErrInfo err = DoStartAudio();
    if (!err.IsOk()) return err;
  }
  // Unlocked: a connection that fails here waits for its thread, which may want the lock already.
  ErrInfo err = connect_->Start();
  if (!err.IsOk()) {
    Stop();
    return err;
  }
  return ERR_HERE("Network::AudioCardEmu::Start");
}

ErrInfo AudioCardEmu::Stop() {
  std::lock_guard lock(audioMutex_);
  closed_ = true;
  DoStopAudio();
  return ERR_HERE("Network::AudioCardEmu::Stop");
}

ErrInfo AudioCardEmu::InitAudio(uint32_t freq) {
  std::lock_guard lock(audioMutex_);
  return DoInitAudio(freq);
}

ErrInfo AudioCardEmu::StartAudio() {
  std::lock_guard lock(audioMutex_);
  return DoStartAudio();
}

ErrInfo AudioCardEmu::StopAudio() {
  std::lock_guard lock(audioMutex_);
  DoStopAudio();
  return ERR_HERE("Network::AudioCardEmu::StopAudio");
}

ErrInfo AudioCardEmu::DoInitAudio(uint32_t freq) {
  ErrInfo err = ERR_HERE("Network::AudioCardEmu::InitAudio");
  const uint32_t payloadType = PayloadTypeFromFreq(freq);
  if (payloadType == 0) return err.SetText(Format(L"Sample freq %d is not supported", freq));

  sync_->SetSyncFreq(freq, kTickSamples);
  sync_->SetSpeed(unitSettings_.Speed);

  RtpManagerInfo info;
  info.SampleFreq = freq;
  info.PacketSmplSize = kTickSamples;
  for (int32_t i = 0; i < unitSettings_.GetOutputCount(); ++i) {
    NetAddr addr;
    addr.SetFromTextAndPort(emuSettings_.AddrStr,
                            static_cast<uint32_t>(RtpPort(unitSettings_.BasePort, i)));
    info.RecvAddrs.push_back(addr);
  }
  for (int32_t i = 0; i < unitSettings_.GetInputCount(); ++i) {
    info.SendChans.push_back({NetAddr(), payloadType});
  }

  ErrInfo rtpErr = rtp_->Init(info);
  if (!rtpErr.IsOk()) return rtpErr;
  return err;
}

ErrInfo AudioCardEmu::DoStartAudio() {
  ErrInfo err = rtp_->Start();
  if (err.IsOk()) err = sync_->Start();
  if (!err.IsOk()) {
    DoStopAudio();
    return err;
  }
  return ERR_HERE("Network::AudioCardEmu::StartAudio");
}

void AudioCardEmu::DoStopAudio() {
  // The ticks first: they use the streams.
  if (sync_) sync_->Stop();
  if (rtp_) rtp_->Stop();
}

void AudioCardEmu::OnSync(ISyncSource*, int64_t, uint32_t) {
  SizeAudioBuf();
  std::fill(audioBuf_.begin(), audioBuf_.end(), 0.0f);

  // A failure is in the log by now; the next tick tries again.
  IRtpAudio& audio = *rtp_;
  audio.RecvAudio(outBufs_, kTickSamples);

  if (!audioBuf_.empty()) {
    CheckTestData();
    for (size_t i = 0; i + 1 < inBufs_.size(); i += 2) {
      WriteTestSignal(unitSettings_.Mode, inBufs_[i], inBufs_[i + 1], &ClockTicks100ns);
    }
  }
  audio.SendAudio(inBufs_, kTickSamples);
}

// Allocates on the first tick alone; later ones find the buffer in its size. When memory runs out
// in the middle, the exception ends this tick and the next one comes here again: so audioBuf_,
// whose size says that all is done, grows after the two lists have their room.
void AudioCardEmu::SizeAudioBuf() {
  const int32_t inputs = unitSettings_.GetInputCount();
  const int32_t outputs = unitSettings_.GetOutputCount();
  const size_t size = static_cast<size_t>(std::max(inputs, outputs)) * kPairSamples;
  if (audioBuf_.size() == size) return;
  outBufs_.reserve(static_cast<size_t>(outputs) * 2);
  inBufs_.reserve(static_cast<size_t>(inputs) * 2);
  audioBuf_.resize(size);
  PointIntoPairs(outBufs_, outputs, audioBuf_.data());
  PointIntoPairs(inBufs_, inputs, audioBuf_.data());
}

// The pattern can only come in on output 0, which lies in pair 0.
void AudioCardEmu::CheckTestData() {
  const bool ok = IsTestPattern(audioBuf_.data(), audioBuf_.data() + kTickSamples);
  if (ok == testDataOk_) return;
  testDataOk_ = ok;
  log_->Write(ok ? L"Test data stream OK" : L"Test data stream FAILED");
}

}  // namespace Network
