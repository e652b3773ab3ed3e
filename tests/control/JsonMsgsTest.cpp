// Every message of the protocol, field by field; the envelope has JsonMsgTest.cpp.
#include <gtest/gtest.h>

#include <memory>
#include <typeinfo>

#include "control/JsonMsgs.h"
#include "support/CapturedLog.h"
#include "support/MessageList.h"

using namespace Network;

namespace {

std::unique_ptr<JsonMsg> Decode(const std::string& text) {
  Packet packet(text.size() + 1);
  packet.Resize(text.size() + 1);
  std::memcpy(packet.Data(), text.c_str(), text.size() + 1);
  return std::unique_ptr<JsonMsg>(JsonMsg::FromPacket(packet));
}

// The message of `text`, whose class must be Msg; the body is put behind the two required keys.
template <typename Msg>
std::unique_ptr<Msg> DecodeAs(const std::string& name, const std::string& body = "") {
  std::unique_ptr<JsonMsg> msg = Decode("{\"msg\":\"" + name + "\",\"msg_id\":9" + body + "}");
  auto* typed = dynamic_cast<Msg*>(msg.get());
  if (!typed) return nullptr;
  msg.release();
  return std::unique_ptr<Msg>(typed);
}

std::string TextOf(const JsonMsg& msg) {
  const std::wstring text = msg.ToString();
  return std::string(text.begin(), text.end());
}

template <typename Msg>
bool Is(const JsonMsg& msg) {
  return typeid(msg) == typeid(Msg);
}

NetAddr Addr(const wchar_t* text) {
  NetAddr addr;
  addr.SetFromText(text);
  return addr;
}

}  // namespace

// What is read is what is written, key by key, for all types.
TEST(JsonMsgs, EachTypeGoesThroughItsTextUnchanged) {
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
    const std::unique_ptr<JsonMsg> msg = Decode(text);
    ASSERT_NE(msg, nullptr) << text;
    EXPECT_TRUE(is(*msg)) << text;
    EXPECT_EQ(TextOf(*msg), text);
  }
}

// Two fields that land in each other's key would go through unchanged. The other types have their
// fields named by the end-to-end tests.
TEST(JsonMsgs, FieldsBearTheNamesOfTheirKeys) {
  const auto att =
      DecodeAs<JsonMsgAtt>("attach", ",\"leader_id\":1,\"seg_count\":2,\"seg_number\":3");
  ASSERT_NE(att, nullptr);
  EXPECT_EQ(att->leader_id, 1u);
  EXPECT_EQ(att->seg_count, 2u);
  EXPECT_EQ(att->seg_number, 3u);

  const auto state = DecodeAs<JsonMsgState>("state", ",\"device_freq\":1,\"input_freq\":2");
  ASSERT_NE(state, nullptr);
  EXPECT_EQ(state->device_freq, 1u);
  EXPECT_EQ(state->input_freq, 2u);

  JsonMsgDevInfo info;
  info.msg_id = 1;
  uint32_t number = 10;
  for (uint32_t* field : {&info.hardware, &info.firmware, &info.software, &info.audio_protocol,
                          &info.control_protocol, &info.rtp_port, &info.inputs, &info.outputs}) {
    *field = ++number;
  }
  EXPECT_EQ(TextOf(info),
            "{\"audio_protocol\":14,\"control_protocol\":15,\"firmware\":12,\"hardware\":11,"
            "\"inputs\":17,\"msg\":\"dev_info\",\"msg_id\":1,\"outputs\":18,\"rtp_port\":16,"
            "\"software\":13,\"unit_id\":\"\",\"unit_type\":\"\"}");
}

// Each required key in turn is left out, and then holds what its field can't take.
TEST(JsonMsgs, ARequiredKeyMustBeThereAndOfItsType) {
  const std::vector<MessageField> fields = MessageFields();
  const auto decode = [&](const std::string& name, const std::string& key, const char* value) {
    std::string text = "{\"msg\":\"" + name + "\",\"msg_id\":1";
    for (const MessageField& field : fields) {
      if (field.message != name || !field.required) continue;
      const char* good = field.type == "text" ? "\"a\"" : "1";
      const char* chosen = field.key == key ? value : good;
      if (chosen) text += ",\"" + field.key + "\":" + chosen;
    }
    return Decode(text + "}");
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

TEST(JsonMsgs, ArraysMayLackButNotBeSomethingElse) {
  EXPECT_TRUE(DecodeAs<JsonMsgFmFreq>("fm_freq")->freq.empty());
  const auto rssiOnly = DecodeAs<JsonMsgFmQuality>("fm_quality", ",\"rssi\":[-7,2]");
  ASSERT_NE(rssiOnly, nullptr);
  EXPECT_EQ(rssiOnly->rssi, (std::vector<int32_t>{-7, 2}));
  EXPECT_TRUE(rssiOnly->snr.empty() && rssiOnly->multipath.empty() && rssiOnly->pilot.empty());

  for (const char* bad : {"5", "{}", "null", "\"\"", "[1.5]", "[\"1\"]", "[1,null]", "[[1]]",
                          "[2147483648]", "[-2147483649]"}) {
    const std::string value = std::string(":") + bad;
    EXPECT_EQ(DecodeAs<JsonMsgFmFreq>("fm_freq", ",\"freq\"" + value), nullptr) << bad;
    EXPECT_EQ(DecodeAs<JsonMsgFmQuality>("fm_quality", ",\"pilot\"" + value), nullptr) << bad;
  }
  for (const char* bad : {"5", "{}", "null", "\"off\""}) {
    EXPECT_EQ(DecodeAs<JsonMsgInputs>("inputs", std::string(",\"inputs\":") + bad), nullptr);
    EXPECT_EQ(DecodeAs<JsonMsgSetInputs>("set_inputs", std::string(",\"inputs\":") + bad), nullptr);
  }

  // An empty array writes no key; an array of one undefined address does.
  JsonMsgInputs inputs;
  inputs.msg_id = 1;
  EXPECT_EQ(TextOf(inputs), "{\"msg\":\"inputs\",\"msg_id\":1}");
  inputs.inputs.resize(1);
  EXPECT_EQ(TextOf(inputs), "{\"inputs\":[\"\"],\"msg\":\"inputs\",\"msg_id\":1}");
}

// Each element keeps its place, whatever stands in it: places are the numbers of the inputs.
TEST(JsonMsgs, InputsKeepTheirPlaces) {
  const struct {
    const char* element;
    bool set;
    const wchar_t* addr;  // null: undefined
  } table[] = {
      {"\"\"", false, nullptr},
      {"\"off\"", true, nullptr},
      {"\"10.0.0.1:5004\"", true, L"10.0.0.1:5004"},
      {"7", false, nullptr},
      {"[\"10.0.0.1\"]", false, nullptr},
      {"\"10.0.0.1\"", true, L"10.0.0.1"},
      {"\"Off\"", true, nullptr},
      {"\"\\u0000\"", true, nullptr},
      {"\"10.0.0.256\"", true, nullptr},
      {"\"255.255.255.255:1\"", true, nullptr},
      {"\"0.0.0.0\"", true, L"0.0.0.0"},
  };
  std::string body;
  for (const auto& row : table)
    body += (body.empty() ? ",\"inputs\":[" : ",") + std::string(row.element);
  body += "]";

  const auto set = DecodeAs<JsonMsgSetInputs>("set_inputs", body);
  const auto inputs = DecodeAs<JsonMsgInputs>("inputs", body);
  ASSERT_TRUE(set && inputs);
  ASSERT_EQ(set->inputs.size(), std::size(table));
  ASSERT_EQ(inputs->inputs.size(), std::size(table));
  for (size_t i = 0; i < std::size(table); ++i) {
    SCOPED_TRACE(table[i].element);
    EXPECT_EQ(set->inputs[i].set, table[i].set);
    EXPECT_EQ(set->inputs[i].addr.IsDefined(), table[i].addr != nullptr);
    EXPECT_EQ(inputs->inputs[i].IsDefined(), table[i].addr != nullptr);
    if (!table[i].addr) continue;
    EXPECT_EQ(set->inputs[i].addr, Addr(table[i].addr));
    EXPECT_EQ(inputs->inputs[i], Addr(table[i].addr));
  }
}
