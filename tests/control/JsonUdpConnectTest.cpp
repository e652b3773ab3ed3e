// What the connection does beyond the exchange of datagrams, which the fuzz target FuzzConnect
// holds against a model: failures, limits, order between destinations, figures.
#include <stdexcept>

#include "control/ConnectionFixture.h"

using namespace Network;

namespace {

NetAddr HostAddr(size_t host) {
  NetAddr addr;
  addr.SetFromTextAndPort(
      L"10.0." + std::to_wstring(host / 256) + L"." + std::to_wstring(host % 256), 1);
  return addr;
}

TEST_F(Connection, CallsItsUserInPassesAlone) {
  const auto msg = std::make_shared<JsonMsgGetState>();
  Send(msg);
  EXPECT_EQ(Sock().Sent().size(), 0U) << "Send only queues";
  connect.Pass();
  Ack(msg->msg_id);
  Request(12);
  EXPECT_EQ(user.Sent().size() + user.Received().size(), 0U);
  connect.Pass();
  EXPECT_EQ(user.Source(), &connect);
  EXPECT_EQ(user.Sent(), std::vector<std::shared_ptr<JsonMsg>>{msg});
  ASSERT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Received()[0].from, peer);
}

// What passes the connection by, without acknowledgement.
TEST_F(Connection, SendsDirectlyToTheDefaultToo) {
  const auto msg = std::make_shared<JsonMsgGetState>();
  EXPECT_TRUE(connect.SetDefaultSendAddr(Addr(L"10.9.9.9:9")).IsOk());
  EXPECT_TRUE(connect.SendDirect(msg, peer).IsOk());
  EXPECT_TRUE(connect.SendDirect(msg, NetAddr()).IsOk());
  ASSERT_EQ(Sock().Sent().size(), 2U);
  EXPECT_EQ(Sock().Sent()[0].to, peer);
  EXPECT_EQ(Sock().Sent()[1].to, Addr(L"10.9.9.9:9"));
}

// The network is away for an acknowledgement and two transmissions, and then it is back.
TEST_F(Connection, ReportsEachFailureOfTheSocketAndGoesOn) {
  Sock().failSend = true;
  Request(12);
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  RunIntoTimeout();
  EXPECT_EQ(user.Received().size(), 1U) << "what can't be acknowledged comes up all the same";
  EXPECT_EQ(user.Errors().size(), 3U);
  Log().Allow(L"send failed");
  Sock().failSend = false;
  clock.AdvanceTicks(kAckTimeout + 1);
  Ack(PassOut()->msg_id);
  Settle();
  EXPECT_EQ(user.Sent().size(), 1U);
}

TEST_F(Connection, FailsFiveTimesWhenTheTextFitsNoDatagram) {
  Log().Allow(L"Packet too small");
  Send(std::make_shared<JsonMsgError>(1, std::wstring(2000, L'x'), 2));
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  LoseAllAcks();
  EXPECT_EQ(user.Errors().size(), 6U);
  EXPECT_EQ(PassOut()->msg, L"get_state");
}

// As many for one destination as may wait, and then for as many as may wait in all.
TEST_F(Connection, RefusesTooMuch) {
  const auto send = [&](size_t host) {
    return connect.Send(std::make_shared<JsonMsgGetState>(), HostAddr(host)).IsOk();
  };
  const size_t hosts = SendQueue::kMaxInAll / SendQueue::kMaxForOne;
  for (size_t host = 0; host < hosts; ++host) {
    for (size_t i = 0; i < SendQueue::kMaxForOne; ++i)
      ASSERT_TRUE(send(host));
    EXPECT_FALSE(send(host));
    EXPECT_NE(Log().TryTake(L"Send queue full: 256 datagrams wait, message dropped"), L"");
  }
  EXPECT_FALSE(send(hosts));
  EXPECT_NE(Log().TryTake(L"Send queue full: 4096 datagrams wait, message dropped"), L"");

  connect.Pass();
  EXPECT_TRUE(send(hosts)) << "one has left the queue";
  LoseAllAcks();
  // Whoever lets messages run out makes room for the others, and only for them.
  for (size_t host : {hosts, hosts + 1}) {
    EXPECT_TRUE(send(host));
    EXPECT_NE(Log().TryTake(L"Send queue full: get_state to 10.0.0.0:1 dropped"), L"");
  }
  EXPECT_FALSE(send(0));
  EXPECT_NE(Log().TryTake(L"Send queue full: 4096 datagrams wait, message dropped"), L"");
}

// A unit that meets ever new destinations forgets the oldest, and takes them for new ones.
TEST_F(Connection, ForgetsTheDestinationJudgedLongestAgo) {
  const auto exchange = [&](size_t host, bool acknowledged) {
    EXPECT_TRUE(connect.Send(std::make_shared<JsonMsgGetState>(), HostAddr(host)).IsOk());
    const auto out = PassOut();
    if (acknowledged) {
      Ack(out->msg_id);
    } else {
      LoseAllAcks();
      Out();
    }
  };
  exchange(0, false);
  exchange(1, false);
  for (size_t host = 2; host <= SendQueue::kMaxKnown; ++host)
    exchange(host, true);
  connect.Send(std::make_shared<JsonMsgGetState>(), HostAddr(1));
  connect.Send(std::make_shared<JsonMsgGetInputs>(), HostAddr(0));
  EXPECT_EQ(PassOut()->msg, L"get_inputs") << "0 is forgotten, 1 isn't";
}

TEST_F(Connection, CountsAndTimes) {
  // Answered 30 ms after the second transmission, then 10 ms after the only one.
  const auto first = std::make_shared<JsonMsgGetState>();
  Send(first);
  connect.Pass();
  RunIntoTimeout();
  clock.AdvanceMs(30);
  Ack(first->msg_id);
  const auto second = std::make_shared<JsonMsgGetState>();
  Send(second);
  connect.Pass();
  clock.AdvanceMs(10);
  Ack(second->msg_id);
  Ack(second->msg_id);
  Request(12);
  Request(12);
  EXPECT_EQ(connect.Statistics().ToString(),
            L"MsgSent=2, MsgReceived=1, RepeatMsgSent=1, RepeatAckSent=1, DupMsgReceived=1, "
            L"DupAckReceived=1, MaxAckMs=30");
}

// Each thing that a user may throw costs its own message and nothing else.
TEST_F(Connection, SurvivesAThrowingUser) {
  user.onReceived = [](const std::shared_ptr<JsonMsg>& msg, const NetAddr&) {
    if (msg->msg_id == 1) throw std::runtime_error("handler failed: \xC3\xA4");
    if (msg->msg_id == 2) throw 2;
  };
  user.onSent = [](const auto&) { throw std::runtime_error("handler failed"); };
  user.onError = [](const std::wstring&) { throw std::runtime_error("error handler failed"); };
  Log().Allow(L"handler failed");
  Log().Allow(L"of an unknown type");
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  Ack(Out()[0]->msg_id);
  for (uint32_t id = 1; id <= 3; ++id)
    Request(id);
  Settle();
  EXPECT_EQ(user.Sent().size(), 1U);
  EXPECT_EQ(user.Received().size(), 3U);
  EXPECT_EQ(Log().Count(L"handler failed: \x00E4 Method=Network::JsonUdpConnect::SetError"), 1U);
  EXPECT_EQ(Log().Count(L"error handler failed Method=Network::JsonUdpConnect::Pass"), 2U);
  EXPECT_EQ(Log().Count(L"of an unknown type out of a receiver"), 1U);
}

}  // namespace
