#include "control/JsonMsg.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "platform/text.h"
#include "runtime/Format.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\JsonMsg";

// Every message object of the process takes a number, received ones included.
std::atomic<uint32_t> nextMsgId{1};

// The tree of a message.
ErrInfo ToTree(const JsonMsg& msg, JSON::Value& out) {
  // The interface has no const here, so that messages may be written without it; see the header.
  return const_cast<JsonMsg&>(msg).Serialize(out);
}

}  // namespace

JsonMsg::JsonMsg(const std::wstring& name) : msg(name), msg_id(nextMsgId.fetch_add(1)) {}

void JsonMsg::StartNumbersAt(uint32_t number) {
  nextMsgId = number;
}

ErrInfo JsonMsg::Serialize(JSON::Value& out) {
  out.ItemForWrite(L"msg").SetString(msg);
  out.ItemForWrite(L"msg_id").SetUInt(msg_id);
  if (att != 0) out.ItemForWrite(L"att").SetInt64(static_cast<int64_t>(att));
  return ERR_HERE("Network::JsonMsg::Serialize");
}

ErrInfo JsonMsg::Deserialize(const JSON::Value& in) {
  msg_id = in.Item(L"msg_id").AsUInt();
  const JSON::Value* size = in.Find(L"att");
  att = size ? size->AsUInt() : 0;
  return ERR_HERE("Network::JsonMsg::Deserialize");
}

ErrInfo JsonMsg::ToPacket(Packet& packet, std::wstring* text) const {
  ErrInfo err = ERR_HERE("Network::JsonMsg::ToPacket");
  try {
    JSON::Value root;
    ErrInfo serialized = ToTree(*this, root);
    if (!serialized.IsOk()) return serialized;
    std::wstring wide = root.ToWString();
    const std::string utf8 = WideToUtf8(wide);
    if (utf8.empty()) return err.SetText(L"Can not deserialize msg");
    const size_t head = utf8.size() + 1;
    if (packet.Capacity() <= head + attachment.size()) {
      return err.SetText(L"Can not deserialize msg. Packet too small");
    }
    packet.Resize(head + attachment.size());
    std::memcpy(packet.Data(), utf8.c_str(), head);
    std::copy(attachment.begin(), attachment.end(), packet.Data() + head);
    if (text) *text = std::move(wide);
  } catch (const std::exception& error) {
    return err.SetText(error.what());
  }
  return err;
}

ErrInfo JsonMsg::ToString(std::wstring& out) const {
  ErrInfo err = ERR_HERE("Network::JsonMsg::ToString");
  try {
    JSON::Value root;
    ErrInfo serialized = ToTree(*this, root);
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

}  // namespace Network
