#include <gtest/gtest.h>

#include <memory>

#include "JsonMsgs.h"
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

}  // namespace

TEST(JsonMsg, DatagramsAreExactToTheByte) {
  JsonMsgGetState getState;
  getState.msg_id = 7;
  EXPECT_EQ(Render(getState), std::string("{\"msg\":\"get_state\",\"msg_id\":7}\0", 31));

  JsonMsgAck ack(41);
  ack.msg_id = 42;
  EXPECT_EQ(Render(ack), std::string("{\"ack_msg_id\":41,\"msg\":\"ack\",\"msg_id\":42}") + '\0');

  JsonMsgSetInputs set;
  set.msg_id = 1;
  set.inputs.resize(3);
  set.inputs[1].set = true;
  set.inputs[2].set = true;
  set.inputs[2].addr.SetFromText(L"10.0.0.1:5004");
  EXPECT_EQ(Render(set),
            std::string("{\"inputs\":[\"\",\"off\",\"10.0.0.1:5004\"],\"msg\":\"set_inputs\","
                        "\"msg_id\":1}") +
                '\0');
}

// What the network sends may be anything; what isn't a good message is none.
TEST(JsonMsg, BadDatagramsAreNoMessages) {
  const std::string table[] = {
      "",
      std::string("\0", 1),
      std::string("\0{}", 3),
      "{\"msg\":\"get_state\",\"msg_id\":1}",  // no end
      std::string("{\"msg\":\"get_state\"}") + '\0',
      std::string("{\"msg\":\"\",\"msg_id\":1}") + '\0',
      std::string("{\"msg\":\"no_such\",\"msg_id\":1}") + '\0',
      std::string("{\"msg\":5,\"msg_id\":1}") + '\0',
      std::string("{\"msg\":\"get_state\",\"msg_id\":4294967296}") + '\0',
      std::string("{\"msg\":\"get_state\",\"msg_id\":-1}") + '\0',
      std::string("{\"msg\":\"get_state\",\"msg_id\":1,\"att\":1048577}") + '\0',
      std::string("{\"msg\":\"get_state\",\"msg_id\":1,\"att\":4294967295}") + '\0',
      std::string("{\"msg\":\"fm_freq\",\"msg_id\":1,\"freq\":[1.5]}") + '\0',
      std::string("{\"msg\":\"fm_freq\",\"msg_id\":1,\"freq\":5}") + '\0',
      std::string("{\"msg\":\"set_inputs\",\"msg_id\":1,\"inputs\":5}") + '\0',
      std::string("{\"msg\":\"error\",\"msg_id\":1,\"code\":1,\"txt\":\"x\"}") + '\0',
      std::string("[1]") + '\0',
      std::string("\xC3\x28") + '\0',
  };
  for (const std::string& bytes : table)
    EXPECT_EQ(Decode(bytes), nullptr) << bytes;
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

  msg.attachment.push_back(0xAB);
  Packet packet(1432);
  EXPECT_NE(msg.ToPacket(packet).ToString().find(L"Can not deserialize msg. Packet too small"),
            std::wstring::npos);
  EXPECT_EQ(packet.Size(), 0u);
  Log().TryTake(L"Packet too small");
}
