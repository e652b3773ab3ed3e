// The networks of a whole emulator, played by hand: what its units hear comes from the test, what
// they send is found here by its destination.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "audio/RtpPacket.h"
#include "emulator/AudioCardEmu.h"
#include "support/CapturedLog.h"
#include "support/ControlDoubles.h"
#include "support/FakeNetwork.h"

// The requests that carry something, for a unit with one input.
inline std::shared_ptr<Network::JsonMsg> SetState(uint32_t freq) {
  auto request = std::make_shared<Network::JsonMsgSetState>();
  request->device_freq = freq;
  return request;
}
inline std::shared_ptr<Network::JsonMsg> SetInput(const Network::NetAddr& to) {
  auto request = std::make_shared<Network::JsonMsgSetInputs>();
  request->inputs.emplace_back();
  request->inputs[0].set = true;
  request->inputs[0].addr = to;
  return request;
}

class FakeNets {
 public:
  // A machine that stands still lets an answer run out; NextAnswer takes it all the same.
  FakeNets() { Log().Allow(L"No ack received"); }

  Network::NetFactory Factory() {
    return [this](Network::NetWorker) { return Make(); };
  }
  std::unique_ptr<Network::INetManager> Make() {
    if (made == room) throw std::system_error(kNoRoom, std::generic_category());
    ++made;
    auto net = std::make_shared<FakeNetManager>();
    net->failPort = failPort;
    net->onSent = [this](const SentDatagram& datagram) { Keep(datagram); };
    nets_.push_back(net);
    return std::make_unique<Lent>(net);
  }

  // The open sockets; of those on `port` there is one at most.
  std::vector<std::shared_ptr<FakeUdpSock>> Open() const {
    std::vector<std::shared_ptr<FakeUdpSock>> open;
    for (const auto& net : nets_)
      for (size_t i = 0; i < net->SockCount(); ++i)
        if (net->Sock(i)->IsOpen()) open.push_back(net->Sock(i));
    return open;
  }
  std::shared_ptr<FakeUdpSock> Bound(uint16_t port) const {
    for (const auto& sock : Open())
      if (sock->Info().BindAddr.Port() == port) return sock;
    return nullptr;
  }

  // The next datagram to that destination, in the order of sending; waits ten seconds at most, and
  // fails the test when none comes.
  DatagramBytes Next(const Network::NetAddr& to) {
    std::unique_lock lock(mutex_);
    std::vector<DatagramBytes>& sent = sent_[to.ToText()];
    size_t& taken = taken_[to.ToText()];
    const bool came =
        signal_.wait_for(lock, std::chrono::seconds(10), [&] { return taken < sent.size(); });
    EXPECT_TRUE(came) << "nothing was sent to " << WideToUtf8(to.ToText());
    return came ? sent[taken++] : DatagramBytes();
  }

  size_t Count(const Network::NetAddr& to) {
    std::lock_guard lock(mutex_);
    return sent_[to.ToText()].size();
  }

  Network::RtpPacket NextPacket(const Network::NetAddr& to) {
    const DatagramBytes bytes = Next(to);
    auto packet = std::make_shared<Network::Packet>(bytes.size());
    packet->Resize(bytes.size());
    std::copy(bytes.begin(), bytes.end(), packet->Data());
    return Network::RtpPacket(packet);
  }

  // A controller at `from` sends a message to a port and takes the answers, which it acknowledges.
  void Tell(uint16_t port, const Network::JsonMsg& msg, const Network::NetAddr& from) {
    const auto sock = Bound(port);
    ASSERT_TRUE(sock) << port;
    EXPECT_TRUE(sock->Deliver(ToDatagram(msg), from));
  }
  template <typename Answer>
  std::shared_ptr<Answer> NextAnswer(uint16_t port, const Network::NetAddr& from) {
    for (;;) {
      const DatagramBytes bytes = Next(from);
      if (bytes.empty()) return nullptr;
      const auto msg = FromDatagram(bytes);
      if (std::dynamic_pointer_cast<Network::JsonMsgAck>(msg)) continue;
      Tell(port, Network::JsonMsgAck(msg->msg_id), from);
      if (auto answer = std::dynamic_pointer_cast<Answer>(msg)) return answer;
    }
  }

  static constexpr int kNoRoom = 11;  // the code of what the factory throws

  uint16_t failPort = 0;   // can't be bound on the networks made from now on
  size_t made = 0;         // networks
  size_t room = SIZE_MAX;  // how many the system has room for

 private:
  // What the emulator owns; the network stays.
  class Lent final : public Network::INetManager {
   public:
    explicit Lent(std::shared_ptr<FakeNetManager> net) : net_(std::move(net)) {}
    std::shared_ptr<Network::IUdpSock> CreateUdpSock() override { return net_->CreateUdpSock(); }
    std::shared_ptr<Network::ITcpSock> CreateTcpSock() override { return nullptr; }
    std::shared_ptr<Network::ITcpListenSock> CreateTcpListenSock() override { return nullptr; }

   private:
    const std::shared_ptr<FakeNetManager> net_;
  };

  void Keep(const SentDatagram& datagram) {
    std::lock_guard lock(mutex_);
    sent_[datagram.to.ToText()].push_back(datagram.bytes);
    signal_.notify_all();
  }

  std::vector<std::shared_ptr<FakeNetManager>> nets_;  // changed by the test's thread alone
  std::mutex mutex_;
  std::condition_variable signal_;
  std::map<std::wstring, std::vector<DatagramBytes>> sent_;
  std::map<std::wstring, size_t> taken_;
};
