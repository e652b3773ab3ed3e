// What the connection does beyond the exchange of datagrams, which the fuzz target FuzzConnect
// holds against a model: failures, limits, order between destinations, figures.
#include <map>
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
  ASSERT_EQ(user.Sent().size(), 1U);
  EXPECT_EQ(user.Sent()[0], msg);
  ASSERT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Received()[0].from, peer);
}

TEST_F(Connection, SaysWhatItGaveUp) {
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  for (int i = 0; i < 5; ++i)
    RunIntoTimeout();
  EXPECT_NE(Log().TryTake(std::wstring(kNoAck) + L" Method=Network::JsonUdpConnect::SetError"),
            L"");
  EXPECT_EQ(user.Errors().size(), 1U);
  EXPECT_EQ(user.Source(), &connect);
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

TEST_F(Connection, DeliversWhatItCannotAcknowledge) {
  Sock().failSend = true;
  Request(12);
  EXPECT_NE(Log().TryTake(L"send failed"), L"");
  Settle();
  EXPECT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Errors().size(), 1U);
}

TEST_F(Connection, FailsFiveTimesWhenTheTextFitsNoDatagram) {
  const auto huge = std::make_shared<JsonMsgError>(1, std::wstring(2000, L'x'), 2);
  Send(huge);
  const auto next = std::make_shared<JsonMsgGetState>();
  Send(next);
  connect.Pass();
  LoseAllAcks();
  EXPECT_EQ(Sock().Sent().size(), 0U);
  EXPECT_EQ(user.Errors().size(), 6U);
  for (int i = 0; i < 5; ++i)
    EXPECT_NE(Log().TryTake(L"Packet too small"), L"");
  EXPECT_EQ(PassOut()->msg_id, next->msg_id);
}

TEST_F(Connection, SocketFailureIsReportedAtEachAttempt) {
  Sock().failSend = true;
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  RunIntoTimeout();
  EXPECT_EQ(user.Errors().size(), 2U);
  Log().Allow(L"send failed");
  // The network is back before the attempts are over.
  Sock().failSend = false;
  clock.AdvanceTicks(kAckTimeout + 1);
  const auto out = PassOut();
  ASSERT_TRUE(out);
  Ack(out->msg_id);
  Settle();
  EXPECT_EQ(user.Sent().size(), 1U);
}

TEST_F(Connection, RefusesNothingAndTooMuch) {
  EXPECT_FALSE(connect.Send(nullptr, peer).IsOk());
  EXPECT_NE(Log().TryTake(L"Method=Network::JsonUdpConnect::Send"), L"");

  // As many for one destination as may wait, and then for as many as may wait in all.
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
  const auto longOne = std::make_shared<JsonMsgGetState>();
  longOne->attachment = PatternBytes(3000);
  EXPECT_FALSE(connect.Send(longOne, peer).IsOk());
  EXPECT_NE(Log().TryTake(L"Send queue full"), L"");
  EXPECT_EQ(longOne->attachment, PatternBytes(3000)) << "what is refused stays the sender's";

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

// Who acknowledges comes first, then who isn't known, then who let a message run out; the rest goes
// by the order of the sends, and a message that has begun is finished.
TEST_F(Connection, WhoAcknowledgesIsServedFirst) {
  enum { kDead, kGood, kNew };
  std::vector<std::pair<size_t, size_t>> went;  // host, number of the message
  std::map<uint32_t, size_t> numbers;
  const auto send = [&](size_t host, size_t attachment = 0) {
    auto msg = std::make_shared<JsonMsgGetState>();
    msg->attachment = PatternBytes(attachment);
    numbers[msg->msg_id] = numbers.size();
    EXPECT_TRUE(connect.Send(msg, HostAddr(host)).IsOk());
  };
  const auto goOut = [&] {
    const auto sentTo = [&] { return Sock().Sent().at(0).to; };
    connect.Pass();
    ASSERT_EQ(Sock().Sent().size(), 1U);
    const NetAddr to = sentTo();
    const auto msg = Out()[0];
    const auto* segment = dynamic_cast<const JsonMsgAtt*>(msg.get());
    const size_t host = to.Raw().address[3];
    went.emplace_back(host, numbers.at(segment ? segment->leader_id : msg->msg_id));
    if (host == kDead) {
      LoseAllAcks();
      Out();
    } else {
      Ack(msg->msg_id);
    }
  };
  send(kDead);  // 0
  send(kGood);  // 1
  goOut();
  goOut();
  send(kDead);        // 2
  send(kNew);         // 3
  send(kDead);        // 4
  send(kNew);         // 5
  send(kGood, 2000);  // 6, with two segments
  send(kGood);        // 7
  goOut();            // 6 has begun
  send(kGood);        // 8
  for (int i = 0; i < 8; ++i)
    goOut();
  const std::vector<std::pair<size_t, size_t>> expected = {
      {kDead, 0}, {kGood, 1}, {kGood, 6}, {kGood, 6}, {kGood, 6}, {kGood, 7},
      {kGood, 8}, {kNew, 3},  {kNew, 5},  {kDead, 2}, {kDead, 4}};
  EXPECT_EQ(went, expected);
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

TEST_F(Connection, WithoutReceiverItAcknowledgesAndLogs) {
  info.Receiver = nullptr;
  EXPECT_TRUE(connect.Init(info).IsOk());
  EXPECT_TRUE(connect.Open().IsOk());
  Request(12);
  Settle();
  EXPECT_EQ(Out().size(), 1U);
  Send(std::make_shared<JsonMsgGetState>());
  connect.Pass();
  LoseAllAcks();
}

}  // namespace
