#include "control/JsonUdpManager.h"

#include <utility>

#include "control/JsonMsg.h"
#include "runtime/Environment.h"
#include "runtime/Format.h"

namespace Network {

namespace {
constexpr char kSourceFile[] = "src\\JsonUdpManager";
}

IJsonUdpManager* IJsonUdpManager::Create(const std::wstring& name, INetManager* netManager) {
  return new JsonUdpManager(name, netManager);
}

JsonUdpManager::JsonUdpManager(const std::wstring& name, INetManager* netManager)
    : name_(name.empty() ? L"JsonUdpManager" : name),
      netManager_(netManager),
      log_(GetDebugLog()) {}

// The NetManager may have gone by now: its sockets can be destroyed all the same.
JsonUdpManager::~JsonUdpManager() {
  JsonUdpManager::Stop();
}

ErrInfo JsonUdpManager::Init(const JsonUdpInfo& info) {
  Stop();
  info_ = info;
  return ERR_HERE("Network::JsonUdpManager::Init");
}

ErrInfo JsonUdpManager::Start() {
  Stop();
  UdpSockInfo info;
  info.BindAddr = info_.BindAddr;
  info.Broadcast = info_.Broadcast;
  info.MaxPacketSize = info_.MaxPacketSize;
  info.Receiver = this;

  const std::shared_ptr<IUdpSock> sock = netManager_->CreateUdpSock();
  {
    // Known before it opens: a datagram may arrive at once and want an answer.
    std::lock_guard lock(sockMutex_);
    sock_ = sock;
  }
  ErrInfo err = sock->Open(info);
  if (!err.IsOk()) {
    Stop();
    return err;
  }
  return ERR_HERE("Network::JsonUdpManager::Start");
}

void JsonUdpManager::Stop() {
  std::shared_ptr<IUdpSock> sock;
  {
    std::lock_guard lock(sockMutex_);
    sock = std::exchange(sock_, nullptr);
  }
  // Unlocked: Destroy waits for a delivery in progress, which may be sending and want the pointer.
  if (sock) sock->Destroy();
}

bool JsonUdpManager::IsStarted() {
  return Sock() != nullptr;
}

std::shared_ptr<IUdpSock> JsonUdpManager::Sock() {
  std::lock_guard lock(sockMutex_);
  return sock_;
}

ErrInfo JsonUdpManager::SetDefaultSendAddr(const NetAddr& addr) {
  info_.SendAddr = addr;
  return ERR_HERE("Network::JsonUdpManager::SetDefaultSendAddr");
}

ErrInfo JsonUdpManager::SendDirect(const std::shared_ptr<JsonMsg>& msg, const NetAddr& to) {
  ErrInfo err = ERR_HERE("Network::JsonUdpManager::SendDirect");
  if (info_.SendFilter && !info_.SendFilter->MaySend(this, msg)) return err;

  Packet packet(info_.MaxPacketSize);
  std::wstring text;
  ErrInfo rendered = msg->ToPacket(packet, &text);
  if (!rendered.IsOk()) return rendered;

  const std::shared_ptr<IUdpSock> sock = Sock();
  if (!sock) err.SetText(L"Bad socket");
  const NetAddr dest = to.IsDefined() ? to : info_.SendAddr;
  if (!dest.IsDefined()) err.SetText(L"Bad send address");
  if (err.IsOk()) err = sock->Send(packet.Data(), packet.Size(), dest);
  if (err.IsOk()) {
    if (info_.Receiver) info_.Receiver->OnMsgSent(this, msg);
    LogMsg(L"->", dest, *msg, text);
  }
  return err;
}

void JsonUdpManager::OnDatagramReceived(IUdpSock*, std::shared_ptr<Packet> packet,
                                        const NetAddr& from) {
  const std::shared_ptr<JsonMsg> msg(JsonMsg::FromPacketAsCame(*packet));
  if (!msg) {
    if (!info_.Receiver) return;
    info_.Receiver->OnError(
        this,
        ERR_HERE("Network::JsonUdpManager::OnDatagramReceived").SetText(L"Bad message received"));
    return;
  }
  LogMsg(L"<-", from, *msg, msg->ToString());
  if (info_.Receiver) info_.Receiver->OnMsgReceived(this, msg, from);
}

void JsonUdpManager::OnError(IUdpSock*, ErrInfo err) {
  if (info_.Receiver) info_.Receiver->OnError(this, err);
}

void JsonUdpManager::LogMsg(const wchar_t* direction, const NetAddr& peer, const JsonMsg& msg,
                            const std::wstring& text) {
  if (!log_) return;
  log_->Write(Format(L"%s: MSG: %s (%s) %s : %s", name_, direction, peer.ToText(), msg.msg, text));
}

}  // namespace Network
