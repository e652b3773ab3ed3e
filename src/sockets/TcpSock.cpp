#include "sockets/TcpSock.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "sockets/NetManager.h"

namespace Network {

namespace {
constexpr char kSourceFile[] = "src\\TcpSock";
}

// What one turn finds and does, for the callbacks behind it.
struct TcpSock::Turn {
  ErrInfo err;
  ITcpReceiver* receiver = nullptr;
  bool connected = false;
  bool received = false;
  bool busy = false;
};

TcpSock::TcpSock(NetManager* manager) : manager_(manager), event_(manager->GetEvent()) {}

TcpSock::TcpSock(NetManager* manager, platform::Socket connection, const TcpSockInfo& info)
    : manager_(manager), event_(manager->GetEvent()), socket_(std::move(connection)) {
  TakeOptions(info);
  uint32_t error = 0;
  if (!Watch(&error)) CloseHandle();
}

TcpSock::~TcpSock() {
  Close();
}

ErrInfo TcpSock::Open(const TcpSockInfo& info) {
  ScopedLock lock(sockMutex_);
  TakeOptions(info);
  EmptyQueue();
  if (socket_.IsOpen()) return ERR_HERE("Network::TcpSock::Open").SetText(L"Can not reopen socket");
  return Connect();
}

void TcpSock::TakeOptions(const TcpSockInfo& info) {
  info_ = info;
  // A chunk of no byte would never use up what is to be sent.
  sendChunkSize_ = std::max(info.SendChunkSize, 1u);
}

ErrInfo TcpSock::Connect() {
  ErrInfo err = ERR_HERE("Network::TcpSock::Open");
  platform::SocketResult result = socket_.OpenTcp();
  if (!result.Ok()) return err.SetCode(result.error, L"Create socket failed");

  if (!info_.PeerAddr.IsDefined()) return err.SetCode(result.error, L"Undefined address");

  if (info_.BindAddr.IsDefined()) {
    result = socket_.Bind(info_.BindAddr.Raw());
    if (!result.Ok()) {
      CloseHandle();
      return err.SetCode(result.error, L"bind socket failed");
    }
  }

  result = socket_.Connect(info_.PeerAddr.Raw());
  if (!result.Ok()) {
    CloseHandle();
    return err.SetCode(result.error, L"connect socket failed");
  }

  uint32_t error = 0;
  if (!Watch(&error)) {
    CloseHandle();
    return err.SetCode(error, L"WSAEventSelect socket failed");
  }
  return err;
}

bool TcpSock::Watch(uint32_t* error) {
  connected_ = true;  // first: the worker may come at once
  const platform::SocketResult result =
      socket_.Watch(event_, platform::kSocketRead | platform::kSocketWrite |
                                platform::kSocketConnect | platform::kSocketClose);
  *error = result.error;
  return result.Ok();
}

void TcpSock::CloseHandle() {
  ScopedLock lock(sockMutex_);
  connected_ = false;
  socket_.Close();
  sendQueue_.Clear();
}

void TcpSock::EmptyQueue() {
  // A packet that the system has taken in part is sent to its end, or the stream would be torn.
  std::shared_ptr<Packet> begun;
  if (socket_.SendUnfinished()) begun = sendQueue_.TryPop();
  sendQueue_.Clear();
  if (begun) sendQueue_.PushFront(begun);
}

void TcpSock::Close() {
  CloseHandle();
  // No new turn begins on a closed handle; this waits for the one that runs.
  std::lock_guard delivery(deliveryMutex_);
}

void TcpSock::Destroy() {
  Close();
  manager_->RemoveTcpSock(this);
}

void TcpSock::SetReceiver(ITcpReceiver* receiver) {
  ScopedLock lock(sockMutex_);
  info_.Receiver = receiver;
}

ErrInfo TcpSock::Send(std::shared_ptr<Packet> packet) {
  ErrInfo err = ERR_HERE("Network::TcpSock::Send");
  if (!packet) return err.SetText(L"No packet to send");
  if (!socket_.IsOpen()) return err.SetText(L"Socket is closed");
  sendQueue_.Push(std::move(packet));
  event_->Signal();
  return err;
}

ErrInfo TcpSock::Send(const uint8_t* data, uint64_t size) {
  while (size > 0) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(size, sendChunkSize_));
    auto packet = std::make_shared<Packet>(count);
    packet->Resize(count);
    std::memcpy(packet->Data(), data, count);
    const ErrInfo err = Send(std::move(packet));
    if (!err.IsOk()) return err;
    data += count;
    size -= count;
  }
  return ERR_HERE("Network::TcpSock::Send");
}

bool TcpSock::TrySendAndReceive() {
  // Also keeps the worker off the lock that Open holds while it connects.
  if (!connected_) return false;

  std::lock_guard delivery(deliveryMutex_);
  Turn turn{.err = ERR_HERE("Network::TcpSock::TrySendAndReceive")};
  {
    ScopedLock lock(sockMutex_);
    if (!connected_) return false;
    turn.receiver = info_.Receiver;
    RunTurn(&turn);
    if (!turn.err.IsOk()) CloseHandle();
  }

  // Without the socket's lock, so that the receiver may use the socket.
  if (!turn.receiver) {
    // Such a socket counts as idle. What is left of its work must not wait for the next event.
    if (turn.busy) event_->Signal();
    return false;
  }
  if (!turn.err.IsOk()) {
    turn.receiver->OnError(this, turn.err);
    return false;
  }
  if (turn.connected) {
    turn.receiver->OnConnected(this);
    turn.busy = true;
  }
  // OnConnected may have closed the socket, and then its receiver may be gone.
  if (turn.received && socket_.IsOpen()) {
    if (turn.receiver->OnData(this, recvPacket_)) recvPacket_.reset();
  }
  return turn.busy;
}

void TcpSock::RunTurn(Turn* turn) {
  const platform::Socket::Events pending = socket_.Pending();
  if (pending.error != 0) {
    turn->err.SetCode(pending.error, L"WSAEnumNetworkEvents failed");
    return;
  }
  if (pending.events & platform::kSocketClose) {
    turn->err.SetText(L"Disconnected(FD_CLOSE)");
    return;
  }
  turn->connected = (pending.events & platform::kSocketConnect) != 0;
  if (pending.events & platform::kSocketWrite) canSend_ = true;
  if (pending.events & platform::kSocketRead) canRecv_ = true;
  if (canSend_) SendOne(turn);
  if (canRecv_) ReceiveOne(turn);
}

void TcpSock::SendOne(Turn* turn) {
  const std::shared_ptr<Packet> packet = sendQueue_.TryPop();
  if (!packet) return;
  const platform::SocketResult result = socket_.Send(packet->Data(), packet->Size());
  if (result.Ok()) {
    turn->busy = true;
  } else if (result.wouldBlock) {
    sendQueue_.PushFront(packet);
    canSend_ = false;
  } else {
    turn->err.SetCode(result.error, L"Can not send TCP packet");
  }
}

void TcpSock::ReceiveOne(Turn* turn) {
  if (!recvPacket_) recvPacket_ = std::make_shared<Packet>(std::max(info_.RecvBufBytes, 1u));
  recvPacket_->Resize(recvPacket_->Capacity());
  const platform::SocketResult result = socket_.Recv(recvPacket_->Data(), recvPacket_->Capacity());
  if (result.Ok()) {
    recvPacket_->Resize(static_cast<size_t>(result.count));
    turn->received = true;
    turn->busy = true;
  } else if (result.wouldBlock) {
    canRecv_ = false;
  } else {
    turn->err.SetCode(result.error, L"Can not receive TCP data");
  }
}

}  // namespace Network
