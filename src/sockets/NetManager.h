// The working network manager: one thread that serves all the sockets made through it, one turn
// each, every time it wakes.
//
// Each registry has its own lock, held for one append, one erase or one copy and never across a
// socket's code; no two are held together.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "platform/wakeset.h"
#include "runtime/TrackedMutex.h"
#include "sockets/INetManager.h"

namespace Network {

class TcpListenSock;
class TcpSock;
class UdpSock;

// The sockets of one kind, in the order of their making. An entry keeps its socket alive.
template <typename Sock>
class SocketRegistry {
 public:
  explicit SocketRegistry(const wchar_t* mutexName) : mutex_(mutexName) { socks_.reserve(100); }

  void Add(std::shared_ptr<Sock> sock) {
    ScopedLock lock(mutex_);
    socks_.push_back(std::move(sock));
  }

  // Does nothing when it isn't there.
  void Remove(const Sock* sock) {
    std::shared_ptr<Sock> removed;  // dies behind the unlock, and the socket perhaps with it
    ScopedLock lock(mutex_);
    const auto found = std::find_if(socks_.begin(), socks_.end(),
                                    [sock](const auto& entry) { return entry.get() == sock; });
    if (found == socks_.end()) return;
    removed = std::move(*found);
    socks_.erase(found);
  }

  void CopyTo(std::vector<std::shared_ptr<Sock>>* list) {
    list->clear();  // before the lock: a socket may die here
    ScopedLock lock(mutex_);
    *list = socks_;
  }

 private:
  TrackedMutex mutex_;
  std::vector<std::shared_ptr<Sock>> socks_;
};

class NetManager final : public INetManager {
 public:
  // Throws std::system_error when the system has no room for the worker.
  NetManager();
  ~NetManager() override;
  NetManager(const NetManager&) = delete;
  NetManager& operator=(const NetManager&) = delete;

  std::shared_ptr<IUdpSock> CreateUdpSock() override;
  std::shared_ptr<ITcpSock> CreateTcpSock() override;
  std::shared_ptr<ITcpListenSock> CreateTcpListenSock() override;

  // The rest is for the sockets. Any thread.

  // What the worker sleeps on. A socket keeps a reference, as it may outlive the manager.
  const std::shared_ptr<platform::WakeSet>& GetEvent() const { return event_; }

  // The registry lets go of the socket. Nothing happens when it doesn't have it.
  void RemoveUdpSock(const UdpSock* sock);
  void RemoveTcpSock(const TcpSock* sock);
  void RemoveTcpListenSock(const TcpListenSock* sock);

  // Takes in an accepted connection.
  void AddTcpSock(std::shared_ptr<TcpSock> sock);

  // Rounds that the worker has begun. An idle worker begins none.
  uint64_t RoundCount() const { return roundCount_; }

 private:
  struct Lists;

  void Run();
  bool RunRound(Lists* lists);

  SocketRegistry<UdpSock> udpSocks_;
  SocketRegistry<TcpSock> tcpSocks_;
  SocketRegistry<TcpListenSock> tcpListenSocks_;
  const std::shared_ptr<platform::WakeSet> event_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> roundCount_{0};
  std::thread worker_;  // last: it uses all of the above
};

}  // namespace Network
