// A network that the test plays by hand: sockets that record what is sent and deliver what the test
// hands them, on the test's own thread unless it uses others.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sockets/INetManager.h"

struct SentDatagram {
  std::vector<uint8_t> bytes;
  Network::NetAddr to;
};

class FakeUdpSock final : public Network::IUdpSock {
 public:
  ErrInfo Open(const Network::UdpSockInfo& info) override {
    {
      std::lock_guard lock(mutex_);
      ++opens;
      if (failOpen || (failPort != 0 && info.BindAddr.Port() == failPort))
        return ERR_AT("FakeUdpSock::Open").SetText(L"open failed");
      info_ = info;
      open_ = true;
    }
    if (onOpen) onOpen(*this);
    return ERR_AT("FakeUdpSock::Open");
  }

  void Close() override {
    {
      std::lock_guard lock(mutex_);
      open_ = false;
    }
    // No delivery begins any more; the one in progress ends.
    std::lock_guard delivery(deliveryMutex_);
  }

  void Destroy() override {
    Close();
    destroyed = true;
  }

  ErrInfo SetSendAddr(const Network::NetAddr& addr) override {
    std::lock_guard lock(mutex_);
    info_.SendAddr = addr;
    return ERR_AT("FakeUdpSock::SetSendAddr");
  }

  ErrInfo Send(const uint8_t* data, uint64_t size, const Network::NetAddr& to) override {
    SentDatagram datagram{std::vector<uint8_t>(data, data + size), to};
    {
      std::lock_guard lock(mutex_);
      if (!open_ || failSend) return ERR_AT("FakeUdpSock::Send").SetText(L"send failed");
      if (!to.IsDefined()) datagram.to = info_.SendAddr;
      if (!datagram.to.IsDefined())
        return ERR_AT("FakeUdpSock::Send").SetText(L"Send address undefined");
      sent_.push_back(datagram);
      sentSignal_.notify_all();
    }
    if (onSent) onSent(datagram);
    return ERR_AT("FakeUdpSock::Send");
  }

  Network::NetAddr LocalAddr() override { return Info().BindAddr; }

  // Hands a datagram to the receiver, as the worker would. False when the socket is closed or hears
  // nothing.
  bool Deliver(const std::vector<uint8_t>& bytes, const Network::NetAddr& from) {
    std::lock_guard delivery(deliveryMutex_);
    Network::UdpSockInfo info = Info();
    if (!IsOpen() || !info.Receiver) return false;
    auto packet = std::make_shared<Network::Packet>(std::max<size_t>(bytes.size(), 1432));
    packet->Resize(bytes.size());
    if (!bytes.empty()) std::memcpy(packet->Data(), bytes.data(), bytes.size());
    info.Receiver->OnDatagramReceived(this, packet, from);
    return true;
  }

  bool IsOpen() const {
    std::lock_guard lock(mutex_);
    return open_;
  }

  Network::UdpSockInfo Info() const {
    std::lock_guard lock(mutex_);
    return info_;
  }

  std::vector<SentDatagram> Sent() const {
    std::lock_guard lock(mutex_);
    return sent_;
  }

  // Waits, ten seconds at most, until `count` datagrams in all have been sent. False if they don't
  // come.
  bool WaitSent(size_t count) const {
    std::unique_lock lock(mutex_);
    return sentSignal_.wait_for(lock, std::chrono::seconds(10),
                                [&] { return sent_.size() >= count; });
  }

  void ClearSent() {
    std::lock_guard lock(mutex_);
    sent_.clear();
  }

  // Set by the test before they are used.
  bool failOpen = false;
  uint16_t failPort = 0;                     // the port that can't be bound
  std::function<void(FakeUdpSock&)> onOpen;  // before Open returns
  bool failSend = false;
  std::function<void(const SentDatagram&)> onSent;  // called without a lock, on the sender's thread

  int opens = 0;
  bool destroyed = false;

 private:
  static ErrInfo ERR_AT(const char* method) { return ErrInfo(method, "tests\\FakeNetwork", 0); }

  std::recursive_mutex deliveryMutex_;  // held during a delivery, so that Close waits for it
  mutable std::mutex mutex_;
  mutable std::condition_variable sentSignal_;
  Network::UdpSockInfo info_;
  bool open_ = false;
  std::vector<SentDatagram> sent_;
};

class FakeNetManager final : public Network::INetManager {
 public:
  std::shared_ptr<Network::IUdpSock> CreateUdpSock() override {
    auto sock = std::make_shared<FakeUdpSock>();
    sock->failOpen = failOpen;
    sock->failPort = failPort;
    sock->onOpen = onOpen;
    sock->onSent = onSent;
    std::lock_guard lock(mutex_);
    socks_.push_back(sock);
    return sock;
  }
  std::shared_ptr<Network::ITcpSock> CreateTcpSock() override { return nullptr; }
  std::shared_ptr<Network::ITcpListenSock> CreateTcpListenSock() override { return nullptr; }

  // The socket made as number `index`, from 0; all sockets ever made are kept.
  std::shared_ptr<FakeUdpSock> Sock(size_t index) const {
    std::lock_guard lock(mutex_);
    return index < socks_.size() ? socks_[index] : nullptr;
  }
  std::shared_ptr<FakeUdpSock> LastSock() const {
    std::lock_guard lock(mutex_);
    return socks_.empty() ? nullptr : socks_.back();
  }
  size_t SockCount() const {
    std::lock_guard lock(mutex_);
    return socks_.size();
  }

  // Of the sockets made from now on:
  bool failOpen = false;                            // none can be opened
  uint16_t failPort = 0;                            // none can be bound to this port
  std::function<void(FakeUdpSock&)> onOpen;         // as each opens
  std::function<void(const SentDatagram&)> onSent;  // each reports what it sends

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<FakeUdpSock>> socks_;
};

inline Network::NetAddr Addr(const wchar_t* text) {
  Network::NetAddr addr;
  addr.SetFromText(text);
  return addr;
}
