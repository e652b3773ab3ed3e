// Streams over a bad network in virtual time, against the model of the rings: what comes out at
// each tick, to the sample, and each log line and position that is told on the way.
#include <gtest/gtest.h>

#include <cmath>
#include <queue>
#include <string>
#include <vector>

#include "audio/RtpAudioManager.h"
#include "badnetwork/RunSeed.h"
#include "relay/LossyLink.h"
#include "support/CapturedLog.h"
#include "support/ControlDoubles.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"
#include "support/RingModel.h"
#include "support/WireAudio.h"

using namespace Network;
using relay::LinkFaults;

namespace {

constexpr int64_t kPeriod = 40'000;  // of a tick, in units of 100 ns
constexpr size_t kChannels = 2;
constexpr int kPackets = 15'000;  // a minute on each channel

struct Weather {
  const char* name;
  LinkFaults faults{};
  int64_t drift = 0;    // how much longer than a tick the sender's period is
  bool breaks = false;  // now and then the cable is pulled, or the sender stands still
  double least = 0;     // per cent of the ticks that have sound
  int mostAnchors = 1'000'000;
};

void PrintTo(const Weather& weather, std::ostream* out) {
  *out << weather.name;
}

class LossyStreams final : private ISyncTarget {
 public:
  LossyStreams(uint64_t seed, const Weather& weather) : weather_(weather) {
    for (size_t channel = 0; channel < kChannels; ++channel)
      links_.emplace_back(seed, channel);
    RtpManagerInfo info;
    info.SampleFreq = 48000;
    info.PacketSmplSize = wire::kFrames;
    info.RecvAddrs.assign(kChannels, Addr(L"127.0.0.1:9000"));
    manager_.AddTarget(this);
    EXPECT_TRUE(manager_.Init(info).IsOk());
    model_.Init(kChannels, info.RecvBufSize, info.RecvBufPos);
  }

  void Run() {
    int sent = 0;
    for (int64_t tick = 0; sent < kPackets && !testing::Test::HasFailure(); ++tick) {
      const int64_t now = start_ + tick * kPeriod;
      for (; SendTime(sent) <= now; ++sent)
        Send(sent);
      while (!underWay_.empty() && underWay_.top().time <= now) {
        clock_.SetCounter(underWay_.top().time);
        Deliver(underWay_.top());
        underWay_.pop();
      }
      clock_.SetCounter(now);
      Tick();
    }
  }

  std::wstring story;  // the log of the run
  int anchors = 0;
  int ticks = 0;
  int sounding = 0;  // channels with a packet, over all ticks

 private:
  struct UnderWay {
    int64_t time;
    uint64_t order;
    size_t channel;
    int number;

    bool operator>(const UnderWay& other) const {
      return time != other.time ? time > other.time : order > other.order;
    }
  };

  int64_t SendTime(int number) const {
    const int64_t stoodStill = weather_.breaks ? number / 2000 * 25 * kPeriod : 0;
    return start_ + number * (kPeriod + weather_.drift) + stoodStill;
  }

  // Each packet has bytes of its own.
  static wire::Bytes Payload(size_t channel, int number) {
    return PatternBytes(wire::kPayloadSize,
                        static_cast<uint32_t>(static_cast<size_t>(number) * kChannels + channel));
  }

  void Send(int number) {
    const bool outage = weather_.breaks && number % 2000 > 1000 && number % 2000 <= 1100;
    for (size_t channel = 0; channel < kChannels; ++channel) {
      links_[channel].SetFaults(outage ? LinkFaults{.loss = 100} : weather_.faults);
      for (const relay::Arrival& arrival : links_[channel].Next())
        underWay_.push({SendTime(number) + arrival.delay, ++order_, channel, number});
    }
  }

  void Deliver(const UnderWay& packet) {
    // From a place where both numbers wrap on the way.
    const auto seq = static_cast<uint16_t>(60'000 + packet.number);
    const auto ts = 4'294'000'000U + static_cast<uint32_t>(packet.number) * 192U;
    const wire::Bytes payload = Payload(packet.channel, packet.number);
    net_.Sock(packet.channel)
        ->Deliver(wire::MakeAudioDatagram(seq, ts, wire::kType48000, payload), {});
    model_.Packet(packet.channel, seq, ts, packet.number);
    Compare();
  }

  void Tick() {
    float samples[2 * kChannels][wire::kFrames];
    std::vector<float*> buffers;
    for (auto& buffer : samples)
      buffers.push_back(buffer);
    EXPECT_TRUE(manager_.RecvAudio(buffers, wire::kFrames).IsOk());
    const std::vector<int> due = model_.Tick();
    for (size_t channel = 0; channel < kChannels; ++channel) {
      const bool silent = due[channel] == RingModel::kNothing;
      sounding += silent ? 0 : 1;
      const wire::Bytes payload =
          silent ? wire::Bytes(wire::kPayloadSize) : Payload(channel, due[channel]);
      ExpectSamples(payload, &buffers[2 * channel]);
    }
    ++ticks;
    Compare();
  }

  void ExpectSamples(const wire::Bytes& payload, float* const* pair) const {
    for (size_t frame = 0; frame < wire::kFrames; ++frame) {
      for (size_t side = 0; side < 2; ++side) {
        const double code = double{pair[side][frame]} * 8388607.0;
        ASSERT_LT(std::abs(code - wire::GetCode(payload, frame, side)), 0.75)
            << "a wrong sample in tick " << ticks;
      }
    }
  }

  void Compare() {
    std::vector<std::wstring> lines = Log().Lines();
    std::erase_if(lines, [](const std::wstring& line) { return line.starts_with(L"STATISTICS"); });
    EXPECT_EQ(lines, model_.lines) << "log of tick " << ticks;
    EXPECT_EQ(reports_, model_.reports) << "positions in tick " << ticks;
    for (const std::wstring& line : lines) {
      story += std::to_wstring(ticks) + L' ' + line + L'\n';
      if (line.find(L"Stream OK. SeqNumPos=") != std::wstring::npos) ++anchors;
    }
    Log().Clear();
    model_.lines.clear();
    model_.reports.clear();
    reports_.clear();
  }

  void OnSync(ISyncSource*, int64_t pos, uint32_t) override { reports_.push_back(pos); }

  const Weather weather_;
  ManualClock clock_;
  const int64_t start_ = clock_.Counter();
  FakeNetManager net_;
  RtpAudioManager manager_{L"Unit", &net_};
  RingModel model_{L"Unit"};
  std::vector<relay::LossyLink> links_;
  std::priority_queue<UnderWay, std::vector<UnderWay>, std::greater<>> underWay_;
  uint64_t order_ = 0;
  std::vector<int64_t> reports_;
};

class BadAudio : public testing::TestWithParam<Weather> {};

TEST_P(BadAudio, AgreesWithTheModelToTheSample) {
  const Weather& weather = GetParam();
  LossyStreams streams(RunSeed(), weather);
  streams.Run();
  const double percent = 100.0 * streams.sounding / (streams.ticks * double{kChannels});
  EXPECT_GE(percent, weather.least);
  EXPECT_LE(streams.anchors, weather.mostAnchors);
  EXPECT_GE(streams.anchors, weather.breaks || weather.drift != 0 ? 3 : 1);
  std::cout << percent << " % of the ticks had sound, " << streams.anchors << " anchors\n";
}

// Jitter and loss move nothing: without breaks or drift the position is found once.
INSTANTIATE_TEST_SUITE_P(
    Weathers, BadAudio,
    testing::Values(
        Weather{.name = "Fine", .least = 99.9, .mostAnchors = 1},
        Weather{.name = "Doubled",
                .faults = {.duplicate = 50, .delayMs = 3, .jitterMs = 8},
                .least = 99.9,
                .mostAnchors = 1},
        Weather{
            .name = "Loss10", .faults = {.loss = 10, .jitterMs = 3}, .least = 88, .mostAnchors = 1},
        Weather{.name = "Loss40",
                .faults = {.loss = 40, .duplicate = 10, .delayMs = 2, .jitterMs = 6},
                .breaks = true,
                .least = 50},
        Weather{.name = "Reordered",
                .faults = {.loss = 5, .duplicate = 20, .reorder = 50, .delayMs = 1, .jitterMs = 4},
                .least = 65},
        Weather{
            .name = "Storm",
            .faults = {.loss = 20, .duplicate = 30, .reorder = 30, .delayMs = 20, .jitterMs = 80},
            .breaks = true},
        Weather{
            .name = "SlowSender", .faults = {.loss = 5, .jitterMs = 3}, .drift = 60, .least = 80},
        Weather{
            .name = "FastSender", .faults = {.loss = 5, .jitterMs = 3}, .drift = -60, .least = 80}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(BadAudioAgain, IsTheSameAgainFromTheSameSeed) {
  const Weather storm{.name = "Storm", .faults = {20, 30, 30, 0, 20, 80}, .breaks = true};
  const auto storyOf = [&](uint64_t seed) {
    LossyStreams streams(seed, storm);
    streams.Run();
    return streams.story;
  };
  const std::wstring story = storyOf(RunSeed());
  EXPECT_EQ(story, storyOf(RunSeed()));
  EXPECT_NE(story, storyOf(RunSeed() + 1));
}

}  // namespace
