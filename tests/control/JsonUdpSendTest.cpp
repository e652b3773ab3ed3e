#include "control/ConnectionFixture.h"

using namespace Network;

namespace {

using Sending = Connection;

TEST_F(Sending, TellsOnceWhenThePeerHasAcknowledged) {
  const auto msg = std::make_shared<JsonMsgGetState>();
  Send(msg);
  EXPECT_EQ(Sock().Sent().size(), 0U) << "Send only queues";
  connect.Pass();
  ASSERT_EQ(Sock().Sent().size(), 1U);
  EXPECT_EQ(Sock().Sent()[0].bytes, ToDatagram(*msg));
  EXPECT_EQ(Sock().Sent()[0].to, peer);
  EXPECT_EQ(user.Sent().size(), 0U);

  Ack(msg->msg_id);
  EXPECT_EQ(user.Sent().size(), 0U) << "only the connection's thread may tell";
  connect.Pass();
  ASSERT_EQ(user.Sent().size(), 1U);
  EXPECT_EQ(user.Sent()[0], msg);
  EXPECT_EQ(user.Source(), &connect);

  clock.AdvanceMs(1000);
  Settle();
  EXPECT_EQ(Sock().Sent().size(), 1U);
  EXPECT_EQ(connect.Statistics().MsgSent, 1U);
}

TEST_F(Sending, TransmitsFiveTimesThenGivesUp) {
  const auto msg = std::make_shared<JsonMsgGetState>();
  Send(msg);
  connect.Pass();
  for (int transmission = 2; transmission <= 5; ++transmission) {
    clock.AdvanceTicks(kAckTimeout);
    connect.Pass();
    EXPECT_EQ(Sock().Sent().size(), static_cast<size_t>(transmission - 1)) << "50 ms aren't over";
    clock.AdvanceTicks(1);
    connect.Pass();
    EXPECT_EQ(Sock().Sent().size(), static_cast<size_t>(transmission));
  }
  clock.AdvanceTicks(kAckTimeout);
  Settle();
  EXPECT_EQ(user.Errors().size(), 0U);
  clock.AdvanceTicks(1);
  Settle();
  EXPECT_NE(Log().TryTake(std::wstring(kNoAck) + L" Method=Network::JsonUdpConnect::SetError"),
            L"");
  EXPECT_EQ(user.Errors().size(), 1U);
  EXPECT_EQ(user.Source(), &connect);

  for (const SentDatagram& datagram : Sock().Sent())
    EXPECT_EQ(datagram.bytes, ToDatagram(*msg));
  EXPECT_EQ(connect.Statistics().RepeatMsgSent, 4U);

  // An acknowledgement that comes too late changes nothing.
  Ack(msg->msg_id);
  Settle();
  EXPECT_EQ(user.Sent().size(), 0U);
  EXPECT_EQ(connect.Statistics().DupAckReceived, 1U);

  // The queue that ran empty by giving up goes on.
  const auto next = std::make_shared<JsonMsgGetState>();
  Send(next);
  Out();
  EXPECT_EQ(PassOut()->msg_id, next->msg_id);
}

TEST_F(Sending, CutsAttachmentsAboveADatagram) {
  SendLong(1300);
  const auto whole = PassOut();
  EXPECT_EQ(whole->attachment, PatternBytes(1300));
  EXPECT_EQ(whole->att, 1300U);
  Ack(whole->msg_id);

  const auto msg = SendLong(1301);
  const auto head = PassOut();
  EXPECT_EQ(head->attachment.size(), 1301U) << "announced";
  EXPECT_EQ(head->att, 0U) << "but none came with it";
  Ack(head->msg_id);
  DatagramBytes bytes;
  for (uint32_t i = 0; i < 2; ++i) {
    const auto segment = std::dynamic_pointer_cast<JsonMsgAtt>(PassOut());
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->leader_id, msg->msg_id);
    EXPECT_EQ(segment->seg_count, 2U);
    EXPECT_EQ(segment->seg_number, i);
    bytes.insert(bytes.end(), segment->attachment.begin(), segment->attachment.end());
    EXPECT_EQ(user.Sent().size(), 1U) << "the message isn't through";
    Ack(segment->msg_id);
  }
  EXPECT_EQ(bytes, PatternBytes(1301));
  Settle();
  EXPECT_EQ(user.Sent().size(), 2U);
  EXPECT_TRUE(msg->attachment.empty());
  EXPECT_EQ(msg->att, 1301U);
}

// A failed message goes as a whole, and only it: whose segment was taken for another's is lost
// without a word.
TEST_F(Sending, GivingUpDiscardsTheRestOfThatMessageAlone) {
  const auto first = SendLong(3000);
  const auto second = SendLong(3000);
  const auto third = std::make_shared<JsonMsgGetState>();
  Send(third);

  EXPECT_EQ(PassOut()->msg_id, first->msg_id);
  LoseAllAcks();
  Out();
  EXPECT_EQ(PassOut()->msg_id, second->msg_id) << "the head failed: its segments are gone";

  Ack(second->msg_id);
  const auto segment = std::dynamic_pointer_cast<JsonMsgAtt>(PassOut());
  ASSERT_TRUE(segment);
  EXPECT_EQ(segment->leader_id, second->msg_id);
  LoseAllAcks();
  Out();
  EXPECT_EQ(PassOut()->msg_id, third->msg_id) << "a segment failed: so are the others";
  Ack(third->msg_id);
  Settle();
  EXPECT_EQ(user.Sent(), std::vector<std::shared_ptr<JsonMsg>>{third});
}

TEST_F(Sending, FailsFiveTimesWhenTheTextFitsNoDatagram) {
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

TEST_F(Sending, SocketFailureIsReportedAtEachAttempt) {
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

TEST_F(Sending, RefusesNothingAndTooMuch) {
  EXPECT_FALSE(connect.Send(nullptr, peer).IsOk());
  EXPECT_NE(Log().TryTake(L"Method=Network::JsonUdpConnect::Send"), L"");

  const auto msg = std::make_shared<JsonMsgGetState>();
  for (size_t i = 0; i < JsonUdpConnect::kMaxWaiting; ++i)
    ASSERT_TRUE(connect.Send(msg, peer).IsOk());
  EXPECT_FALSE(connect.Send(msg, peer).IsOk());
  EXPECT_NE(Log().TryTake(L"Send queue full"), L"");
  connect.Pass();
  EXPECT_TRUE(connect.Send(msg, peer).IsOk()) << "one has left the queue";
}

TEST_F(Sending, CountsAndTimes) {
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

}  // namespace
