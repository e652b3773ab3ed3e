// Stand-ins for the parts of a unit and of the emulator. A Bench makes them and keeps what they
// record, as they die with their unit. Each operation of theirs adds a line to the bench's story,
// such as "emulator1.RtpManager Start".
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "emulator/Emulator.h"
#include "platform/text.h"
#include "support/FakeNetwork.h"

class FakeConnect;
class FakeListener;
class FakeRtp;
class FakeSync;

class Bench {
 public:
  Network::UnitParts UnitParts();
  Network::EmulatorParts EmulatorParts();  // without a settings path

  void Tell(const std::string& line) {
    std::lock_guard lock(mutex_);
    if (telling) story_.push_back(line);
  }

  // What has happened since the last call.
  std::vector<std::string> TakeStory() {
    std::lock_guard lock(mutex_);
    return std::exchange(story_, {});
  }

  // The latest that were made; they die with their owner.
  FakeSync* sync = nullptr;
  FakeRtp* rtp = nullptr;
  FakeConnect* connect = nullptr;
  FakeListener* listener = nullptr;

  std::string failing;      // the line of the operation that fails
  bool telling = true;      // false: the story isn't kept
  bool ticking = false;     // started clocks call their target on a thread of their own
  bool requesting = false;  // started connections deliver `requests` on a thread of their own
  std::vector<std::shared_ptr<Network::JsonMsg>> requests;

 private:
  std::mutex mutex_;
  std::vector<std::string> story_;
};

// A double's name and its place in the story.
class Actor {
 public:
  Actor(Bench& bench, const std::wstring& name) : bench_(bench), name_(WideToUtf8(name)) {}

 protected:
  // A success, or the failure that the bench wants for this operation.
  ErrInfo Act(const std::string& operation) {
    const std::string line = name_ + " " + operation;
    bench_.Tell(line);
    ErrInfo err("Double::Act", "tests\\Doubles", 0);
    if (line == bench_.failing) err.SetText((operation + " failed").c_str());
    return err;
  }

  Bench& bench_;
  const std::string name_;
};

// Runs a function over and over on a thread of its own between Start and Stop.
class Repeater {
 public:
  ~Repeater() { Stop(); }

  template <typename Function>
  void Start(Function function) {
    Stop();
    stop_ = false;
    thread_ = std::thread([this, function]() mutable {
      while (!stop_)
        function();
    });
  }

  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class FakeNet final : public Network::INetManager, private Actor {
 public:
  FakeNet(Bench& bench, const std::wstring& name) : Actor(bench, name) {}
  ~FakeNet() override { Act("gone"); }
  std::shared_ptr<Network::IUdpSock> CreateUdpSock() override { return nullptr; }
  std::shared_ptr<Network::ITcpSock> CreateTcpSock() override { return nullptr; }
  std::shared_ptr<Network::ITcpListenSock> CreateTcpListenSock() override { return nullptr; }
};

class FakeSync final : public Network::ISyncManager, private Actor {
 public:
  FakeSync(Bench& bench, const std::wstring& name) : Actor(bench, name) { bench.sync = this; }
  ~FakeSync() override {
    ticks_.Stop();
    Act("gone");
  }

  void AddTarget(Network::ISyncTarget* target) override {
    Act("AddTarget");
    targets_.push_back(target);
  }
  ErrInfo DelTarget(Network::ISyncTarget*) override { return Act("DelTarget"); }
  ErrInfo Init(const Network::SyncInfo&) override { return Act("Init"); }
  ErrInfo SetSyncFreq(uint32_t freq, uint32_t step) override {
    freq_ = freq;
    return Act("SetSyncFreq " + std::to_string(freq) + " " + std::to_string(step));
  }
  uint32_t GetSyncFreq() override { return freq_; }
  ErrInfo SetSpeed(double speed) override {
    speed_ = speed;
    return Act("SetSpeed");
  }
  double GetSpeed() override { return speed_; }
  ErrInfo Start() override {
    ErrInfo err = Act("Start");
    started_ = err.IsOk();
    if (started_ && bench_.ticking) ticks_.Start([this] { Tick(); });
    return err;
  }
  ErrInfo Stop() override {
    ticks_.Stop();
    started_ = false;
    return Act("Stop");
  }
  bool IsStarted() override { return started_; }
  void OnSync(Network::ISyncSource*, int64_t, uint32_t) override {}

  void Tick() {
    for (Network::ISyncTarget* target : targets_)
      target->OnSync(this, 0, freq_);
  }

 private:
  std::vector<Network::ISyncTarget*> targets_;
  std::atomic<uint32_t> freq_{0};
  std::atomic<double> speed_{0.0};
  std::atomic<bool> started_{false};
  Repeater ticks_;
};

// Receives silence and keeps what was sent, both without allocating.
class FakeRtp final : public Network::IRtpAudioManager, private Actor {
 public:
  using Channel = std::array<float, 192>;

  FakeRtp(Bench& bench, const std::wstring& name) : Actor(bench, name) { bench.rtp = this; }
  ~FakeRtp() override { Act("gone"); }

  void AddTarget(Network::ISyncTarget*) override { Act("AddTarget"); }
  ErrInfo DelTarget(Network::ISyncTarget*) override { return Act("DelTarget"); }
  ErrInfo Init(const Network::RtpManagerInfo& newInfo) override {
    info_ = newInfo;
    return Act("Init");
  }
  ErrInfo Start() override { return Act("Start"); }
  void Stop() override { Act("Stop"); }
  bool IsStarted() override { return false; }
  uint64_t GetRecvChanCount() override { return info_.RecvAddrs.size(); }
  uint64_t GetSendChanCount() override { return info_.SendChans.size(); }
  Network::NetAddr GetSendChanAddr(uint64_t index) override { return info_.SendChans[index].Addr; }
  ErrInfo SetSendChanAddr(uint64_t index, const Network::NetAddr& addr) override {
    info_.SendChans[index].Addr = addr;
    return Act("SetSendChanAddr " + std::to_string(index) + " " + WideToUtf8(addr.ToText()));
  }
  ErrInfo RecvPackets(std::vector<Network::RtpPacket>&) override { return Act("RecvPackets"); }
  ErrInfo SendPackets(std::vector<Network::RtpPacket>&) override { return Act("SendPackets"); }
  void SetSendFilter(Network::IRtpSendFilter*) override {}

  ErrInfo RecvAudio(const std::vector<float*>&, uint32_t) override {
    ErrInfo err("FakeRtp::RecvAudio", "tests\\Doubles", 0);
    if (failAudio) err.SetText(L"RecvAudio failed");
    return err;
  }
  ErrInfo SendAudio(const std::vector<float*>& buffers, uint32_t) override {
    for (size_t i = 0; i < buffers.size() && i < sent.size(); ++i) {
      std::copy(buffers[i], buffers[i] + sent[i].size(), sent[i].begin());
    }
    ErrInfo err("FakeRtp::SendAudio", "tests\\Doubles", 0);
    if (failAudio) err.SetText(L"SendAudio failed");
    return err;
  }

  bool failAudio = false;
  std::array<Channel, 8> sent{};  // left, right of each input

 private:
  Network::RtpManagerInfo info_;
};

class FakeConnect final : public Network::IJsonUdpConnect, private Actor {
 public:
  FakeConnect(Bench& bench, const std::wstring& name) : Actor(bench, name) { bench.connect = this; }
  ~FakeConnect() override {
    requests_.Stop();
    Act("gone");
  }

  ErrInfo Init(const Network::JsonUdpInfo& newInfo) override {
    info = newInfo;
    return Act("Init");
  }
  ErrInfo Start() override {
    if (bench_.requesting) {
      requests_.Start([this, next = size_t{0}]() mutable {
        Deliver(bench_.requests[next++ % bench_.requests.size()], Addr(L"127.0.0.9:9"));
      });
    }
    return Act("Start");
  }
  void Stop() override {
    requests_.Stop();
    Act("Stop");
  }
  bool IsStarted() override { return false; }
  ErrInfo SetDefaultSendAddr(const Network::NetAddr&) override { return Act("SetDefaultSendAddr"); }
  ErrInfo SendDirect(const std::shared_ptr<Network::JsonMsg>&, const Network::NetAddr&) override {
    return Act("SendDirect");
  }
  ErrInfo Send(const std::shared_ptr<Network::JsonMsg>&, const Network::NetAddr&) override {
    return Act("Send");
  }

  void Deliver(const std::shared_ptr<Network::JsonMsg>& msg, const Network::NetAddr& from) {
    info.Receiver->OnMsgReceived(this, msg, from);
  }

  Network::JsonUdpInfo info;

 private:
  Repeater requests_;
};

class FakeListener final : public Network::IJsonUdpManager, private Actor {
 public:
  FakeListener(Bench& bench, const std::wstring& name) : Actor(bench, name) {
    bench.listener = this;
  }
  ~FakeListener() override { Act("gone"); }

  ErrInfo Init(const Network::JsonUdpInfo& newInfo) override {
    info = newInfo;
    return Act("Init");
  }
  ErrInfo Start() override { return Act("Start"); }
  void Stop() override { Act("Stop"); }
  bool IsStarted() override { return false; }
  ErrInfo SetDefaultSendAddr(const Network::NetAddr&) override { return Act("SetDefaultSendAddr"); }
  ErrInfo SendDirect(const std::shared_ptr<Network::JsonMsg>&, const Network::NetAddr&) override {
    return Act("SendDirect");
  }

  Network::JsonUdpInfo info;
};

inline Network::UnitParts Bench::UnitParts() {
  Network::UnitParts parts;
  parts.MakeNet = [this] { return std::make_unique<FakeNet>(*this, L"audio net"); };
  parts.MakeSync = [this](const std::wstring& name) { return new FakeSync(*this, name); };
  parts.MakeRtp = [this](const std::wstring& name, Network::INetManager*) {
    return new FakeRtp(*this, name);
  };
  parts.MakeConnect = [this](const std::wstring& name, Network::INetManager*) {
    return new FakeConnect(*this, name);
  };
  return parts;
}

inline Network::EmulatorParts Bench::EmulatorParts() {
  Network::EmulatorParts parts;
  parts.MakeNet = [this] { return std::make_unique<FakeNet>(*this, L"control net"); };
  parts.MakeListener = [this](const std::wstring& name, Network::INetManager*) {
    return new FakeListener(*this, name);
  };
  parts.Unit = UnitParts();
  return parts;
}
