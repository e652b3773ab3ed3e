// Every message of the protocol, its envelope and its fields, as bytes and back. What any bytes and
// any fields do, the fuzz target FuzzJsonMsg looks after.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <typeinfo>

#include "control/JsonMsgs.h"
#include "support/MessageList.h"

using namespace Network;

namespace {

std::string Render(const JsonMsg& msg) {
  Packet packet(1432);
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

// The message of that name, whose class must be Msg; the body stands after the two required keys.
template <typename Msg>
std::unique_ptr<Msg> DecodeAs(const std::string& body) {
  const std::string name = WideToUtf8(Msg::kName);
  std::unique_ptr<JsonMsg> msg = DecodeText("{\"msg\":\"" + name + "\",\"msg_id\":9" + body + "}");
  auto* typed = dynamic_cast<Msg*>(msg.get());
  if (typed) static_cast<void>(msg.release());
  return std::unique_ptr<Msg>(typed);
}

template <typename Msg>
bool Is(const JsonMsg& msg) {
  return typeid(msg) == typeid(Msg);
}

}  // namespace

// What is read is what is written, key by key, for all types.
TEST(JsonMsg, EachTypeGoesThroughItsTextUnchanged) {
  const struct {
    bool (*is)(const JsonMsg&);
    const char* text;
  } table[] = {
      {&Is<JsonMsgAck>, "{\"ack_msg_id\":4294967295,\"msg\":\"ack\",\"msg_id\":1}"},
      {&Is<JsonMsgAtt>,
       "{\"leader_id\":5,\"msg\":\"attach\",\"msg_id\":2,\"seg_count\":3,\"seg_number\":1}"},
      {&Is<JsonMsgDevFind>, "{\"msg\":\"dev_find\",\"msg_id\":0}"},
      {&Is<JsonMsgGetDevInfo>, "{\"msg\":\"get_dev_info\",\"msg_id\":4}"},
      {&Is<JsonMsgDevInfo>,
       "{\"audio_protocol\":4,\"control_protocol\":5,\"firmware\":2,\"hardware\":1,\"inputs\":64,"
       "\"msg\":\"dev_info\",\"msg_id\":5,\"outputs\":32,\"rtp_port\":5002,\"software\":3,"
       "\"unit_id\":\"QZ\\/1\",\"unit_type\":\"\"}"},
      {&Is<JsonMsgGetState>, "{\"msg\":\"get_state\",\"msg_id\":4294967295}"},
      {&Is<JsonMsgSetState>, "{\"device_freq\":48000,\"msg\":\"set_state\",\"msg_id\":7}"},
      {&Is<JsonMsgState>,
       "{\"device_freq\":48000,\"input_freq\":44100,\"msg\":\"state\",\"msg_id\":8}"},
      {&Is<JsonMsgGetInputs>, "{\"msg\":\"get_inputs\",\"msg_id\":9}"},
      {&Is<JsonMsgSetInputs>,
       "{\"inputs\":[\"\",\"off\",\"10.0.0.1:5004\"],\"msg\":\"set_inputs\",\"msg_id\":10}"},
      {&Is<JsonMsgInputs>,
       "{\"inputs\":[\"\",\"10.0.0.1:5004\",\"10.0.0.2\"],\"msg\":\"inputs\",\"msg_id\":11}"},
      {&Is<JsonMsgGetFmFreq>, "{\"msg\":\"get_fm_freq\",\"msg_id\":12}"},
      {&Is<JsonMsgSetFmFreq>, "{\"freq\":[0,87500,-1],\"msg\":\"set_fm_freq\",\"msg_id\":13}"},
      {&Is<JsonMsgFmFreq>, "{\"freq\":[2147483647,-2147483648],\"msg\":\"fm_freq\",\"msg_id\":14}"},
      {&Is<JsonMsgGetFmQuality>, "{\"msg\":\"get_fm_quality\",\"msg_id\":15}"},
      {&Is<JsonMsgFmQuality>,
       "{\"msg\":\"fm_quality\",\"msg_id\":16,\"multipath\":[3],\"pilot\":[4],\"rssi\":[-1],"
       "\"snr\":[2]}"},
      {&Is<JsonMsgError>,
       "{\"code\":3,\"err_msg_id\":6,\"msg\":\"error\",\"msg_id\":17,\"txt\":\"no\"}"},
  };
  for (const auto& [is, text] : table) {
    const std::unique_ptr<JsonMsg> msg = DecodeText(text);
    ASSERT_NE(msg, nullptr) << text;
    EXPECT_TRUE(is(*msg)) << text;
    EXPECT_EQ(Render(*msg), std::string(text) + '\0');
  }
}

// Each required key in turn is left out, and then holds what its field can't take.
TEST(JsonMsg, ARequiredKeyMustBeThereAndOfItsType) {
  const std::vector<MessageField> fields = MessageFields();
  const auto decode = [&](const std::string& name, const std::string& key, const char* value) {
    std::string text = "{\"msg\":\"" + name + "\",\"msg_id\":1";
    for (const MessageField& field : fields) {
      if (field.message != name || !field.required) continue;
      const char* good = field.type == "text" ? "\"a\"" : "1";
      const char* chosen = field.key == key ? value : good;
      if (chosen) text += ",\"" + field.key + "\":" + chosen;
    }
    return DecodeText(text + "}");
  };
  size_t tried = 0;
  for (const auto& [name, key, type, required] : fields) {
    EXPECT_NE(decode(name, "none", nullptr), nullptr) << name;
    if (!required) continue;
    ++tried;
    EXPECT_EQ(decode(name, key, nullptr), nullptr) << name << " without " << key;
    const char* otherKind = type == "text" ? "1" : "\"1\"";
    for (const char* bad : {"null", "true", "1.0", "-1", "4294967296", "[]", "{}", otherKind})
      EXPECT_EQ(decode(name, key, bad), nullptr) << name << " " << key << " " << bad;
  }
  EXPECT_EQ(tried, 20u);
}

TEST(JsonMsg, ArraysMayLackButNotBeSomethingElse) {
  for (const char* bad : {"5", "{}", "null", "\"\""}) {
    EXPECT_EQ(DecodeAs<JsonMsgInputs>(std::string(",\"inputs\":") + bad), nullptr) << bad;
    EXPECT_EQ(DecodeAs<JsonMsgSetInputs>(std::string(",\"inputs\":") + bad), nullptr) << bad;
  }
  for (const char* bad :
       {"5", "null", "[1.5]", "[\"1\"]", "[1,null]", "[[1]]", "[2147483648]", "[-2147483649]"})
    EXPECT_EQ(DecodeAs<JsonMsgFmFreq>(std::string(",\"freq\":") + bad), nullptr) << bad;
  // An empty array writes no key; an array of one undefined address does.
  JsonMsgInputs inputs;
  inputs.msg_id = 1;
  EXPECT_EQ(inputs.ToString(), L"{\"msg\":\"inputs\",\"msg_id\":1}");
  inputs.inputs.resize(1);
  EXPECT_EQ(inputs.ToString(), L"{\"inputs\":[\"\"],\"msg\":\"inputs\",\"msg_id\":1}");
}

// Each element keeps its place, whatever stands in it: places are the numbers of the inputs.
TEST(JsonMsg, InputsKeepTheirPlaces) {
  const struct {
    const char* element;
    bool set;
    std::wstring addr;  // empty: undefined
  } table[] = {
      {"\"\"", false, L""},
      {"\"off\"", true, L""},
      {"\"10.0.0.1:5004\"", true, L"10.0.0.1:5004"},
      {"7", false, L""},
      {"[\"10.0.0.1\"]", false, L""},
      {"\"Off\"", true, L""},
      {"\"\\u0000\"", true, L""},
      {"\"255.255.255.255:1\"", true, L""},
      {"\"0.0.0.0\"", true, L"0.0.0.0"},
  };
  std::string body;
  for (const auto& row : table)
    body += (body.empty() ? ",\"inputs\":[" : ",") + std::string(row.element);
  const auto set = DecodeAs<JsonMsgSetInputs>(body + "]");
  const auto inputs = DecodeAs<JsonMsgInputs>(body + "]");
  ASSERT_TRUE(set && inputs);
  ASSERT_EQ(set->inputs.size(), std::size(table));
  ASSERT_EQ(inputs->inputs.size(), std::size(table));
  const auto text = [](const NetAddr& addr) { return addr.IsDefined() ? addr.ToText() : L""; };
  for (size_t i = 0; i < std::size(table); ++i) {
    SCOPED_TRACE(table[i].element);
    EXPECT_EQ(set->inputs[i].set, table[i].set);
    EXPECT_EQ(text(set->inputs[i].addr), table[i].addr);
    EXPECT_EQ(text(inputs->inputs[i]), table[i].addr);
  }
}

// What the network sends may be anything; what isn't a good message is none.
TEST(JsonMsg, BadDatagramsAreNoMessages) {
  const std::string good = "{\"msg\":\"get_state\",\"msg_id\":1";
  EXPECT_NE(DecodeText(good + "}"), nullptr);
  EXPECT_NE(DecodeText(good + ",\"x\":[{}],\"att\":0}}garbage["), nullptr);
  EXPECT_EQ(Decode(""), nullptr);
  EXPECT_EQ(Decode(good + '}'), nullptr) << "no end";
  EXPECT_EQ(Decode(good + '\0' + '}'), nullptr);
  for (const char* tail : {",\"att\":1048577}", ",\"att\":4294967295}", ",\"att\":null}",
                           ",\"att\":-1}", "} \xC3", ",\"x\":\"\xED\xA0\x80\"}"})
    EXPECT_EQ(DecodeText(good + tail), nullptr) << tail;
  for (const char* text :
       {"\xEF\xBB\xBF{\"msg\":\"get_state\",\"msg_id\":1}", "{\"msg\":\"get_state\"}",
        "{\"msg\":\"Get_state\",\"msg_id\":1}",
        "{\"msg\":\"ack\\u0000\",\"msg_id\":1,\"ack_msg_id\":1}",
        "{\"msg\":\"get_state\",\"msg_id\":4294967296}", "{\"msg\":\"get_state\",\"msg_id\":-1}",
        "{\"msg\":\"get_state\",\"msg_id\":1.0}"})
    EXPECT_EQ(DecodeText(text), nullptr) << text;
}

TEST(JsonMsg, AttachmentHasTheAnnouncedSizeAndKnowsWhatCame) {
  using Bytes = std::vector<uint8_t>;
  const struct {
    const char* announced;
    std::string came;
    uint64_t att;
    Bytes attachment;
  } table[] = {
      {",\"att\":5", "\x01\x02", 2, {1, 2, 0, 0, 0}},
      {",\"att\":5", {"\x01\0\x03\x04\x05\x06", 6}, 5, {1, 0, 3, 4, 5}},
      {",\"att\":1048576", "", 0, Bytes(kMaxAttachment)},
      {"", "ab", 0, {}},
  };
  for (const auto& [announced, came, count, attachment] : table) {
    const auto msg =
        Decode(std::string("{\"msg\":\"get_state\",\"msg_id\":7") + announced + "}" + '\0' + came);
    ASSERT_NE(msg, nullptr) << announced;
    EXPECT_EQ(msg->att, count);
    EXPECT_EQ(msg->announced, attachment.size());
    EXPECT_EQ(msg->attachment, attachment);
  }
}

// Every object takes a number, a received one too, which then bears its sender's; none is made for
// what has no known name.
TEST(JsonMsg, NumbersRiseByOneForEachObject) {
  const uint32_t first = JsonMsgGetState().msg_id;
  EXPECT_NE(DecodeText("{\"msg\":\"get_state\",\"msg_id\":500000}"), nullptr);
  EXPECT_EQ(DecodeText("{\"msg\":\"no_such\",\"msg_id\":1}"), nullptr);
  EXPECT_EQ(JsonMsgError().msg_id, first + 2);
}
