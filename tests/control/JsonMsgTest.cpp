// Every message of the protocol, its envelope and its fields, as bytes and back. What any bytes and
// any fields do has the fuzz target FuzzJsonMsg.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <typeinfo>

#include "control/JsonMsgs.h"
#include "support/CapturedLog.h"
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

// Why `msg` doesn't go into `packet`.
std::wstring FailureOf(const JsonMsg& msg, Packet& packet) {
  const ErrInfo err = msg.ToPacket(packet);
  Log().Allow(err.ToString());  // reported when `err` dies
  return err.ToString();
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

// Two fields that land in each other's key would go through unchanged.
TEST(JsonMsg, FieldsBearTheNamesOfTheirKeys) {
  const auto att = DecodeAs<JsonMsgAtt>(",\"leader_id\":1,\"seg_count\":2,\"seg_number\":3");
  ASSERT_TRUE(att);
  EXPECT_TRUE(att->leader_id == 1 && att->seg_count == 2 && att->seg_number == 3);
  const auto state = DecodeAs<JsonMsgState>(",\"device_freq\":1,\"input_freq\":2");
  ASSERT_TRUE(state);
  EXPECT_TRUE(state->device_freq == 1 && state->input_freq == 2);
  const auto fm =
      DecodeAs<JsonMsgFmQuality>(",\"rssi\":[1,-1],\"snr\":[2],\"multipath\":[3],\"pilot\":[4]");
  ASSERT_TRUE(fm);
  EXPECT_EQ(fm->rssi, (std::vector<int32_t>{1, -1}));
  EXPECT_TRUE(fm->snr[0] == 2 && fm->multipath[0] == 3 && fm->pilot[0] == 4);
  const auto error = DecodeAs<JsonMsgError>(",\"code\":1,\"txt\":\"t\",\"err_msg_id\":2");
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->code == 1 && error->txt == L"t" && error->err_msg_id == 2);

  JsonMsgDevInfo info;
  info.msg_id = 1;
  info.unit_id = L"i";
  info.unit_type = L"t";
  uint32_t number = 10;
  for (uint32_t* field : {&info.hardware, &info.firmware, &info.software, &info.audio_protocol,
                          &info.control_protocol, &info.rtp_port, &info.inputs, &info.outputs}) {
    *field = ++number;
  }
  EXPECT_EQ(info.ToString(),
            L"{\"audio_protocol\":14,\"control_protocol\":15,\"firmware\":12,\"hardware\":11,"
            L"\"inputs\":17,\"msg\":\"dev_info\",\"msg_id\":1,\"outputs\":18,\"rtp_port\":16,"
            L"\"software\":13,\"unit_id\":\"i\",\"unit_type\":\"t\"}");
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
  for (const char* bad : {"5", "{}", "null", "\"\"", "[1.5]", "[\"1\"]", "[1,null]", "[[1]]",
                          "[2147483648]", "[-2147483649]"}) {
    EXPECT_EQ(DecodeAs<JsonMsgFmFreq>(std::string(",\"freq\":") + bad), nullptr) << bad;
    EXPECT_EQ(DecodeAs<JsonMsgFmQuality>(std::string(",\"pilot\":") + bad), nullptr) << bad;
    if (*bad == '[') continue;
    EXPECT_EQ(DecodeAs<JsonMsgInputs>(std::string(",\"inputs\":") + bad), nullptr) << bad;
    EXPECT_EQ(DecodeAs<JsonMsgSetInputs>(std::string(",\"inputs\":") + bad), nullptr) << bad;
  }
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

  const auto set = DecodeAs<JsonMsgSetInputs>(body);
  const auto inputs = DecodeAs<JsonMsgInputs>(body);
  ASSERT_TRUE(set && inputs);
  ASSERT_EQ(set->inputs.size(), std::size(table));
  ASSERT_EQ(inputs->inputs.size(), std::size(table));
  for (size_t i = 0; i < std::size(table); ++i) {
    SCOPED_TRACE(table[i].element);
    EXPECT_EQ(set->inputs[i].set, table[i].set);
    EXPECT_EQ(set->inputs[i].addr.IsDefined(), table[i].addr != nullptr);
    EXPECT_EQ(inputs->inputs[i].IsDefined(), table[i].addr != nullptr);
    if (!table[i].addr) continue;
    EXPECT_EQ(set->inputs[i].addr.ToText(), table[i].addr);
    EXPECT_EQ(inputs->inputs[i].ToText(), table[i].addr);
  }
}

// What the network sends may be anything; what isn't a good message is none.
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

// A reader depends on neither the order of the keys nor white space nor what stands after it.
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

TEST(JsonMsg, AttachmentHasTheAnnouncedSizeAndKnowsWhatCame) {
  using Bytes = std::vector<uint8_t>;
  const struct {
    const char* announced;
    std::string came;
    uint64_t att;
    Bytes attachment;
  } table[] = {
      {",\"att\":5", "\x01\x02", 2, {1, 2, 0, 0, 0}},
      {",\"att\":5", "", 0, Bytes(5)},
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
  JsonMsgGetState out;
  out.msg_id = 7;
  out.attachment = {0, 0xFF, 0};
  out.att = 3;
  EXPECT_EQ(Render(out),
            std::string("{\"att\":3,\"msg\":\"get_state\",\"msg_id\":7}\0\0\xFF\0", 42));
}

// The datagram is a byte shorter than the packet at most. What doesn't go in leaves the packet
// alone.
TEST(JsonMsg, WhatCannotBeWrittenIsAFailure) {
  Packet packet(1432);
  EXPECT_TRUE(JsonMsgDevInfo().ToPacket(packet).IsOk());
  const size_t before = packet.Size();
  JsonMsgGetState large;
  large.attachment.resize(1432);
  EXPECT_NE(FailureOf(large, packet)
                .find(L" ErrStr=Can not deserialize msg. Packet too small "
                      L"Method=Network::JsonMsg::ToPacket File=src\\JsonMsg "),
            std::wstring::npos);

  // Text that JSON can hold and UTF-8 can't: it comes from the network and goes to the log.
  const JsonMsgError half(1, L"\xd800", 1);
  EXPECT_NE(
      FailureOf(half, packet).find(L" ErrStr=bad conversion Method=Network::JsonMsg::ToPacket "),
      std::wstring::npos);
  EXPECT_NE(half.ToString().find(L"\"txt\":\"\xd800\""), std::wstring::npos);
  EXPECT_NE(Render(JsonMsgError(1, L"\xd83d\xde00", 1)).find("\"\xF0\x9F\x98\x80\""),
            std::string::npos)
      << "a whole pair is one sequence of four bytes";

  struct Hole : JsonMsg {
    Hole() : JsonMsg(L"hole") {}
    ErrInfo Serialize(JSON::Value& out) override {
      out.ItemForWrite(L"hole").AtForWrite(1).SetInt(1);
      return JsonMsg::Serialize(out);
    }
  };
  EXPECT_NE(FailureOf(Hole(), packet).find(L"JSON value undefined"), std::wstring::npos);
  EXPECT_EQ(packet.Size(), before);
  Log().Allow(
      L"JSON value undefined");  // ToString hands it on as text, so the log has it once more
  EXPECT_EQ(Hole().ToString().find(L"ERROR: ErrStr=JSON value undefined: cannot generate text "
                                   L"representation Method=Network::JsonMsg::ToString "),
            0u);
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
}
