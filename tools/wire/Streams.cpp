#include "wire/Streams.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace wire {

namespace {

constexpr size_t kMostKept = 50'000;

}  // namespace

AudioReceiver::AudioReceiver(Loop& loop, const Endpoint& local)
    : loop_(loop), port_(loop, local, [this](const Datagram& datagram) { Take(datagram); }) {}

void AudioReceiver::Take(const Datagram& datagram) {
  if (passOn_ && *passOn_ != port_.Local() && !port_.TrySend(datagram.bytes, *passOn_)) {
    ++notPassedOn_;
  }
  if (packets_.size() >= kMostKept) packets_.pop_front();
  packets_.push_back({datagram.bytes, datagram.from, datagram.time});
}

bool AudioReceiver::WaitCount(size_t count, Clock::duration limit) {
  return loop_.RunUntil([&] { return packets_.size() >= count; }, limit);
}

AudioSender::AudioSender(Loop& loop, const Endpoint& to, uint32_t sampleFreq, double ppm,
                         Source source, const Endpoint& local)
    : loop_(loop),
      to_(to),
      payloadType_(PayloadTypeOf(sampleFreq)),
      periodNs_(1e9 * kPacketFrames / (sampleFreq * (1.0 + ppm / 1e6))),
      source_(std::move(source)),
      port_(loop, local, nullptr),
      timer_(loop, [this] { Turn(); }) {
  timer_.At(start_);
}

// Counted from the start, so that nothing adds up.
Clock::time_point AudioSender::Due(uint64_t packet) const {
  return start_ +
         std::chrono::nanoseconds(static_cast<int64_t>(periodNs_ * static_cast<double>(packet)));
}

void AudioSender::Turn() {
  while (!ended_ && Due(made_) <= Clock::now()) {
    worst_ = std::max(worst_, Clock::now() - Due(made_));
    Frames frames = source_();
    if (frames.empty()) {
      ended_ = true;
    } else {
      Send(std::move(frames));
    }
  }
  if (!ended_) timer_.At(Due(made_));
}

void AudioSender::Send(Frames frames) {
  frames.resize(kPacketFrames);
  StreamHeader header;
  header.payloadType = payloadType_;
  header.sequence = static_cast<uint16_t>(made_);
  header.timestamp = static_cast<uint32_t>(made_ * kPacketFrames);
  ++made_;
  ++(port_.TrySend(EncodePacket(header, frames), to_) ? sent_ : failed_);
}

bool AudioSender::WaitEnd(Clock::duration limit) {
  return loop_.RunUntil([this] { return ended_; }, limit);
}

AudioSender::Source ToneSource(double hertz, double level, uint32_t sampleFreq, uint64_t frames) {
  const double amplitude = std::pow(10.0, level / 20.0) * kFullScale;
  const double step = 2.0 * std::numbers::pi * hertz / sampleFreq;
  return [=, done = uint64_t{0}]() mutable {
    Frames out;
    for (; out.size() < kPacketFrames && done < frames; ++done) {
      const auto code =
          static_cast<int32_t>(std::lround(amplitude * std::sin(step * static_cast<double>(done))));
      out.push_back({code, code});
    }
    return out;
  };
}

AudioSender::Source PatternSource(uint64_t frames) {
  return [=, done = uint64_t{0}]() mutable {
    if (done >= frames) return Frames();
    done += kPacketFrames;
    return Pattern();
  };
}

}  // namespace wire
