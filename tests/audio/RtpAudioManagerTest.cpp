#include "audio/RtpAudioManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "support/CapturedLog.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"
#include "wire/Audio.h"

using Network::IRtpAudioManager;

namespace {

constexpr uint32_t kCount = 192;

// Buffers of one stereo pair for each channel, full of what nobody writes, with room after each for
// what mustn't be written there.
struct Buffers {
  explicit Buffers(size_t channels) : floats(channels * 2, std::vector<float>(2 * kCount, 7.0f)) {
    for (auto& buffer : floats)
      pointers.push_back(buffer.data());
  }
  std::vector<std::vector<float>> floats;
  std::vector<float*> pointers;
};

// The samples of a tick, and nothing after them.
bool AllAre(const std::vector<float>& buffer, float value) {
  std::vector<float> expected(buffer.size(), 7.0f);
  std::fill_n(expected.begin(), kCount, value);
  return buffer == expected;
}

class RtpAudioManagerTest : public testing::Test {
 protected:
  void Init(size_t recvChans, size_t sendChans, uint32_t payloadType = 100) {
    Network::RtpManagerInfo info;
    info.SampleFreq = 48000;
    info.PacketSmplSize = kCount;
    info.RecvBufPos = 0;  // what comes in comes out at the next tick
    info.RecvAddrs.assign(recvChans, Addr(L"127.0.0.1:8002"));
    info.SendChans.assign(sendChans, {Addr(L"10.0.0.1:9000"), payloadType});
    ASSERT_TRUE(manager_->Init(info).IsOk());
  }

  void Deliver(size_t channel, uint16_t seq, const wire::Frames& frames) {
    net_.Sock(channel)->Deliver(
        wire::EncodePacket({.payloadType = 100, .sequence = seq, .timestamp = seq}, frames), {});
  }

  ManualClock clock_;
  FakeNetManager net_;
  std::unique_ptr<IRtpAudioManager> manager_{IRtpAudioManager::Create(L"Unit", &net_)};
};

}  // namespace

TEST_F(RtpAudioManagerTest, AWrongNumberOfBuffersStillSpendsTheTick) {
  Init(1, 1);
  Deliver(0, 5, wire::Pattern());
  Buffers none(0);
  manager_->RecvAudio(none.pointers, kCount);
  EXPECT_NE(Log().TryTake(L"Number of RTP channels mismatch number of ASIO channels "
                          L"Method=Network::RtpAudioManager::RecvAudio File=src\\RtpManager"),
            L"");
  Buffers one(1);
  ASSERT_TRUE(manager_->RecvAudio(one.pointers, kCount).IsOk());
  EXPECT_TRUE(AllAre(one.floats[0], 0.0f)) << "the packet went with the failed tick";

  manager_->SendAudio(none.pointers, kCount);
  EXPECT_NE(Log().TryTake(L"Number of RTP channels mismatch number of ASIO channels"), L"");
  EXPECT_TRUE(net_.Sock(1)->Sent().empty());
}

TEST_F(RtpAudioManagerTest, APacketOfAnotherSizeFailsAndLeavesItsPairAlone) {
  Init(3, 0);
  uint16_t seq = 5;
  // 238 fill the largest datagram that a socket takes; one more than the tick's would already end
  // up in the neighbouring buffer.
  for (const size_t samples : {96u, 191u, 193u, 238u}) {
    for (size_t channel : {0u, 2u})
      Deliver(channel, seq, wire::Pattern());
    Deliver(1, seq++, wire::Frames(samples));
    Buffers buffers(3);
    manager_->RecvAudio(buffers.pointers, kCount);
    EXPECT_NE(Log().TryTake(L"Packet smpl size mismatch number ASIO buffer smpl size"), L"");
    EXPECT_FALSE(AllAre(buffers.floats[0], 7.0f));
    for (size_t i = 2; i < 6; ++i)
      EXPECT_TRUE(AllAre(buffers.floats[i], 7.0f)) << samples;
  }
}
