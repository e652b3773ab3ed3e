// What the socket tests share: addresses of this process alone, far ends that the test plays by
// hand, and receivers that write down what is reported to them.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "platform/socket.h"
#include "platform/text.h"
#include "sockets/ITcpListenSock.h"
#include "sockets/IUdpSock.h"
#include "sockets/NetManager.h"
#include "support/CapturedLog.h"
#include "support/System.h"

using Bytes = std::vector<uint8_t>;

constexpr std::chrono::seconds kPatience{20};

// The own address of this process at `port`, so that tests that run beside each other don't meet.
inline Network::NetAddr OwnAddr(uint32_t port) {
  Network::NetAddr addr;
  EXPECT_TRUE(addr.SetFromTextAndPort(Utf8ToWide(OwnAddress()), port));
  return addr;
}

inline Bytes BytesOf(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

inline std::shared_ptr<Network::Packet> PacketOf(const Bytes& bytes) {
  auto packet = std::make_shared<Network::Packet>(bytes.size());
  packet->Resize(bytes.size());
  std::copy(bytes.begin(), bytes.end(), packet->Data());
  return packet;
}

// A long row of bytes in which no piece can be lost, doubled or moved unseen.
inline Bytes Pattern(size_t size) {
  Bytes bytes(size);
  uint32_t state = 12345;
  for (uint8_t& byte : bytes) {
    state = state * 1664525 + 1013904223;  // the generator of Numerical Recipes
    byte = static_cast<uint8_t>(state >> 24);
  }
  return bytes;
}

// A failure with its report taken out of the log.
struct Failure {
  uint32_t code = 0;
  std::wstring text;  // empty: there was none

  bool Says(const std::wstring& part) const { return text.find(part) != std::wstring::npos; }
};

inline Failure FailureOf(ErrInfo err) {
  Failure failure;
  if (err.IsOk()) return failure;
  failure = {err.Code(), err.ToString()};
  Log().Allow(failure.text);
  return failure;
}

// What the worker's thread reports to the test's: a condition that the test can wait for.
class Watcher {
 public:
  template <typename Change>
  void Note(Change change) {
    std::lock_guard lock(mutex_);
    change();
    changed_.notify_all();
  }

  template <typename Condition>
  bool WaitFor(Condition condition) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, condition);
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
};

class UdpRecorder final : public Network::IUdpReceiver {
 public:
  void OnDatagramReceived(Network::IUdpSock* sock, std::shared_ptr<Network::Packet> packet,
                          const Network::NetAddr& from) override {
    notes_.Note([&] {
      datagrams.emplace_back(packet->Data(), packet->Data() + packet->Size());
      senders.push_back(from);
    });
    if (onDatagram) onDatagram(sock);
  }

  void OnError(Network::IUdpSock*, ErrInfo err) override {
    notes_.Note([&] { errors.push_back(FailureOf(err)); });
  }

  // Only in `condition` may the test read what the worker still adds to.
  template <typename Condition>
  bool WaitUntil(Condition condition) const {
    return notes_.WaitFor(condition);
  }
  bool WaitDatagrams(size_t count) const {
    return WaitUntil([&] { return datagrams.size() >= count; });
  }

  std::function<void(Network::IUdpSock*)> onDatagram;  // runs after the writing down

  // Read them when the worker has nothing to add any more.
  std::vector<Bytes> datagrams;
  std::vector<Network::NetAddr> senders;
  std::vector<Failure> errors;

 private:
  Watcher notes_;
};

// A bare socket of the system that stands for a far end.
class Peer {
 public:
  void Open(const Network::NetAddr& local) {
    ASSERT_TRUE(socket.OpenUdp().Ok());
    ASSERT_TRUE(socket.Bind(local.Raw()).Ok());
  }

  // `receiveBuffer` 0: as the system has it.
  void Connect(const Network::NetAddr& peer, uint32_t receiveBuffer = 0) {
    ASSERT_TRUE(socket.OpenTcp().Ok());
    ASSERT_TRUE(receiveBuffer == 0 || socket.SetReceiveBuffer(receiveBuffer).Ok());
    ASSERT_TRUE(socket.Connect(peer.Raw()).Ok());
    ASSERT_TRUE(Watch());
  }

  bool Watch() {
    return socket.Watch(wakeSet, platform::kSocketRead | platform::kSocketClose).Ok();
  }

  platform::SocketResult SendTo(const Bytes& bytes, const Network::NetAddr& to) {
    return socket.SendTo(bytes.data(), bytes.size(), to.Raw());
  }

  // Waits for some bytes of the stream, `size` at most; none: the stream has ended or broken.
  Bytes Read(size_t size) {
    Bytes bytes(std::min(size, size_t{65536}));
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
      const platform::SocketResult result = socket.Recv(bytes.data(), bytes.size());
      if (!result.wouldBlock) {
        bytes.resize(result.Ok() ? static_cast<size_t>(result.count) : 0);
        return bytes;
      }
      if (std::chrono::steady_clock::now() > deadline) break;
      waiter->Wait(1000);
    }
    ADD_FAILURE() << "nothing came";
    return {};
  }

  // Waits for exactly that many bytes of the stream.
  Bytes ReadAll(size_t size) {
    Bytes all;
    while (all.size() < size) {
      const Bytes part = Read(size - all.size());
      if (part.empty()) break;
      all.insert(all.end(), part.begin(), part.end());
    }
    return all;
  }

  std::shared_ptr<platform::Waiter> waiter = std::make_shared<platform::Waiter>();
  std::shared_ptr<platform::WakeSet> wakeSet = std::make_shared<platform::WakeSet>(waiter);
  platform::Socket socket;
};

class SocketFixture : public testing::Test {
 protected:
  // A socket that delivers to `receiver`, bound to the own address at `port`.
  std::shared_ptr<Network::IUdpSock> OpenUdp(uint32_t port, Network::IUdpReceiver* receiver,
                                             uint32_t maxPacketSize = 1432) {
    Network::UdpSockInfo info;
    info.BindAddr = OwnAddr(port);
    info.MaxPacketSize = maxPacketSize;
    info.Receiver = receiver;
    auto sock = manager->CreateUdpSock();
    EXPECT_EQ(FailureOf(sock->Open(info)).text, L"");
    return sock;
  }

  // The worker handles what `inside` causes only when that has returned, all of it at once.
  void WhileTheWorkerIsHeld(const std::function<void()>& inside) {
    Watcher watcher;
    bool held = false;
    bool released = false;
    UdpRecorder holder;
    holder.onDatagram = [&](Network::IUdpSock*) {
      watcher.Note([&] { held = true; });
      watcher.WaitFor([&] { return released; });
    };
    auto sock = OpenUdp(kHolderPort, &holder);
    Peer peer;
    peer.Open(OwnAddr(0));
    ASSERT_TRUE(peer.SendTo(BytesOf("hold"), OwnAddr(kHolderPort)).Ok());
    ASSERT_TRUE(watcher.WaitFor([&] { return held; }));
    inside();
    watcher.Note([&] { released = true; });
    sock->Destroy();
  }

  // An idle worker makes two rounds for a datagram: one that delivers it and one that finds nothing
  // more. One that doesn't find its rest makes rounds all the time.
  void ExpectTheWorkerRests() {
    UdpRecorder recorder;
    auto sock = OpenUdp(kHolderPort, &recorder);
    Peer peer;
    peer.Open(OwnAddr(0));
    constexpr size_t kProbes = 100;
    const uint64_t before = manager->RoundCount();
    for (size_t i = 1; i <= kProbes; ++i) {
      ASSERT_TRUE(peer.SendTo(BytesOf("probe"), OwnAddr(kHolderPort)).Ok());
      ASSERT_TRUE(recorder.WaitDatagrams(i));
    }
    EXPECT_LE(manager->RoundCount() - before, 2 * kProbes + 10);
    sock->Destroy();
  }

  static constexpr uint32_t kHolderPort = 7999;

  std::unique_ptr<Network::NetManager> manager = std::make_unique<Network::NetManager>();
};
