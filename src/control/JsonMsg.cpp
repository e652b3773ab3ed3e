#include "control/JsonMsg.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>

#include "control/JsonMsgs.h"
#include "json/ParsingBuilder.h"
#include "platform/text.h"
#include "runtime/Format.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\JsonMsg";

// Every message object of the process takes a number, received ones included.
std::atomic<uint32_t> nextMsgId{1};

template <typename Msg>
std::unique_ptr<JsonMsg> Make() {
  return std::make_unique<Msg>();
}

struct Maker {
  const wchar_t* name;
  std::unique_ptr<JsonMsg> (*make)();
};

constexpr Maker kMakers[] = {
    {L"ack", &Make<JsonMsgAck>},
    {L"attach", &Make<JsonMsgAtt>},
    {L"dev_find", &Make<JsonMsgDevFind>},
    {L"get_dev_info", &Make<JsonMsgGetDevInfo>},
    {L"dev_info", &Make<JsonMsgDevInfo>},
    {L"get_state", &Make<JsonMsgGetState>},
    {L"set_state", &Make<JsonMsgSetState>},
    {L"state", &Make<JsonMsgState>},
    {L"get_inputs", &Make<JsonMsgGetInputs>},
    {L"set_inputs", &Make<JsonMsgSetInputs>},
    {L"inputs", &Make<JsonMsgInputs>},
    {L"get_fm_freq", &Make<JsonMsgGetFmFreq>},
    {L"set_fm_freq", &Make<JsonMsgSetFmFreq>},
    {L"fm_freq", &Make<JsonMsgFmFreq>},
    {L"get_fm_quality", &Make<JsonMsgGetFmQuality>},
    {L"fm_quality", &Make<JsonMsgFmQuality>},
    {L"error", &Make<JsonMsgError>},
};

std::unique_ptr<JsonMsg> MakeByName(const std::wstring& name) {
  for (const Maker& maker : kMakers) {
    if (name == maker.name) return maker.make();
  }
  return nullptr;
}

// Gives the message the attachment that it announces, filled as far as bytes have come.
bool TakeAttachment(JsonMsg& msg, const uint8_t* bytes, size_t size) {
  if (msg.att > kMaxAttachment) return false;
  const auto announced = static_cast<size_t>(msg.att);
  msg.attachment.resize(announced);
  const size_t here = std::min(announced, size);
  std::copy(bytes, bytes + here, msg.attachment.begin());
  msg.att = here;
  return true;
}

// May throw; null for anything that isn't a good message.
std::unique_ptr<JsonMsg> Decode(const Packet& packet) {
  const uint8_t* bytes = packet.Data();
  const size_t size = packet.Size();
  if (size < 2) return nullptr;
  const void* end = std::memchr(bytes, 0, size);
  if (!end) return nullptr;
  const auto length = static_cast<size_t>(static_cast<const uint8_t*>(end) - bytes);
  if (length == 0) return nullptr;
  const std::wstring text = Utf8ToWide(std::string(bytes, bytes + length));

  JSON::Value root;
  JSON::ParsingBuilder builder(&root);
  JSON::Parser parser(&builder);
  if (!JSON::ParseText(parser, text)) return nullptr;
  std::unique_ptr<JsonMsg> msg = MakeByName(root.Item(L"msg").AsWString());
  if (!msg || !msg->Deserialize(root).IsOk()) return nullptr;

  const size_t body = length + 1;
  if (!TakeAttachment(*msg, bytes + body, size - body)) return nullptr;
  return msg;
}

}  // namespace

JsonMsg::JsonMsg(const std::wstring& name) : msg(name), msg_id(nextMsgId.fetch_add(1)) {}

void JsonMsg::StartNumbersAt(uint32_t number) {
  nextMsgId = number;
}

ErrInfo JsonMsg::Serialize(JSON::Value& out) const {
  out.ItemForWrite(L"msg").SetString(msg);
  out.ItemForWrite(L"msg_id").SetUInt(msg_id);
  if (att != 0) out.ItemForWrite(L"att").SetInt64(static_cast<int64_t>(att));
  return ERR_HERE("Network::JsonMsg::Serialize");
}

ErrInfo JsonMsg::Deserialize(const JSON::Value& in) {
  msg_id = in.Item(L"msg_id").AsUInt();
  const JSON::Value* announced = in.Find(L"att");
  att = announced ? announced->AsUInt() : 0;
  return ERR_HERE("Network::JsonMsg::Deserialize");
}

ErrInfo JsonMsg::ToPacket(Packet& packet) const {
  ErrInfo err = ERR_HERE("Network::JsonMsg::ToPacket");
  try {
    JSON::Value root;
    ErrInfo serialized = Serialize(root);
    if (!serialized.IsOk()) return serialized;
    const std::string text = WideToUtf8(root.ToWString());
    if (text.empty()) return err.SetText(L"Can not deserialize msg");
    const size_t head = text.size() + 1;
    if (packet.Capacity() <= head + attachment.size()) {
      return err.SetText(L"Can not deserialize msg. Packet too small");
    }
    packet.Resize(head + attachment.size());
    std::memcpy(packet.Data(), text.c_str(), head);
    std::copy(attachment.begin(), attachment.end(), packet.Data() + head);
  } catch (const std::exception& error) {
    return err.SetText(error.what());
  }
  return err;
}

ErrInfo JsonMsg::ToString(std::wstring& out) const {
  ErrInfo err = ERR_HERE("Network::JsonMsg::ToString");
  try {
    JSON::Value root;
    ErrInfo serialized = Serialize(root);
    if (!serialized.IsOk()) return serialized;
    out = root.ToWString();
  } catch (const std::exception& error) {
    return err.SetText(error.what());
  }
  return err;
}

std::wstring JsonMsg::ToString() const {
  std::wstring text;
  const ErrInfo err = ToString(text);
  if (err.IsOk()) return text;
  return Format(L"ERROR:%s", err.ToString());
}

JsonMsg* JsonMsg::FromPacket(const Packet& packet) {
  try {
    return Decode(packet).release();
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace Network
