#include "audio/RtpManager.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/CapturedLog.h"
#include "support/FakeNetwork.h"
#include "support/ManualClock.h"
#include "wire/Audio.h"

using Network::RtpManagerInfo;
using Network::RtpPacket;

namespace {

class RtpManagerTest : public testing::Test {
 protected:
  void Init(size_t recvChans, size_t sendChans) {
    RtpManagerInfo info;
    info.SampleFreq = 48000;
    info.PacketSmplSize = 192;
    info.RecvAddrs.assign(recvChans, Addr(L"127.0.0.1:8002"));
    info.SendChans.assign(sendChans, {Network::NetAddr(), 100});
    firstSock_ = net_.SockCount();
    ASSERT_TRUE(manager_.Init(info).IsOk());
  }

  FakeUdpSock& Sock(size_t index) { return *net_.Sock(firstSock_ + index); }

  void Packet(uint16_t seq, uint32_t ts = 0, size_t channel = 0, uint8_t type = 100) {
    Sock(channel).Deliver(
        wire::EncodePacket({.payloadType = type, .sequence = seq, .timestamp = ts}, {}),
        Addr(L"10.0.0.9:5"));
  }

  // The sequence numbers that the rings give up, -1 where nothing came.
  std::vector<int> Tick() {
    std::vector<RtpPacket> packets(7);
    EXPECT_TRUE(manager_.RecvPackets(packets).IsOk());
    std::vector<int> numbers;
    for (const RtpPacket& packet : packets)
      numbers.push_back(packet.IsEmpty() ? -1 : packet.GetHeader().SeqNumber);
    return numbers;
  }

  void Send(size_t packets) {
    std::vector<RtpPacket> list(packets);
    for (RtpPacket& packet : list)
      ASSERT_TRUE(packet.Create(100, 1).IsOk());
    ASSERT_TRUE(manager_.SendPackets(list).IsOk());
  }

  ManualClock clock_;
  FakeNetManager net_;
  Network::RtpManager manager_{L"Unit.RtpManager", &net_};
  size_t firstSock_ = 0;
};

}  // namespace

TEST_F(RtpManagerTest, PositionAndSeriesAreLoggedOnceAMinute) {
  Init(2, 1);
  uint16_t seq = 10;
  const auto next = [&] {
    clock_.AdvanceMs(3);
    Packet(++seq);
    clock_.AdvanceMs(1);
    Packet(seq, 0, 1, 0);  // counted once, with the first; whatever its payload type says
    Tick();
    Send(1);
  };
  for (int i = 0; i < 3; ++i)
    next();
  clock_.AdvanceMs(60'000);
  Log().Clear();
  for (int i = 0; i < 2; ++i)
    next();
  EXPECT_EQ(Log().Count(L"STATISTICS: "), 3u);
  EXPECT_NE(Log().TryTake(L"STATISTICS: Unit.RtpManager: SeqNumPos=9, SeqNum=14, PosInBuf=5"), L"");
  EXPECT_NE(Log().TryTake(L"STATISTICS: Unit.RtpManager.Recv: N=2, E=27.5, J=23.5"), L"");
  EXPECT_NE(Log().TryTake(L"STATISTICS: Unit.RtpManager.Send: N=3, E=19.6667, J=20.8889"), L"");
  next();
  manager_.Stop();
  EXPECT_NE(Log().TryTake(L"STATISTICS: Unit.RtpManager.Send: N=2, E=4, J=0"), L"");
}

TEST_F(RtpManagerTest, InitAgainReplacesTheChannelsAndKeepsThePosition) {
  Init(2, 1);
  Packet(1000);
  Init(1, 2);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_TRUE(net_.Sock(i)->destroyed);
    EXPECT_FALSE(Sock(i).destroyed);
  }
  EXPECT_EQ(Sock(0).Info().MaxPacketSize, 1432u);
  EXPECT_FALSE(Sock(1).Info().BindAddr.IsDefined());
  Log().Clear();
  Packet(1001);
  EXPECT_EQ(Log().Lines().size(), 0u);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(Tick(), std::vector<int>{-1});
  EXPECT_EQ(Tick(), std::vector<int>{1001});

  manager_.Init(RtpManagerInfo());
  EXPECT_NE(Log().TryTake(L"ErrStr=SampleFreq con not be 0"), L"");
  EXPECT_EQ(manager_.GetSendChanCount(), 2u);
}

TEST_F(RtpManagerTest, SentPacketsOfATickCarryOneNumberAndTheCountersRunAlways) {
  Init(0, 2);
  Send(2);  // no address yet
  manager_.Start();
  manager_.SetSendChanAddr(1, Addr(L"10.0.0.1:9002"));
  Send(2);
  EXPECT_EQ(manager_.GetSendChanAddr(1), Addr(L"10.0.0.1:9002"));
  EXPECT_TRUE(Sock(0).Sent().empty());
  ASSERT_EQ(Sock(1).Sent().size(), 1u);
  EXPECT_EQ(Sock(1).Sent()[0].bytes,
            wire::EncodePacket({.sequence = 1, .timestamp = 192}, wire::Frames(1)));

  // Neither a new start nor new channels reset them; they are cut to their bits on the wire.
  manager_.Stop();
  Init(0, 1);
  for (int i = 2; i < 65536; ++i)
    Send(0);
  manager_.SetSendChanAddr(0, Addr(L"10.0.0.1:9000"));
  Send(1);
  EXPECT_EQ(Sock(0).Sent()[0].bytes,
            wire::EncodePacket({.sequence = 0, .timestamp = 65536 * 192}, wire::Frames(1)));

  manager_.SetSendChanAddr(0, {});
  Send(1);
  EXPECT_EQ(Sock(0).Sent().size(), 1u);
  manager_.SetSendChanAddr(1, {});
  EXPECT_NE(Log().TryTake(L"ErrStr=Incorrect channel index"), L"");
}

TEST_F(RtpManagerTest, AChannelReportsWhatItsSocketCanNotDo) {
  net_.failOpen = true;
  Init(1, 1);
  EXPECT_EQ(Log().Count(L"ErrStr=open failed"), 2u);
  Log().Allow(L"ErrStr=open failed");
  Network::RtpRecvChan channel(L"Recv", &net_, {});
  channel.OnError(nullptr, ErrInfo("Test", "tests", 0).SetText(L"recv failed"));
  EXPECT_NE(Log().TryTake(L"ErrStr=recv failed"), L"");
}

TEST_F(RtpManagerTest, AFilterMayReplaceAPacket) {
  class Twice final : public Network::IRtpSendFilter {
   public:
    bool Filter(const RtpPacket& packet, std::vector<RtpPacket>& out) override {
      out.insert(out.end(), 2, packet);
      return false;
    }
  } filter;
  Init(0, 1);
  manager_.SetSendChanAddr(0, Addr(L"10.0.0.1:9000"));
  Send(1);
  manager_.SetSendFilter(&filter);
  Send(1);
  EXPECT_EQ(Sock(0).Sent().size(), 3u);
}
