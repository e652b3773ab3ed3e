// The audio of a tick, without the socket calls.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "audio/RtpAudioManager.h"
#include "sockets/INetManager.h"

using namespace Network;

namespace {

constexpr char kSourceFile[] = "bench\\AudioBench";
constexpr uint32_t kCount = 192;

// A socket that sends nothing; what it receives is handed in.
class NoSock final : public IUdpSock {
 public:
  ErrInfo Open(const UdpSockInfo& info) override {
    receiver = info.Receiver;
    return ERR_HERE("NoSock::Open");
  }
  void Close() override {}
  void Destroy() override {}
  ErrInfo SetSendAddr(const NetAddr&) override { return ERR_HERE("NoSock::SetSendAddr"); }
  ErrInfo Send(const uint8_t* data, uint64_t, const NetAddr&) override {
    benchmark::DoNotOptimize(data);
    return ERR_HERE("NoSock::Send");
  }
  NetAddr LocalAddr() override { return {}; }

  IUdpReceiver* receiver = nullptr;
};

class NoNetwork final : public INetManager {
 public:
  std::shared_ptr<IUdpSock> CreateUdpSock() override {
    socks.push_back(std::make_shared<NoSock>());
    return socks.back();
  }
  std::shared_ptr<ITcpSock> CreateTcpSock() override { return nullptr; }
  std::shared_ptr<ITcpListenSock> CreateTcpListenSock() override { return nullptr; }

  std::vector<std::shared_ptr<NoSock>> socks;
};

// A manager with so many channels each way, its buffers, and a sender.
struct Unit {
  explicit Unit(size_t channels) : buffers(2 * channels, std::vector<float>(kCount, 0.25f)) {
    NetAddr addr;
    addr.SetFromText(L"127.0.0.1:9000");
    RtpManagerInfo info;
    info.SampleFreq = 48000;
    info.PacketSmplSize = kCount;
    info.RecvAddrs.assign(channels, addr);
    info.SendChans.assign(channels, {addr, 100});
    manager.Init(info);
    for (auto& buffer : buffers)
      pointers.push_back(buffer.data());
  }

  void Receive(size_t channel) {
    RtpPacket packet;
    packet.Create(100, kCount);
    RtpHeader header = packet.GetHeader();
    header.SeqNumber = seq;
    header.Timestamp = seq * kCount;
    packet.SetHeader(header);
    net.socks[channel]->receiver->OnDatagramReceived(nullptr, packet.GetPacket(), {});
  }

  NoNetwork net;
  RtpAudioManager manager{L"Unit", &net};
  std::vector<std::vector<float>> buffers;
  std::vector<float*> pointers;
  uint16_t seq = 0;
};

// One packet in on every channel, then what the tick does with them.
void BM_Tick(benchmark::State& state) {
  const auto channels = static_cast<size_t>(state.range(0));
  Unit unit(channels);
  for (auto _ : state) {
    ++unit.seq;
    for (size_t i = 0; i < channels; ++i)
      unit.Receive(i);
    unit.manager.RecvAudio(unit.pointers, kCount);
    unit.manager.SendAudio(unit.pointers, kCount);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Tick)->Arg(1)->Arg(4)->ArgName("channels");

// One datagram on the worker, its buffer included, and the ring moved on for the next.
void BM_OnRtpPacket(benchmark::State& state) {
  Unit unit(1);
  std::vector<RtpPacket> packets;
  for (auto _ : state) {
    ++unit.seq;
    unit.Receive(0);
    unit.manager.RecvPackets(packets);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_OnRtpPacket);

// Both channels of a packet.
void BM_PacketFromFloat(benchmark::State& state) {
  const std::vector<float> samples(kCount, 0.25f);
  RtpPacket packet;
  packet.Create(100, kCount);
  for (auto _ : state) {
    packet.SetAudioPayload(samples.data(), samples.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 2 * kCount);
}
BENCHMARK(BM_PacketFromFloat);

void BM_PacketToFloat(benchmark::State& state) {
  std::vector<float> left(kCount), right(kCount);
  RtpPacket packet;
  packet.Create(100, kCount);
  for (auto _ : state) {
    packet.GetAudioPayload(left.data(), right.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 2 * kCount);
}
BENCHMARK(BM_PacketToFloat);

// What memory takes for as many samples, whatever is done with them.
void BM_PacketCopied(benchmark::State& state) {
  const std::vector<float> samples(2 * kCount, 0.25f);
  std::vector<float> copy(samples.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), samples.data(), samples.size() * sizeof(float));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PacketCopied);

}  // namespace
