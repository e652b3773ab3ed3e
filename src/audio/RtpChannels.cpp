#include "audio/RtpChannels.h"

#include <algorithm>
#include <utility>

#include "runtime/Environment.h"
#include "runtime/Format.h"
#include "sockets/INetManager.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\RtpManager";

}  // namespace

RtpSendChan::RtpSendChan(const std::wstring& name, INetManager* netManager,
                         const RtpSendChanInfo& info)
    : name_(name),
      payloadType_(info.PayloadType),
      addr_(info.Addr),
      sock_(netManager->CreateUdpSock()) {
  sock_->Open(UdpSockInfo());
}

RtpSendChan::~RtpSendChan() {
  sock_->Destroy();
}

RtpSendChanInfo RtpSendChan::GetSendChanAddr() const {
  std::lock_guard lock(addrMutex_);
  return {addr_, payloadType_};
}

ErrInfo RtpSendChan::SetSendChanAddr(const NetAddr& addr) {
  std::lock_guard lock(addrMutex_);
  addr_ = addr;
  return ERR_HERE("Network::RtpSendChan::SetSendChanAddr");
}

ErrInfo RtpSendChan::Send(const RtpPacket& packet) {
  return SendTo(packet, GetSendChanAddr().Addr);
}

// The address is read once: a controller that switches the input off between the look and the
// sending would otherwise make a failure of a packet that simply isn't wanted any more.
ErrInfo RtpSendChan::SendIfOn(const RtpPacket& packet) {
  const NetAddr to = GetSendChanAddr().Addr;
  if (!to.IsDefined()) return ERR_HERE("Network::RtpSendChan::SendIfOn");
  return SendTo(packet, to);
}

ErrInfo RtpSendChan::SendTo(const RtpPacket& packet, const NetAddr& to) {
  if (packet.IsEmpty())
    return ERR_HERE("Network::RtpSendChan::Send").SetText(L"Can not send empty packet");
  const Packet& bytes = *packet.GetPacket();
  return sock_->Send(bytes.Data(), bytes.Size(), to);
}

RtpRecvChan::RtpRecvChan(const std::wstring& name, INetManager* netManager,
                         const RtpRecvChanInfo& info)
    : name_(name),
      log_(GetDebugLog()),
      receiver_(info.Receiver),
      ring_(info.BufSize),
      sock_(netManager->CreateUdpSock()) {
  UdpSockInfo sockInfo;
  sockInfo.BindAddr = info.BindAddr;
  sockInfo.Receiver = this;
  sock_->Open(sockInfo);
}

RtpRecvChan::~RtpRecvChan() {
  sock_->Destroy();
}

void RtpRecvChan::OnDatagramReceived(IUdpSock*, std::shared_ptr<Packet> packet, const NetAddr&) {
  // Without a whole header it is no packet of a stream: taking it for one would move the stream's
  // position to some accidental number.
  if (packet->Size() < RtpHeader::kSize) return;
  receiver_->OnRtpPacket(this, RtpPacket(std::move(packet)));
}

// Dropping the failure logs it.
void RtpRecvChan::OnError(IUdpSock*, ErrInfo) {}

void RtpRecvChan::PutPacket(RtpPacket packet, uint32_t slot) {
  ring_[slot] = std::move(packet);
}

RtpPacket RtpRecvChan::TakePacket() {
  RtpPacket packet;
  if (!ring_.empty()) {
    packet = std::exchange(ring_.front(), {});
    std::rotate(ring_.begin(), ring_.begin() + 1, ring_.end());
  }
  const bool ok = !packet.IsEmpty();
  if (ok != streamOk_ && log_)
    log_->Write(Format(ok ? L"%s: Stream OK" : L"%s: Stream ERROR", name_));
  streamOk_ = ok;
  return packet;
}

}  // namespace Network
