#include "sockets/NetManager.h"

#include "platform/thread.h"
#include "sockets/TcpListenSock.h"
#include "sockets/TcpSock.h"
#include "sockets/UdpSock.h"

namespace Network {

namespace {

constexpr uint32_t kIdleWaitMs = 100'000;

// One turn of each socket, in the order of the list. True when one of them did work.
template <typename Sock>
bool Serve(const std::vector<std::shared_ptr<Sock>>& socks, bool (Sock::*turn)()) {
  bool busy = false;
  for (const std::shared_ptr<Sock>& sock : socks) {
    try {
      if ((sock.get()->*turn)()) busy = true;
    } catch (...) {
      // A receiver that threw, or no memory. The worker has the other sockets to serve, so it goes
      // on, and looks again: this turn may have left something behind.
      busy = true;
    }
  }
  return busy;
}

}  // namespace

std::unique_ptr<INetManager> INetManager::Create() {
  return std::make_unique<NetManager>();
}

// The worker's copies of the registries. They keep their memory from round to round, and keep a
// socket that was removed during a round alive until the next one.
struct NetManager::Lists {
  std::vector<std::shared_ptr<UdpSock>> udp;
  std::vector<std::shared_ptr<TcpSock>> tcp;
  std::vector<std::shared_ptr<TcpListenSock>> tcpListen;
};

NetManager::NetManager()
    : home_(std::make_shared<SocketHome>(std::make_shared<platform::WakeSet>())),
      worker_([this] { Run(); }) {}

NetManager::~NetManager() {
  stop_ = true;
  home_->GetEvent()->Signal();
  worker_.join();
}

std::shared_ptr<IUdpSock> NetManager::CreateUdpSock() {
  auto sock = std::make_shared<UdpSock>(home_);
  home_->UdpSocks().Add(sock);
  return sock;
}

std::shared_ptr<ITcpSock> NetManager::CreateTcpSock() {
  auto sock = std::make_shared<TcpSock>(home_);
  home_->TcpSocks().Add(sock);
  return sock;
}

std::shared_ptr<ITcpListenSock> NetManager::CreateTcpListenSock() {
  auto sock = std::make_shared<TcpListenSock>(home_);
  home_->TcpListenSocks().Add(sock);
  return sock;
}

void NetManager::Run() {
  platform::SetTimeCritical();
  Lists lists;
  bool busy = false;
  while (!stop_) {
    // Between busy rounds too: it doesn't sleep then, and brings the news of the sockets.
    home_->GetEvent()->Wait(busy ? 0 : kIdleWaitMs);
    if (stop_) break;
    ++roundCount_;
    try {
      busy = RunRound(&lists);
    } catch (...) {
      busy = true;  // no memory for the copies: whatever woke the worker is still to be done
    }
  }
}

bool NetManager::RunRound(Lists* lists) {
  bool busy = false;
  home_->UdpSocks().CopyTo(&lists->udp);
  busy |= Serve(lists->udp, &UdpSock::TryReceive);
  home_->TcpSocks().CopyTo(&lists->tcp);
  busy |= Serve(lists->tcp, &TcpSock::TrySendAndReceive);
  home_->TcpListenSocks().CopyTo(&lists->tcpListen);
  busy |= Serve(lists->tcpListen, &TcpListenSock::TryAccept);
  return busy;
}

}  // namespace Network
