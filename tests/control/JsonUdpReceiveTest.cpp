#include "control/ConnectionFixture.h"

using namespace Network;

namespace {

using Receiving = Connection;

TEST_F(Receiving, AcknowledgesAtOnceAndDeliversOnItsOwnThread) {
  Request(12);
  const auto acks = Out();
  ASSERT_EQ(acks.size(), 1U);
  const auto ack = std::dynamic_pointer_cast<JsonMsgAck>(acks[0]);
  ASSERT_TRUE(ack);
  EXPECT_EQ(ack->ack_msg_id, 12U);
  EXPECT_EQ(user.Received().size(), 0U);
  Settle();
  ASSERT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Received()[0].from, peer);
  EXPECT_EQ(user.Source(), &connect);
}

TEST_F(Receiving, DeliversWhatItCannotAcknowledge) {
  Sock().failSend = true;
  Request(12);
  EXPECT_NE(Log().TryTake(L"send failed"), L"");
  Settle();
  EXPECT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Errors().size(), 1U);
}

TEST_F(Receiving, AssembledMessageComesFromTheSenderOfItsHead) {
  JsonMsgGetInputs head;
  head.att = 3;
  Deliver(head);
  JsonMsgAtt segment;
  segment.seg_count = 1;
  segment.attachment = {1, 2, 3};
  segment.att = 3;
  DeliverFrom(Addr(L"10.9.9.9:9"), segment);
  Settle();
  ASSERT_EQ(user.Received().size(), 1U);
  EXPECT_EQ(user.Received()[0].from, peer);
  EXPECT_EQ(user.Received()[0].msg->msg_id, head.msg_id);
}

// One datagram of the assembly cases below.
struct In {
  enum Kind { Plain, Head, Segment, Again } kind;
  size_t size = 0;       // bytes with it
  size_t announced = 0;  // head: size of the attachment; segment: its "att", 0 means size
  uint32_t number = 0;   // segment
  uint32_t count = 0;
};

struct AssemblyCase {
  const char* name;
  std::vector<In> in;
  std::vector<size_t> delivered;  // attachment sizes of the messages delivered, in order
};

// What the damaged series of the end-to-end tests and of the fuzzer's corpus leave out.
const AssemblyCase kAssemblyCases[] = {
    {"head with some bytes", {{In::Head, 2, 5}, {In::Segment, 3, 0, 0, 1}}, {5}},
    {"segment that lacks bytes, without a head",
     {{In::Segment, 3, 9, 0, 1}, {In::Plain, 1}, {In::Segment, 3, 9, 0, 1}, {In::Plain, 2}},
     {1, 2}},
    {"segment that lacks bytes ends it",
     {{In::Head, 0, 20}, {In::Segment, 10, 12, 0, 2}, {In::Segment, 8, 0, 1, 2}},
     {}},
    {"repeats are filtered",
     {{In::Head, 0, 20},
      {In::Again},
      {In::Segment, 10, 0, 0, 2},
      {In::Again},
      {In::Segment, 10, 0, 1, 2},
      {In::Again}},
     {20}},
    {"other message ends it and is lost",
     {{In::Head, 0, 20},
      {In::Segment, 10, 0, 0, 2},
      {In::Plain, 1},
      {In::Segment, 10, 0, 1, 2},
      {In::Plain, 2}},
     {2}},
    {"other head ends it and is lost",
     {{In::Head, 0, 20}, {In::Head, 0, 10}, {In::Segment, 10, 0, 0, 1}, {In::Plain, 1}},
     {1}},
    {"last segment too short",
     {{In::Head, 0, 20}, {In::Segment, 10, 0, 0, 2}, {In::Segment, 9, 0, 1, 2}, {In::Plain, 1}},
     {1}},
    {"count too small", {{In::Head, 0, 20}, {In::Segment, 10, 0, 0, 1}, {In::Plain, 1}}, {1}},
    {"count of zero", {{In::Head, 0, 20}, {In::Segment, 20, 0, 0, 0}}, {20}},
    {"segments without bytes",
     {{In::Head, 0, 10},
      {In::Segment, 0, 0, 0, 3},
      {In::Segment, 10, 0, 1, 3},
      {In::Segment, 0, 0, 2, 3}},
     {10}},
};

TEST_F(Receiving, AssemblesOrDropsWholeSeries) {
  const DatagramBytes bytes = PatternBytes(5000);
  for (const AssemblyCase& test : kAssemblyCases) {
    SCOPED_TRACE(test.name);
    const size_t receivedBefore = user.Received().size();
    size_t offset = 0;  // in the attachment that is being sent
    DatagramBytes latest;
    const auto attach = [&](JsonMsg& msg, const In& in) {
      const auto begin = bytes.begin() + static_cast<ptrdiff_t>(offset);
      msg.attachment.assign(begin, begin + static_cast<ptrdiff_t>(in.size));
      msg.att = in.announced ? in.announced : in.size;
      offset += in.size;
      latest = ToDatagram(msg);
    };
    for (const In& in : test.in) {
      if (in.kind == In::Segment) {
        JsonMsgAtt segment;
        segment.leader_id = 4711;  // nobody compares it
        segment.seg_number = in.number;
        segment.seg_count = in.count;
        attach(segment, in);
      } else if (in.kind != In::Again) {
        JsonMsgGetInputs msg;
        offset = 0;
        attach(msg, in);
      }
      EXPECT_TRUE(Sock().Deliver(latest, peer));
    }
    Settle();
    EXPECT_EQ(Out().size(), test.in.size()) << "each is acknowledged, whatever becomes of it";
    std::vector<size_t> delivered;
    for (size_t i = receivedBefore; i < user.Received().size(); ++i) {
      const ReceivedMsg received = user.Received()[i];
      const DatagramBytes& got = received.msg->attachment;
      EXPECT_EQ(received.msg->att, got.size()) << "an incomplete message came up";
      EXPECT_TRUE(std::equal(got.begin(), got.end(), bytes.begin()));
      EXPECT_FALSE(std::dynamic_pointer_cast<JsonMsgAtt>(received.msg));
      delivered.push_back(got.size());
    }
    EXPECT_EQ(delivered, test.delivered);
  }
  EXPECT_EQ(user.Errors().size(), 0U);
}

}  // namespace
