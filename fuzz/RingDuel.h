// RtpManager and RingModel side by side, fed with the same events. Needs the captured log as the
// log of the program.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "RingModel.h"
#include "audio/RtpManager.h"
#include "platform/text.h"
#include "support/CapturedLog.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"

class RingDuel final : private Network::ISyncTarget {
 public:
  RingDuel() {
    manager_.AddTarget(this);
    Log().Clear();
  }

  void Init(size_t channels, uint32_t bufSize, uint32_t bufPos) {
    Network::RtpManagerInfo info;
    info.SampleFreq = 48000;
    info.PacketSmplSize = 192;
    info.RecvBufSize = bufSize;
    info.RecvBufPos = bufPos;
    info.RecvAddrs.assign(channels, Addr(L"127.0.0.1:9000"));
    firstSock_ = net_.SockCount();
    channels_ = channels;
    manager_.Init(info);
    model_.Init(channels, bufSize, bufPos);
    Compare("Init");
  }

  size_t Channels() const { return channels_; }

  // A packet that the manager can distinguish from all others, of any payload type.
  void Deliver(size_t channel, uint16_t seq, uint32_t ts, uint8_t typeByte = 0xC8) {
    const int mark = nextMark_++;
    std::vector<uint8_t> bytes = {0x02, typeByte};
    Put(bytes, seq, 2);
    Put(bytes, ts, 4);
    Put(bytes, 0, 4);
    Put(bytes, static_cast<uint32_t>(mark), 4);
    DeliverRaw(channel, bytes);
    model_.Packet(channel, seq, ts, mark);
    Compare("packet " + std::to_string(seq));
  }

  // A datagram that is no packet, of which the model must hear nothing.
  void DeliverRaw(size_t channel, const std::vector<uint8_t>& bytes) {
    net_.Sock(firstSock_ + channel)->Deliver(bytes, {});
  }

  void Tick() {
    clock_.AdvanceMs(4);
    std::vector<Network::RtpPacket> packets;
    manager_.RecvPackets(packets);
    std::vector<int> marks;
    for (const Network::RtpPacket& packet : packets)
      marks.push_back(MarkIn(packet));
    if (marks != model_.Tick()) Fail("other packets come out than should");
    Compare("tick");
  }

  // Plays a script of events, any bytes: first a set-up, then one event after the other. Ends at
  // the first difference.
  void Play(const uint8_t* script, size_t size) {
    const uint8_t* const end = script + size;
    const auto next = [&]() -> uint32_t { return script < end ? *script++ : 0U; };
    const auto init = [&] {
      const uint32_t channels = next() % 3 + 1;
      const uint32_t bufSize = next() % 18;
      Init(channels, bufSize, next() % 20);
    };
    uint32_t seq = 0;
    uint32_t ts = 0;
    init();
    while (script < end && !difference) {
      const uint32_t event = next();
      const size_t channel = (event >> 4) % Channels();
      switch (event & 0x0F) {
        case 0:
          init();
          break;
        case 1:  // anywhere
          seq = next() << 8 | next();
          ts = next() << 24 | next() << 16 | next() << 8 | next();
          Deliver(channel, static_cast<uint16_t>(seq), ts, static_cast<uint8_t>(next()));
          break;
        case 2:  // nearby, the latest stays where it is
          Deliver(channel, static_cast<uint16_t>(seq + next() - 128), ts + next() - 128);
          break;
        case 3:
          DeliverRaw(channel, std::vector<uint8_t>(next() % 12, 0xC8));
          break;
        case 4:  // a jump
          seq += next() << 8;
          ts += next() << 24;
          break;
        case 5:  // the same once more
          Deliver(channel, static_cast<uint16_t>(seq), ts);
          break;
        case 6:
        case 7:
        case 8:
        case 9:
          Tick();
          break;
        default:  // the next of the stream
          Deliver(channel, static_cast<uint16_t>(++seq), ts += 192);
      }
    }
  }

  // What the first difference is; empty while manager and model agree.
  std::optional<std::string> difference;

 private:
  void OnSync(Network::ISyncSource* source, int64_t pos, uint32_t freq) override {
    if (source != &manager_ || freq != 48000) Fail("a position comes from elsewhere");
    reports_.push_back(pos);
  }

  // Appends `count` bytes of the number, the highest first.
  static void Put(std::vector<uint8_t>& bytes, uint32_t number, int count) {
    while (count-- > 0)
      bytes.push_back(static_cast<uint8_t>(number >> (8 * count)));
  }

  static int MarkIn(const Network::RtpPacket& packet) {
    if (packet.IsEmpty()) return RingModel::kNothing;
    const uint8_t* bytes = packet.GetPayload();
    return bytes[0] << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
  }

  void Compare(const std::string& event) {
    std::vector<std::wstring> lines = Log().Lines();
    std::erase_if(lines, [](const std::wstring& line) { return line.starts_with(L"STATISTICS"); });
    if (lines != model_.lines) Fail("log after " + event + ": " + Text(lines));
    if (reports_ != model_.reports) Fail("other position reports than should come at " + event);
    Log().Clear();
    model_.lines.clear();
    model_.reports.clear();
    reports_.clear();
  }

  void Fail(const std::string& what) {
    if (!difference) difference = what;
  }

  std::string Text(const std::vector<std::wstring>& lines) const {
    std::string text;
    for (const std::wstring& line : lines)
      text += "\n  has " + platform::WideToUtf8Lossy(line);
    for (const std::wstring& line : model_.lines)
      text += "\n  due " + platform::WideToUtf8Lossy(line);
    return text;
  }

  ManualClock clock_;
  FakeNetManager net_;
  Network::RtpManager manager_{L"Unit", &net_};
  RingModel model_{L"Unit"};
  size_t firstSock_ = 0;
  size_t channels_ = 0;
  int nextMark_ = 0;
  std::vector<int64_t> reports_;
};
