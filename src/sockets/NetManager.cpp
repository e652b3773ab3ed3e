#include "sockets/NetManager.h"

#include <exception>

#include "platform/text.h"
#include "runtime/ErrInfo.h"
#include "sockets/TcpListenSock.h"
#include "sockets/TcpSock.h"
#include "sockets/UdpSock.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\NetManager";

// Writes down the exception in flight, as far as memory allows that.
void ReportException() noexcept {
  try {
    ErrInfo err = ERR_HERE("Network::NetManager::Run");
    try {
      throw;
    } catch (const std::exception& thrown) {
      err.SetText(L"A receiver threw: " + platform::Utf8ToWideLossy(thrown.what()));
    } catch (...) {
      err.SetText(L"A receiver threw something that is no std::exception");
    }
  } catch (...) {
  }
}

// One turn of each socket, in the order of the list. True when one of them did work.
template <typename Sock>
bool Serve(const std::vector<std::shared_ptr<Sock>>& socks, bool (Sock::*turn)()) {
  bool busy = false;
  for (const std::shared_ptr<Sock>& sock : socks) {
    try {
      if ((sock.get()->*turn)()) busy = true;
    } catch (...) {
      // A receiver that threw, or no memory. The worker has the other sockets to serve, so it goes
      // on, and looks again: this turn may have left something undone.
      ReportException();
      busy = true;
    }
  }
  return busy;
}

}  // namespace

std::unique_ptr<INetManager> INetManager::Create(NetWorker worker) {
  return std::make_unique<NetManager>(worker);
}

NetManager::NetManager(NetWorker worker)
    : place_(std::make_unique<SocketWorker::Place>(
          worker == NetWorker::Shared ? SocketWorker::Shared() : SocketWorker::Own())),
      home_(std::make_shared<SocketHome>(place_->Event())) {
  place_->Serve(this);
}

// No round after this: the rest may go in any order.
NetManager::~NetManager() {
  place_.reset();
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

// The sockets that have nothing answer their turn by a look into memory.
bool NetManager::RunRound() {
  ++roundCount_;
  bool busy = false;
  try {
    home_->UdpSocks().Refresh(&udpSocks_);
    busy |= Serve(udpSocks_, &UdpSock::TryReceive);
    home_->TcpSocks().Refresh(&tcpSocks_);
    busy |= Serve(tcpSocks_, &TcpSock::TrySendAndReceive);
    home_->TcpListenSocks().Refresh(&tcpListenSocks_);
    busy |= Serve(tcpListenSocks_, &TcpListenSock::TryAccept);
  } catch (...) {
    busy = true;  // no memory for a copy: whatever woke the worker is still to be done
  }
  return busy;
}

}  // namespace Network
