#include "control/JsonUdpManager.h"

#include <gtest/gtest.h>

#include "support/CapturedLog.h"
#include "support/ControlDoubles.h"
#include "support/FakeNetwork.h"

using namespace Network;

namespace {

class DatagramManager : public testing::Test {
 protected:
  DatagramManager() {
    info.Receiver = &user;
    info.BindAddr = Addr(L"127.0.0.1:8000");
    info.Broadcast = true;
    info.MaxPacketSize = 500;
  }

  void Start() {
    EXPECT_TRUE(manager.Init(info).IsOk());
    EXPECT_TRUE(manager.Start().IsOk());
  }

  void ExpectSendFails(const NetAddr& to, const wchar_t* text) {
    EXPECT_FALSE(manager.SendDirect(msg, to).IsOk());
    EXPECT_NE(Log().TryTake(text), L"") << "wrong or no failure";
    EXPECT_EQ(Log().UntakenFailures().size(), 0U) << "a failure was reported twice";
    EXPECT_EQ(user.Sent().size(), 0U);
    EXPECT_EQ(Log().Count(L"MSG:"), 0U);
  }

  const NetAddr peer = Addr(L"10.1.2.3:4567");
  const std::shared_ptr<JsonMsg> msg = std::make_shared<JsonMsgGetState>();
  FakeNetManager net;
  RecordingReceiver user;
  JsonUdpInfo info;
  JsonUdpManager manager{L"unit", &net};
};

TEST_F(DatagramManager, SendsOneDatagramThenReportsThenLogs) {
  size_t linesBefore = 99;
  user.onSent = [&](const auto&) { linesBefore = Log().Count(L"MSG:"); };
  Start();
  EXPECT_TRUE(manager.SendDirect(msg, peer).IsOk());
  const auto sent = net.LastSock()->Sent();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].bytes, ToDatagram(*msg));
  EXPECT_EQ(sent[0].to, peer);
  EXPECT_EQ(linesBefore, 0U);
  EXPECT_EQ(user.Source(), &manager);
  const std::wstring line = L": MSG: -> (10.1.2.3:4567) get_state : " + msg->ToString();
  EXPECT_EQ(Log().Lines(), std::vector<std::wstring>{L"unit" + line});

  JsonUdpManager nameless(L"", &net);
  EXPECT_TRUE(nameless.Init(info).IsOk() && nameless.Start().IsOk());
  EXPECT_TRUE(nameless.SendDirect(msg, peer).IsOk());
  EXPECT_EQ(Log().Lines().back(), L"JsonUdpManager" + line);
}

TEST_F(DatagramManager, ReceivesLogsThenDelivers) {
  user.onReceived = [&](const auto&, const NetAddr&) { EXPECT_EQ(Log().Count(L"MSG:"), 1U); };
  Start();
  JsonMsgAck ack(41);
  ack.msg_id = 42;
  EXPECT_TRUE(net.LastSock()->Deliver(ToDatagram(ack), peer));
  ASSERT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Received()[0].from, peer);
  EXPECT_EQ(
      Log().Lines()[0],
      L"unit: MSG: <- (10.1.2.3:4567) ack : {\"ack_msg_id\":41,\"msg\":\"ack\",\"msg_id\":42}");
}

TEST_F(DatagramManager, SaysWhyItCannotSend) {
  ExpectSendFails(peer, L"Bad socket Method=Network::JsonUdpManager::SendDirect");
  // Both are missing: the later test has the word.
  ExpectSendFails(NetAddr(), L"Bad send address Method=Network::JsonUdpManager::SendDirect");
  Start();
  ExpectSendFails(NetAddr(), L"Bad send address");
  net.LastSock()->failSend = true;
  ExpectSendFails(peer, L"send failed");
  manager.Stop();
  ExpectSendFails(peer, L"Bad socket");
  // What doesn't fit is refused before a socket or an address is looked for.
  msg->attachment.resize(500);
  ExpectSendFails(NetAddr(), L"Can not deserialize msg. Packet too small");
}

TEST_F(DatagramManager, FilterVetoesInSilence) {
  struct Veto final : IJsonUdpSendFilter {
    bool MaySend(IJsonUdpManager*, const std::shared_ptr<JsonMsg>& m) override {
      return m->msg != L"get_state";
    }
  } veto;
  info.SendFilter = &veto;
  Start();
  EXPECT_TRUE(manager.SendDirect(msg, peer).IsOk());
  EXPECT_EQ(net.LastSock()->Sent().size() + user.Sent().size() + Log().Lines().size(), 0U);
  EXPECT_TRUE(manager.SendDirect(std::make_shared<JsonMsgDevFind>(), peer).IsOk());
  EXPECT_EQ(net.LastSock()->Sent().size(), 1U);
}

TEST_F(DatagramManager, UndecodableDatagramIsOneFailureAndNoLine) {
  Start();
  EXPECT_TRUE(net.LastSock()->Deliver({'x', 0}, peer));
  EXPECT_NE(
      Log().TryTake(L"Bad message received Method=Network::JsonUdpManager::OnDatagramReceived"),
      L"");
  EXPECT_EQ(Log().Lines().size(), 1U);
  EXPECT_EQ(user.Errors().size(), 1U);
  EXPECT_EQ(net.LastSock()->Sent().size(), 0U);
}

// 45 bytes from the network take no megabyte.
TEST_F(DatagramManager, HoldsOfAnAttachmentWhatHasCome) {
  Start();
  JsonMsgGetState head;
  head.att = kMaxAttachment;
  EXPECT_TRUE(net.LastSock()->Deliver(ToDatagram(head), peer));
  ASSERT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Received()[0].msg->announced, kMaxAttachment);
  EXPECT_EQ(user.Received()[0].msg->attachment.capacity(), 0U);
}

TEST_F(DatagramManager, RestartsWithTheSameOptionsOnANewSocket) {
  Start();
  EXPECT_TRUE(manager.Start().IsOk());
  ASSERT_EQ(net.SockCount(), 2U);
  EXPECT_TRUE(net.Sock(0)->destroyed) << "a restarted unit would leave a socket each time";
  const UdpSockInfo opened = net.Sock(1)->Info();
  EXPECT_EQ(opened.BindAddr, info.BindAddr);
  EXPECT_EQ(opened.MaxPacketSize, 500U);
  EXPECT_TRUE(opened.Broadcast);

  EXPECT_TRUE(manager.Init(info).IsOk()) << "Init stops";
  EXPECT_FALSE(manager.IsStarted() || net.Sock(1)->IsOpen());
  net.failOpen = true;
  EXPECT_FALSE(manager.Start().IsOk());
  EXPECT_NE(Log().TryTake(L"open failed"), L"");
  EXPECT_FALSE(manager.IsStarted());
}

// A datagram can be there the moment a socket opens, and its receiver answers at once.
TEST_F(DatagramManager, AnswersADatagramThatArrivesWhileTheSocketOpens) {
  net.onOpen = [&](FakeUdpSock& sock) { sock.Deliver(ToDatagram(*msg), peer); };
  user.onReceived = [&](const auto& request, const NetAddr& from) {
    EXPECT_TRUE(manager.SendDirect(std::make_shared<JsonMsgAck>(request->msg_id), from).IsOk());
  };
  Start();
  EXPECT_EQ(net.LastSock()->Sent().size(), 1U);
}

}  // namespace
