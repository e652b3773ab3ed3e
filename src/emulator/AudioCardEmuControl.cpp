// The control side of AudioCardEmu: what it does and answers when a controller asks.
#include <algorithm>

#include "emulator/AudioCardEmu.h"

namespace Network {

namespace {

constexpr uint32_t kNotSupported = 1;   // error code: this model doesn't serve the request
constexpr uint32_t kWrongChannels = 2;  // error code: a wrong number of channels

template <typename Message>
const Message* As(const std::shared_ptr<JsonMsg>& msg) {
  return dynamic_cast<const Message*>(msg.get());
}

}  // namespace

void AudioCardEmu::InitTuners() {
  if (!HasTuners()) return;
  const size_t count = static_cast<size_t>(unitSettings_.GetInputCount());
  fmFreq_.assign(count, 100500);
  fmRssi_.assign(count, 40);
  fmSnr_.assign(count, 80);
  fmMultipath_.assign(count, 50);
  fmPilot_.assign(count, 1);
}

std::shared_ptr<JsonMsg> AudioCardEmu::MakeDevInfo() const {
  auto info = std::make_shared<JsonMsgDevInfo>();
  info->unit_id = unitSettings_.UnitId;
  info->unit_type = unitSettings_.UnitType;
  info->hardware = 1;
  info->firmware = 1;
  info->software = 1;
  info->audio_protocol = 1;
  info->control_protocol = 1;
  info->rtp_port = static_cast<uint32_t>(unitSettings_.BasePort) + 2;
  info->inputs = static_cast<uint32_t>(unitSettings_.GetInputCount());
  info->outputs = static_cast<uint32_t>(unitSettings_.GetOutputCount());
  return info;
}

void AudioCardEmu::OnBroadcastMsg(const std::shared_ptr<JsonMsg>& msg, const NetAddr& from) {
  if (As<JsonMsgDevFind>(msg)) connect_->Send(MakeDevInfo(), from);
}

void AudioCardEmu::OnMsgSent(IJsonUdpManager*, const std::shared_ptr<JsonMsg>&) {}

void AudioCardEmu::OnError(IJsonUdpManager*, ErrInfo) {}  // the argument logs itself as it dies

void AudioCardEmu::OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                                 const NetAddr& from) {
  if (manager != connect_.get()) return;
  if (As<JsonMsgGetDevInfo>(msg)) {
    connect_->Send(MakeDevInfo(), from);
  } else if (As<JsonMsgGetInputs>(msg)) {
    OnGetInputs(from);
  } else if (const auto* setInputs = As<JsonMsgSetInputs>(msg)) {
    OnSetInputs(*setInputs);
  } else if (const auto* setState = As<JsonMsgSetState>(msg)) {
    OnSetState(*setState);
  } else if (const auto* getFmFreq = As<JsonMsgGetFmFreq>(msg)) {
    OnGetFmFreq(*getFmFreq, from);
  } else if (const auto* setFmFreq = As<JsonMsgSetFmFreq>(msg)) {
    OnSetFmFreq(*setFmFreq, from);
  } else if (const auto* getFmQuality = As<JsonMsgGetFmQuality>(msg)) {
    OnGetFmQuality(*getFmQuality, from);
  }
}

void AudioCardEmu::OnGetInputs(const NetAddr& from) {
  auto answer = std::make_shared<JsonMsgInputs>();
  {
    std::lock_guard lock(audioMutex_);
    for (const RtpSendChanInfo& chan : rtpInfo_.SendChans)
      answer->inputs.push_back(chan.Addr);
  }
  connect_->Send(answer, from);
}

void AudioCardEmu::OnSetInputs(const JsonMsgSetInputs& request) {
  std::lock_guard lock(audioMutex_);
  if (request.inputs.size() != rtpInfo_.SendChans.size()) {
    log_->Write(L"ERROR: Incorrect inputs count");
    return;
  }
  for (size_t i = 0; i < request.inputs.size(); ++i) {
    const auto& input = request.inputs[i];
    if (!input.set) continue;
    rtpInfo_.SendChans[i].Addr = input.addr;
    rtp_->SetSendChanAddr(i, input.addr);
  }
}

// A frequency that the unit can't take costs a gap in the audio and a line in the log, no more.
void AudioCardEmu::OnSetState(const JsonMsgSetState& request) {
  std::lock_guard lock(audioMutex_);
  if (closed_ || request.device_freq == sync_->GetSyncFreq()) return;
  DoStopAudio();
  DoInitAudio(request.device_freq);
  DoStartAudio();
}

void AudioCardEmu::OnGetFmFreq(const JsonMsg& request, const NetAddr& from) {
  if (!HasTuners()) return SendError(kNotSupported, L"Not supported", request, from);
  auto answer = std::make_shared<JsonMsgFmFreq>();
  answer->freq = fmFreq_;
  connect_->Send(answer, from);
}

void AudioCardEmu::OnSetFmFreq(const JsonMsgSetFmFreq& request, const NetAddr& from) {
  if (!HasTuners()) return SendError(kNotSupported, L"Not supported", request, from);
  if (request.freq.size() != fmFreq_.size()) {
    return SendError(kWrongChannels, L"Number of channels mismatch", request, from);
  }
  for (size_t i = 0; i < fmFreq_.size(); ++i) {
    if (request.freq[i] != 0) fmFreq_[i] = request.freq[i];  // 0 keeps
  }
}

void AudioCardEmu::OnGetFmQuality(const JsonMsg& request, const NetAddr& from) {
  if (!HasTuners()) return SendError(kNotSupported, L"Not supported", request, from);
  auto answer = std::make_shared<JsonMsgFmQuality>();
  answer->rssi = fmRssi_;
  answer->snr = fmSnr_;
  answer->multipath = fmMultipath_;
  answer->pilot = fmPilot_;
  connect_->Send(answer, from);
}

void AudioCardEmu::SendError(uint32_t code, const wchar_t* text, const JsonMsg& request,
                             const NetAddr& to) {
  connect_->Send(std::make_shared<JsonMsgError>(code, text, request.msg_id), to);
}

}  // namespace Network
