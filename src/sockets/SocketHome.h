// Where the sockets of one network manager live: the registries that keep them alive and what wakes
// the worker that serves them. A socket knows its home and not the manager, and knows it weakly: so
// a socket may outlive its manager and can be destroyed all the same.
//
// Each registry has its own lock, held for one append, one erase or one copy and never across a
// socket's code; no two are held together. Any thread may call everything here.
#pragma once

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>
#include <vector>

#include "platform/wakeset.h"
#include "runtime/TrackedMutex.h"

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
    changed_ = true;
  }

  // Does nothing when it isn't there.
  void Remove(const Sock* sock) {
    std::shared_ptr<Sock> removed;  // dies after the unlock, and the socket perhaps with it
    ScopedLock lock(mutex_);
    const auto found = std::find_if(socks_.begin(), socks_.end(),
                                    [sock](const auto& entry) { return entry.get() == sock; });
    if (found == socks_.end()) return;
    removed = std::move(*found);
    socks_.erase(found);
    changed_ = true;
  }

  // Makes `list` a copy of the registry, which costs nothing as long as that hasn't changed. Keeps
  // the old list when there is no memory. One thread, always with the same list.
  void Refresh(std::vector<std::shared_ptr<Sock>>* list) {
    if (!changed_) return;
    std::vector<std::shared_ptr<Sock>> old;  // dies after the unlock, and sockets perhaps with it
    ScopedLock lock(mutex_);
    old = socks_;
    old.swap(*list);
    changed_ = false;
  }

 private:
  TrackedMutex mutex_;
  std::vector<std::shared_ptr<Sock>> socks_;
  std::atomic<bool> changed_{false};  // since the latest Refresh
};

class SocketHome {
 public:
  explicit SocketHome(std::shared_ptr<platform::WakeSet> event) : event_(std::move(event)) {}
  SocketHome(const SocketHome&) = delete;
  SocketHome& operator=(const SocketHome&) = delete;

  // Wakes the worker. A socket keeps a reference, as it may outlive its home.
  const std::shared_ptr<platform::WakeSet>& GetEvent() const { return event_; }

  SocketRegistry<UdpSock>& UdpSocks() { return udpSocks_; }
  SocketRegistry<TcpSock>& TcpSocks() { return tcpSocks_; }
  SocketRegistry<TcpListenSock>& TcpListenSocks() { return tcpListenSocks_; }

  // Takes in an accepted connection.
  void AddTcpSock(std::shared_ptr<TcpSock> sock) { tcpSocks_.Add(std::move(sock)); }

  // The registry lets go of the socket. Nothing happens when it doesn't have it.
  void RemoveUdpSock(const UdpSock* sock) { udpSocks_.Remove(sock); }
  void RemoveTcpSock(const TcpSock* sock) { tcpSocks_.Remove(sock); }
  void RemoveTcpListenSock(const TcpListenSock* sock) { tcpListenSocks_.Remove(sock); }

 private:
  const std::shared_ptr<platform::WakeSet> event_;
  SocketRegistry<UdpSock> udpSocks_{L"NetManager::UdpSocketsMutex"};
  SocketRegistry<TcpSock> tcpSocks_{L"NetManager::TcpSocketsMutex"};
  SocketRegistry<TcpListenSock> tcpListenSocks_{L"NetManager::TcpListenSocketsMutex"};
};

}  // namespace Network
