// The control side of AudioCardEmu: what it does and answers when a controller asks.
#include <tuple>

#include "emulator/AudioCardEmu.h"

namespace Network {

namespace {

constexpr uint32_t kNotSupported = 1;   // error code: this model doesn't serve the request
constexpr uint32_t kWrongChannels = 2;  // error code: a wrong number of channels

// One of `unit`'s handlers, called if `msg` is of the type that it takes. False: it isn't.
template <typename Message>
bool Serve(AudioCardEmu& unit,
           void (AudioCardEmu::*handler)(const Message& request, const NetAddr& from),
           const JsonMsg& msg, const NetAddr& from) {
  const auto* request = dynamic_cast<const Message*>(&msg);
  if (!request) return false;
  (unit.*handler)(*request, from);
  return true;
}

// The figure that `member` names, of each tuner.
std::vector<int32_t> OfEach(const std::vector<Tuner>& tuners, int32_t Tuner::*member) {
  std::vector<int32_t> figures;
  for (const Tuner& tuner : tuners)
    figures.push_back(tuner.*member);
  return figures;
}

}  // namespace

std::shared_ptr<JsonMsg> AudioCardEmu::MakeDevInfo() const {
  auto info = std::make_shared<JsonMsgDevInfo>();
  info->unit_id = unitSettings_.UnitId;
  info->unit_type = unitSettings_.UnitType;
  info->hardware = 1;
  info->firmware = 1;
  info->software = 1;
  info->audio_protocol = 1;
  info->control_protocol = 1;
  info->rtp_port = static_cast<uint32_t>(RtpPort(unitSettings_.BasePort, 0));
  info->inputs = static_cast<uint32_t>(unitSettings_.GetInputCount());
  info->outputs = static_cast<uint32_t>(unitSettings_.GetOutputCount());
  return info;
}

void AudioCardEmu::OnBroadcastMsg(const std::shared_ptr<JsonMsg>& msg, const NetAddr& from) {
  if (dynamic_cast<const JsonMsgDevFind*>(msg.get())) connect_->Send(MakeDevInfo(), from);
}

void AudioCardEmu::OnMsgSent(IJsonUdpManager*, const std::shared_ptr<JsonMsg>&) {}

void AudioCardEmu::OnError(IJsonUdpManager*, ErrInfo) {}  // the argument logs itself as it dies

void AudioCardEmu::OnMsgReceived(IJsonUdpManager* manager, const std::shared_ptr<JsonMsg>& msg,
                                 const NetAddr& from) {
  if (manager != connect_.get()) return;
  // What isn't a request of a controller, such as an answer, does nothing.
  const std::tuple handlers(&AudioCardEmu::OnGetDevInfo, &AudioCardEmu::OnGetInputs,
                            &AudioCardEmu::OnSetInputs, &AudioCardEmu::OnSetState,
                            &AudioCardEmu::OnGetFmFreq, &AudioCardEmu::OnSetFmFreq,
                            &AudioCardEmu::OnGetFmQuality);
  std::apply([&](auto... handler) { (Serve(*this, handler, *msg, from) || ...); }, handlers);
}

void AudioCardEmu::OnGetDevInfo(const JsonMsgGetDevInfo&, const NetAddr& from) {
  connect_->Send(MakeDevInfo(), from);
}

void AudioCardEmu::OnGetInputs(const JsonMsgGetInputs&, const NetAddr& from) {
  auto answer = std::make_shared<JsonMsgInputs>();
  {
    std::lock_guard lock(audioMutex_);
    for (uint64_t i = 0; i < rtp_->GetSendChanCount(); ++i)
      answer->inputs.push_back(rtp_->GetSendChanAddr(i));
  }
  connect_->Send(answer, from);
}

void AudioCardEmu::OnSetInputs(const JsonMsgSetInputs& request, const NetAddr&) {
  std::lock_guard lock(audioMutex_);
  if (request.inputs.size() != rtp_->GetSendChanCount()) {
    log_->Write(L"ERROR: Incorrect inputs count");
    return;
  }
  for (size_t i = 0; i < request.inputs.size(); ++i) {
    const auto& input = request.inputs[i];
    if (input.set) rtp_->SetSendChanAddr(i, input.addr);
  }
}

// A frequency that the unit can't take costs a gap in the audio and a line in the log, no more.
void AudioCardEmu::OnSetState(const JsonMsgSetState& request, const NetAddr&) {
  std::lock_guard lock(audioMutex_);
  if (closed_ || request.device_freq == sync_->GetSyncFreq()) return;
  DoStopAudio();
  DoInitAudio(request.device_freq);
  DoStartAudio();
}

void AudioCardEmu::OnGetFmFreq(const JsonMsgGetFmFreq& request, const NetAddr& from) {
  if (tuners_.empty()) return SendError(kNotSupported, L"Not supported", request, from);
  auto answer = std::make_shared<JsonMsgFmFreq>();
  answer->freq = OfEach(tuners_, &Tuner::Freq);
  connect_->Send(answer, from);
}

void AudioCardEmu::OnSetFmFreq(const JsonMsgSetFmFreq& request, const NetAddr& from) {
  if (tuners_.empty()) return SendError(kNotSupported, L"Not supported", request, from);
  if (request.freq.size() != tuners_.size()) {
    return SendError(kWrongChannels, L"Number of channels mismatch", request, from);
  }
  for (size_t i = 0; i < tuners_.size(); ++i) {
    // 0 stands for a tuner that keeps its frequency: [0, 0, 0, 90000] tunes the fourth alone.
    if (request.freq[i] != 0) tuners_[i].Freq = request.freq[i];
  }
}

void AudioCardEmu::OnGetFmQuality(const JsonMsgGetFmQuality& request, const NetAddr& from) {
  if (tuners_.empty()) return SendError(kNotSupported, L"Not supported", request, from);
  auto answer = std::make_shared<JsonMsgFmQuality>();
  answer->rssi = OfEach(tuners_, &Tuner::Rssi);
  answer->snr = OfEach(tuners_, &Tuner::Snr);
  answer->multipath = OfEach(tuners_, &Tuner::Multipath);
  answer->pilot = OfEach(tuners_, &Tuner::Pilot);
  connect_->Send(answer, from);
}

void AudioCardEmu::SendError(uint32_t code, const wchar_t* text, const JsonMsg& request,
                             const NetAddr& to) {
  connect_->Send(std::make_shared<JsonMsgError>(code, text, request.msg_id), to);
}

}  // namespace Network
