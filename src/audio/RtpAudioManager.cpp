#include "audio/RtpAudioManager.h"

#include <algorithm>

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\RtpManager";

constexpr wchar_t kChannelMismatch[] = L"Number of RTP channels mismatch number of ASIO channels";
constexpr wchar_t kSizeMismatch[] = L"Packet smpl size mismatch number ASIO buffer smpl size";

}  // namespace

IRtpAudioManager* IRtpAudioManager::Create(const std::wstring& name, INetManager* netManager) {
  return new RtpAudioManager(name, netManager);
}

RtpAudioManager::RtpAudioManager(const std::wstring& name, INetManager* netManager)
    : manager_(std::make_shared<RtpManager>(name, netManager)) {
  manager_->AddTarget(this);
}

RtpAudioManager::~RtpAudioManager() {
  // Waits for a delivery in progress, which may be reporting to the targets.
  manager_.reset();
}

void RtpAudioManager::AddTarget(ISyncTarget* target) {
  targets_.insert(target);
}

ErrInfo RtpAudioManager::DelTarget(ISyncTarget* target) {
  ErrInfo err = ERR_HERE("Network::RtpAudioManager::DelTarget");
  if (targets_.erase(target) == 0) return err.SetText(L"Sync target not found");
  return err;
}

void RtpAudioManager::OnSync(ISyncSource*, int64_t pos, uint32_t freq) {
  for (ISyncTarget* target : targets_)
    target->OnSync(this, pos, freq);
}

ErrInfo RtpAudioManager::RecvAudio(const std::vector<float*>& buffers, uint32_t count) {
  ScopedDuration duration(L"RtpAudioManager::RecvAudio");
  std::vector<RtpPacket> packets;
  if (ErrInfo err = manager_->RecvPackets(packets); !err.IsOk()) return err;
  if (packets.size() * 2 != buffers.size())
    return ERR_HERE("Network::RtpAudioManager::RecvAudio").SetText(kChannelMismatch);

  for (size_t i = 0; i < packets.size(); ++i) {
    const RtpPacket& packet = packets[i];
    float* left = buffers[2 * i];
    float* right = buffers[2 * i + 1];
    if (packet.IsEmpty()) {
      std::fill_n(left, count, 0.0f);
      std::fill_n(right, count, 0.0f);
      continue;
    }
    if (packet.GetSmplCount() != count)
      return ERR_HERE("Network::RtpAudioManager::RecvAudio").SetText(kSizeMismatch);
    if (ErrInfo err = packet.GetAudioPayload(left, right); !err.IsOk()) return err;
  }
  return ERR_HERE("Network::RtpAudioManager::RecvAudio");
}

ErrInfo RtpAudioManager::SendAudio(const std::vector<float*>& buffers, uint32_t count) {
  const uint64_t channels = manager_->GetSendChanCount();
  if (channels * 2 != buffers.size())
    return ERR_HERE("Network::RtpAudioManager::SendAudio").SetText(kChannelMismatch);

  std::vector<RtpPacket> packets(channels);
  for (size_t i = 0; i < packets.size(); ++i) {
    RtpPacket& packet = packets[i];
    ErrInfo err = packet.Create(manager_->SendChanPayloadType(i), count);
    if (!err.IsOk()) return err;
    packet.SetAudioPayload(buffers[2 * i], buffers[2 * i + 1]);
  }
  return manager_->SendPackets(packets);
}

// The rest is the inner manager's.

ErrInfo RtpAudioManager::Init(const RtpManagerInfo& info) {
  return manager_->Init(info);
}

ErrInfo RtpAudioManager::Start() {
  return manager_->Start();
}

void RtpAudioManager::Stop() {
  manager_->Stop();
}

bool RtpAudioManager::IsStarted() {
  return manager_->IsStarted();
}

uint64_t RtpAudioManager::GetRecvChanCount() {
  return manager_->GetRecvChanCount();
}

uint64_t RtpAudioManager::GetSendChanCount() {
  return manager_->GetSendChanCount();
}

ErrInfo RtpAudioManager::SetSendChanAddr(uint64_t index, const NetAddr& addr) {
  return manager_->SetSendChanAddr(index, addr);
}

NetAddr RtpAudioManager::GetSendChanAddr(uint64_t index) {
  return manager_->GetSendChanAddr(index);
}

ErrInfo RtpAudioManager::RecvPackets(std::vector<RtpPacket>& packets) {
  return manager_->RecvPackets(packets);
}

ErrInfo RtpAudioManager::SendPackets(std::vector<RtpPacket>& packets) {
  return manager_->SendPackets(packets);
}

void RtpAudioManager::SetSendFilter(IRtpSendFilter* filter) {
  manager_->SetSendFilter(filter);
}

}  // namespace Network
