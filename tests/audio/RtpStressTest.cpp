// The overlaps of the audio side: channels that are replaced, and managers that die, while packets
// come in. Most of what these tests are for only the sanitizers see.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "audio/RtpAudioManager.h"
#include "support/CapturedLog.h"
#include "support/FakeNetwork.h"
#include "wire/Audio.h"

namespace {

Network::RtpManagerInfo MakeInfo(uint32_t bufSize) {
  Network::RtpManagerInfo info;
  info.SampleFreq = 48000;
  info.PacketSmplSize = 192;
  info.RecvBufSize = bufSize;
  info.RecvBufPos = bufSize / 2;
  info.RecvAddrs.assign(2, Addr(L"127.0.0.1:8002"));
  info.SendChans.assign(1, {Addr(L"10.0.0.1:9000"), 100});
  return info;
}

class Target final : public Network::ISyncTarget {
 public:
  void OnSync(Network::ISyncSource*, int64_t, uint32_t) override { ++calls_; }

 private:
  std::atomic<int> calls_{0};
};

// A worker that delivers to the sockets of a manager, the last ones made, until it dies.
class Traffic {
 public:
  explicit Traffic(FakeNetManager& net) : net_(net), thread_([this] { Run(); }) {}
  ~Traffic() {
    stop_ = true;
    thread_.join();
  }

  // Waits for so many deliveries from now on.
  void Wait(int count) const {
    const int until = deliveries_ + count;
    while (deliveries_ < until)
      std::this_thread::yield();
  }

 private:
  void Run() {
    uint16_t seq = 0;
    while (!stop_) {
      const size_t socks = net_.SockCount();
      for (size_t i = socks < 6 ? 0 : socks - 6; i < socks; ++i)
        if (net_.Sock(i)->Deliver(
                wire::EncodePacket({.sequence = seq, .timestamp = seq * 192U}, {}), {}))
          ++deliveries_;
      ++seq;
      std::this_thread::yield();  // a thread that waits for a lock gets it
    }
  }

  FakeNetManager& net_;
  std::atomic<bool> stop_{false};
  std::atomic<int> deliveries_{0};
  std::thread thread_;
};

}  // namespace

// Init ends the old channels while they deliver, and so does a manager that dies: none may be gone
// under its delivery, nor the target of the manager, none may get a packet in a slot that its ring
// doesn't have, and Init must not wait for a lock that the delivery it waits for wants.
TEST(RtpStress, ChannelsAndManagersGoWhilePacketsComeIn) {
  FakeNetManager net;
  Traffic traffic(net);
  std::vector<float> samples(192);
  const std::vector<float*> buffers(4, samples.data());
  Log().Allow(L"Packet smpl size mismatch");  // the packets of the traffic carry no samples
  for (int round = 0; round < 1500; ++round) {
    Target target;
    Network::RtpAudioManager manager(L"Unit", &net);
    manager.AddTarget(&target);
    for (const uint32_t bufSize : {30u, 2u, 9u}) {
      ASSERT_TRUE(manager.Init(MakeInfo(bufSize)).IsOk());
      traffic.Wait(1);
      manager.RecvAudio(buffers, 192);
      if (bufSize == 2) manager.Stop();  // ends the statistics that the deliveries go on to feed
    }
  }
}

// A send address changes on one thread while another sends.
TEST(RtpStress, AddressesChangeWhileTicksSend) {
  FakeNetManager net;
  size_t sent = 0;
  net.onSent = [&sent](const SentDatagram& datagram) {
    ++sent;
    EXPECT_EQ(datagram.to, Addr(L"10.0.0.1:9000"));
  };
  Network::RtpAudioManager manager(L"Unit", &net);
  ASSERT_TRUE(manager.Init(MakeInfo(9)).IsOk());
  std::atomic<bool> stop{false};
  std::thread control([&] {
    for (int change = 0; !stop; ++change)
      manager.SetSendChanAddr(0, change % 2 == 0 ? Network::NetAddr() : Addr(L"10.0.0.1:9000"));
  });
  float sample = 0;  // a short packet: the sooner comes the next one
  // Until the address has often changed from one tick to the next: then the threads really overlap.
  bool went = false;
  for (int turns = 0; turns < 10'000;) {
    const size_t before = sent;
    EXPECT_TRUE(manager.SendAudio({&sample, &sample}, 1).IsOk());
    turns += went != (sent > before) ? 1 : 0;
    went = sent > before;
  }
  stop = true;
  control.join();
}
