#include "Streams.h"

#include <chrono>
#include <cmath>
#include <numbers>

#include "ExitStatus.h"
#include "Units.h"
#include "platform/text.h"
#include "runtime/Clocks.h"

namespace ctl {

using namespace Network;

namespace {

constexpr size_t kFrameBytes = 6;
constexpr double kFullScale = 8388607.0;

int32_t ReadSample(const uint8_t* bytes) {
  const uint32_t bits =
      (uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) | (uint32_t{bytes[2]} << 8);
  return static_cast<int32_t>(bits) >> 8;
}

void WriteSample(uint8_t* bytes, int32_t sample) {
  const auto bits = static_cast<uint32_t>(sample);
  bytes[0] = static_cast<uint8_t>(bits >> 16);
  bytes[1] = static_cast<uint8_t>(bits >> 8);
  bytes[2] = static_cast<uint8_t>(bits);
}

// The single-precision value of the pattern as it stands on the wire.
int32_t ToSample(float value) {
  return static_cast<int32_t>(value * 8388607.0f);
}

void Open(IUdpSock& sock, const UdpSockInfo& info, const std::string& purpose) {
  ErrInfo err = sock.Open(info);
  if (err.IsOk()) return;
  throw Failure{kNoPort,
                "can't open a socket " + purpose + ":" + platform::WideToUtf8Lossy(err.ToString())};
}

}  // namespace

std::vector<Frame> FramesOf(const RtpPacket& packet) {
  std::vector<Frame> frames(packet.GetSmplCount());
  const uint8_t* bytes = packet.GetPayload();
  for (Frame& frame : frames) {
    frame = {ReadSample(bytes), ReadSample(bytes + 3)};
    bytes += kFrameBytes;
  }
  return frames;
}

StreamReceiver::StreamReceiver(INetManager& net, const NetAddr& local)
    : sock_(net.CreateUdpSock()) {
  UdpSockInfo info;
  info.BindAddr = local;
  info.Receiver = this;
  Open(*sock_, info, "for the stream on " + ToText(local));
  address_ = sock_->LocalAddr();
}

StreamReceiver::~StreamReceiver() {
  sock_->Destroy();
}

std::vector<StreamReceiver::Arrival> StreamReceiver::Take(uint32_t waitMs) {
  std::unique_lock lock(mutex_);
  arrived_.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return !arrivals_.empty(); });
  return std::exchange(arrivals_, {});
}

void StreamReceiver::OnDatagramReceived(IUdpSock*, std::shared_ptr<Packet> packet, const NetAddr&) {
  const int64_t now = ClockRead(nullptr);
  std::lock_guard lock(mutex_);
  arrivals_.push_back({RtpPacket(std::move(packet)), now});
  arrived_.notify_one();
}

StreamSender::StreamSender(INetManager& net, const NetAddr& to, uint32_t sampleFreq, double ppm,
                           Source source)
    : payloadType_(PayloadTypeFromFreq(sampleFreq)),
      source_(std::move(source)),
      sock_(net.CreateUdpSock()),
      sync_(ISyncManager::Create(L"qz640ctl.play")) {
  UdpSockInfo info;
  info.SendAddr = to;
  Open(*sock_, info, "to send from");
  sync_->AddTarget(this);
  sync_->SetSyncFreq(sampleFreq, kPacketFrames);
  sync_->SetSpeed(1.0 + ppm / 1e6);
  sync_->Start();
}

StreamSender::~StreamSender() {
  sync_->Stop();
  sock_->Destroy();
}

bool StreamSender::WaitEnd(uint32_t waitMs) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return ended_; });
}

uint64_t StreamSender::Sent() const {
  std::lock_guard lock(mutex_);
  return sent_;
}

uint64_t StreamSender::Failed() const {
  std::lock_guard lock(mutex_);
  return failed_;
}

void StreamSender::OnSync(ISyncSource*, int64_t pos, uint32_t) {
  {
    std::lock_guard lock(mutex_);
    if (ended_) return;
  }
  std::vector<Frame> frames = source_();
  bool sent = false;
  if (!frames.empty()) {
    frames.resize(kPacketFrames);
    RtpPacket packet;
    packet.Create(payloadType_, kPacketFrames);
    RtpHeader header = packet.GetHeader();
    header.SeqNumber = static_cast<uint16_t>(pos / kPacketFrames);
    header.Timestamp = static_cast<uint32_t>(pos);
    packet.SetHeader(header);
    uint8_t* bytes = packet.GetPayload();
    for (const Frame& frame : frames) {
      WriteSample(bytes, frame.left);
      WriteSample(bytes + 3, frame.right);
      bytes += kFrameBytes;
    }
    sent = sock_->Send(packet.GetPacket()->Data(), packet.GetPacket()->Size(), NetAddr()).IsOk();
  }
  std::lock_guard lock(mutex_);
  if (frames.empty()) {
    ended_ = true;
    changed_.notify_all();
  } else {
    ++(sent ? sent_ : failed_);
  }
}

StreamSender::Source ToneSource(double hertz, double level, uint32_t sampleFreq, uint64_t frames) {
  const double amplitude = std::pow(10.0, level / 20.0) * kFullScale;
  const double step = 2.0 * std::numbers::pi * hertz / sampleFreq;
  return [=, done = uint64_t{0}]() mutable {
    std::vector<Frame> out;
    for (; out.size() < kPacketFrames && done < frames; ++done) {
      const auto value =
          static_cast<int32_t>(std::lround(amplitude * std::sin(step * static_cast<double>(done))));
      out.push_back({value, value});
    }
    return out;
  };
}

StreamSender::Source PatternSource(uint64_t frames) {
  return [=, done = uint64_t{0}]() mutable {
    std::vector<Frame> out;
    if (done >= frames) return out;
    for (uint32_t i = 0; i < kPacketFrames; ++i) {
      out.push_back({ToSample(static_cast<float>(i + 1) / 192.0f),
                     ToSample(static_cast<float>(192 - i) / 192.0f)});
    }
    done += kPacketFrames;
    return out;
  };
}

StreamSender::Source FileSource(std::shared_ptr<AudioReader> reader) {
  return [reader] { return reader->Read(kPacketFrames); };
}

}  // namespace ctl
