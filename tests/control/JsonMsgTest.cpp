#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "control/JsonMsgs.h"
#include "support/CapturedLog.h"

using namespace Network;

namespace {

std::string Render(const JsonMsg& msg, size_t capacity = 1432) {
  Packet packet(capacity);
  const ErrInfo err = msg.ToPacket(packet);
  EXPECT_TRUE(err.IsOk());
  return std::string(packet.Data(), packet.Data() + packet.Size());
}

std::unique_ptr<JsonMsg> Decode(const std::string& bytes) {
  Packet packet(bytes.size() + 1);
  packet.Resize(bytes.size());
  std::copy(bytes.begin(), bytes.end(), packet.Data());
  return std::unique_ptr<JsonMsg>(JsonMsg::FromPacket(packet));
}

// With the 0x00 that ends the text.
std::unique_ptr<JsonMsg> DecodeText(const std::string& text) {
  return Decode(text + '\0');
}

// Why `msg` doesn't go into `packet`.
std::wstring FailureOf(const JsonMsg& msg, Packet& packet) {
  const ErrInfo err = msg.ToPacket(packet);
  Log().Allow(err.ToString());  // reported when `err` dies
  return err.ToString();
}

}  // namespace

TEST(JsonMsg, DatagramsAreExactToTheByte) {
  JsonMsgGetState getState;
  getState.msg_id = 7;
  EXPECT_EQ(Render(getState), std::string("{\"msg\":\"get_state\",\"msg_id\":7}\0", 31));
  getState.attachment = {0, 0xFF, 0};
  getState.att = 3;
  EXPECT_EQ(Render(getState),
            std::string("{\"att\":3,\"msg\":\"get_state\",\"msg_id\":7}\0\0\xFF\0", 42));

  JsonMsgSetInputs set;
  set.msg_id = 1;
  set.inputs.resize(3);
  set.inputs[0].addr.SetFromText(L"10.0.0.1");  // without the flag: not written
  set.inputs[1].set = true;
  set.inputs[2].set = true;
  set.inputs[2].addr.SetFromText(L"10.0.0.1:5004");
  EXPECT_EQ(Render(set),
            std::string("{\"inputs\":[\"\",\"off\",\"10.0.0.1:5004\"],\"msg\":\"set_inputs\","
                        "\"msg_id\":1}") +
                '\0');
}

// What the network sends may be anything; what isn't a good message is none. More of them are in
// the end-to-end tests and in the fuzzer's corpus.
TEST(JsonMsg, BadDatagramsAreNoMessages) {
  EXPECT_EQ(Decode(""), nullptr);
  EXPECT_EQ(Decode("{\"msg\":\"get_state\",\"msg_id\":1}"), nullptr) << "no end";
  const std::string good = "{\"msg\":\"get_state\",\"msg_id\":1";
  EXPECT_NE(DecodeText(good + "}"), nullptr);
  EXPECT_EQ(Decode(good + '\0' + '}'), nullptr);
  for (const char* tail : {",\"att\":1048577}", ",\"att\":4294967295}", ",\"att\":null}",
                           ",\"att\":-1}", "} \xC3", ",\"x\":\"\xED\xA0\x80\"}"})
    EXPECT_EQ(DecodeText(good + tail), nullptr) << tail;
  for (const char* text : {
           "\xEF\xBB\xBF{\"msg\":\"get_state\",\"msg_id\":1}",
           "{\"msg\":\"get_state\"}",
           "{\"msg\":\"Get_state\",\"msg_id\":1}",
           "{\"msg\":\"ack\\u0000\",\"msg_id\":1,\"ack_msg_id\":1}",
           "{\"msg\":\"get_state\",\"msg_id\":4294967296}",
           "{\"msg\":\"get_state\",\"msg_id\":-1}",
           "{\"msg\":\"get_state\",\"msg_id\":1.0}",
           "{\"msg\":\"error\",\"msg_id\":1,\"code\":1,\"txt\":\"x\"}",
       })
    EXPECT_EQ(DecodeText(text), nullptr) << text;
}

TEST(JsonMsg, AttachmentHasTheAnnouncedSizeAndKnowsWhatCame) {
  const std::string text = "{\"msg\":\"get_state\",\"msg_id\":1,\"att\":5}";
  auto part = Decode(text + std::string("\0\x01\x02", 3));
  ASSERT_NE(part, nullptr);
  EXPECT_EQ(part->att, 2u);
  EXPECT_EQ(part->attachment, (std::vector<uint8_t>{1, 2, 0, 0, 0}));

  auto none = DecodeText(text);
  ASSERT_NE(none, nullptr);
  EXPECT_EQ(none->att, 0u);
  EXPECT_EQ(none->attachment.size(), 5u);

  auto more = Decode(text + std::string("\0\x01\0\x03\x04\x05\x06", 7));
  ASSERT_NE(more, nullptr);
  EXPECT_EQ(more->att, 5u);
  EXPECT_EQ(more->attachment, (std::vector<uint8_t>{1, 0, 3, 4, 5}));

  auto largest = DecodeText("{\"msg\":\"get_state\",\"msg_id\":1,\"att\":1048576}");
  ASSERT_NE(largest, nullptr);
  EXPECT_EQ(largest->attachment.size(), kMaxAttachment);

  auto unannounced = Decode(std::string("{\"msg\":\"get_state\",\"msg_id\":1}\0ab", 33));
  ASSERT_NE(unannounced, nullptr);
  EXPECT_TRUE(unannounced->attachment.empty());
}

TEST(JsonMsg, ADatagramIsAtMostOneByteShorterThanThePacket) {
  JsonMsgGetState msg;
  msg.msg_id = 7;
  const size_t head = std::string("{\"att\":1400,\"msg\":\"get_state\",\"msg_id\":7}").size() + 1;
  msg.attachment.assign(1431 - head, 0xAB);
  msg.att = msg.attachment.size();
  EXPECT_EQ(Render(msg).size(), 1431u);

  // A failure leaves what a used packet holds; a shorter datagram leaves nothing of it.
  Packet packet(1432);
  EXPECT_TRUE(JsonMsgDevInfo().ToPacket(packet).IsOk());
  const size_t before = packet.Size();
  msg.attachment.push_back(0xAB);
  EXPECT_NE(FailureOf(msg, packet)
                .find(L" ErrStr=Can not deserialize msg. Packet too small "
                      L"Method=Network::JsonMsg::ToPacket File=src\\JsonMsg "),
            std::wstring::npos);
  EXPECT_EQ(packet.Size(), before);
  msg.attachment.clear();
  EXPECT_TRUE(msg.ToPacket(packet).IsOk());
  EXPECT_EQ(std::string(packet.Data(), packet.Data() + packet.Size()), Render(msg));
}

// A reader depends on neither the order of the keys nor white space nor what stands behind.
TEST(JsonMsg, TheTextMayBeWrittenInManyWays) {
  for (const char* text :
       {"{\"msg_id\":4294967295,\"msg\":\"get_state\"}",
        " {\"msg\" : \"get_state\" ,\n\"msg_id\":\t4294967295}",
        "{\"msg\":\"get_state\",\"msg_id\":4294967295}}garbage[",
        "{\"msg\":\"ack\",\"msg_id\":1,\"x\":[{}],\"msg\":\"get_state\",\"msg_id\":4294967295}",
        "{\"msg\":\"get_\\u0073tate\",\"msg_id\":4294967295,\"att\":0}"}) {
    const auto msg = DecodeText(text);
    ASSERT_NE(msg, nullptr) << text;
    EXPECT_NE(dynamic_cast<JsonMsgGetState*>(msg.get()), nullptr) << text;
    EXPECT_EQ(msg->msg_id, 4294967295u);
  }
}

// Text that JSON can hold and UTF-8 can't must come out as a failure, never as an exception: it
// comes from the network and goes to the log.
TEST(JsonMsg, TextThatCannotBeConvertedIsAFailure) {
  const auto msg = DecodeText(
      "{\"msg\":\"error\",\"msg_id\":1,\"code\":1,\"err_msg_id\":1,\"txt\":\"\\uD800\"}");
  ASSERT_NE(msg, nullptr);
  Packet packet(1432);
  EXPECT_NE(
      FailureOf(*msg, packet).find(L" ErrStr=bad conversion Method=Network::JsonMsg::ToPacket "),
      std::wstring::npos);
  EXPECT_EQ(packet.Size(), 0u);
  EXPECT_NE(msg->ToString().find(L"\"txt\":\"\xd800\""), std::wstring::npos);

  // A whole pair is one sequence of four bytes.
  JsonMsgError pair(1, L"\xd83d\xde00", 1);
  EXPECT_NE(Render(pair).find("\"txt\":\"\xF0\x9F\x98\x80\""), std::string::npos);
}

// What a message can't write, it tells: to the sender as a failure, to the log as a text.
TEST(JsonMsg, AMessageThatCannotBeWrittenSaysSo) {
  struct Hole : JsonMsg {
    Hole() : JsonMsg(L"hole") {}
    ErrInfo Serialize(JSON::Value& out) override {
      out.ItemForWrite(L"hole").AtForWrite(1).SetInt(1);
      return JsonMsg::Serialize(out);
    }
  };
  Packet packet(1432);
  EXPECT_NE(FailureOf(Hole(), packet).find(L"JSON value undefined"), std::wstring::npos);
  EXPECT_EQ(Hole().ToString().find(L"ERROR: ErrStr=JSON value undefined: cannot generate text "
                                   L"representation Method=Network::JsonMsg::ToString "),
            0u);
  EXPECT_EQ(packet.Size(), 0u);
  // ToString hands the failure on as text, so the log has it once more.
  Log().Allow(L"JSON value undefined");
}

// Every object takes a number, a received one too, which then bears its sender's.
TEST(JsonMsg, NumbersRiseByOneForEachObject) {
  const uint32_t first = JsonMsgGetState().msg_id;
  EXPECT_EQ(JsonMsgAck(1).msg_id, first + 1);
  const auto received = DecodeText("{\"msg\":\"get_state\",\"msg_id\":500000}");
  ASSERT_NE(received, nullptr);
  EXPECT_EQ(received->msg_id, 500000u);
  EXPECT_EQ(JsonMsgError().msg_id, first + 3);
  // No object is made for what has no known name.
  EXPECT_EQ(DecodeText("{\"msg\":\"no_such\",\"msg_id\":1}"), nullptr);
  EXPECT_EQ(JsonMsgError().msg_id, first + 4);

  // No number comes twice, on whatever threads the messages are built.
  std::vector<uint32_t> numbers[2];
  const auto take = [](std::vector<uint32_t>& mine) {
    for (int i = 0; i < 10'000; ++i)
      mine.push_back(JsonMsgAck().msg_id);
  };
  std::thread other(take, std::ref(numbers[0]));
  take(numbers[1]);
  other.join();
  std::vector<uint32_t> all = numbers[0];
  all.insert(all.end(), numbers[1].begin(), numbers[1].end());
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::unique(all.begin(), all.end()), all.end());
  EXPECT_EQ(all.back() - all.front(), 19'999u);
}
