#include "control/JsonMsgs.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "json/ParsingBuilder.h"
#include "platform/text.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\JsonMsg";

constexpr wchar_t kOff[] = L"off";

// One overload a type that a field, or an element of an array, may have.
void WriteValue(JSON::Value& out, uint32_t value) {
  out.SetUInt(value);
}

void WriteValue(JSON::Value& out, int32_t value) {
  out.SetInt(value);
}

void WriteValue(JSON::Value& out, const std::wstring& value) {
  out.SetString(value);
}

void WriteValue(JSON::Value& out, const NetAddr& addr) {
  out.SetString(addr.IsDefined() ? addr.ToText() : std::wstring());
}

void WriteValue(JSON::Value& out, const InputChange& change) {
  if (change.set && !change.addr.IsDefined()) {
    out.SetString(kOff);
  } else {
    WriteValue(out, change.set ? change.addr : NetAddr());
  }
}

void ReadValue(const JSON::Value& in, uint32_t& value) {
  value = in.AsUInt();
}

void ReadValue(const JSON::Value& in, int32_t& value) {
  value = in.AsInt();
}

void ReadValue(const JSON::Value& in, std::wstring& value) {
  value = in.AsWString();
}

// An address, and a change of one, takes anything: what isn't a text reads as an empty one, so that
// the elements after it keep their places, which are the numbers of the inputs.
std::wstring TextOf(const JSON::Value& in) {
  return in.GetType() == JSON::String ? in.AsWString() : std::wstring();
}

void ReadValue(const JSON::Value& in, NetAddr& addr) {
  addr.SetFromText(TextOf(in));
}

// A text that is no address switches the input off, as "off" does.
void ReadValue(const JSON::Value& in, InputChange& change) {
  const std::wstring text = TextOf(in);
  change.set = !text.empty();
  if (change.set && text != kOff) change.addr.SetFromText(text);
}

// Writes the fields of a message, by its list.
struct FieldWriter {
  template <typename T>
  void operator()(const wchar_t* key, const T& value) const {
    WriteValue(out.ItemForWrite(key), value);
  }

  // An empty array writes no key: the key comes with its first element.
  template <typename T>
  void operator()(const wchar_t* key, const std::vector<T>& values) const {
    for (size_t i = 0; i < values.size(); ++i)
      WriteValue(out.ItemForWrite(key).AtForWrite(i), values[i]);
  }

  JSON::Value& out;
};

struct FieldReader {
  template <typename T>
  void operator()(const wchar_t* key, T& value) const {
    ReadValue(in.Item(key), value);
  }

  template <typename T>
  void operator()(const wchar_t* key, std::vector<T>& values) const {
    values.clear();
    const JSON::Value* array = in.Find(key);
    for (uint64_t i = 0; array && i < array->Size(); ++i)
      ReadValue(array->At(i), values.emplace_back());
  }

  const JSON::Value& in;
};

template <typename... Msg>
std::unique_ptr<JsonMsg> MakeByName(const std::wstring& name, MessageTypes<Msg...>) {
  std::unique_ptr<JsonMsg> made;
  static_cast<void>(((name == Msg::kName && (made = std::make_unique<Msg>()) != nullptr) || ...));
  return made;
}

// Gives the message as much of the attachment that it announces as has come.
bool TakeAttachment(JsonMsg& msg, const uint8_t* bytes, size_t size) {
  if (msg.att > kMaxAttachment) return false;
  msg.announced = msg.att;
  msg.att = std::min<uint64_t>(msg.announced, size);
  msg.attachment.assign(bytes, bytes + msg.att);
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
  std::unique_ptr<JsonMsg> msg = MakeByName(root.Item(L"msg").AsWString(), AllMessages());
  if (!msg || !msg->Deserialize(root).IsOk()) return nullptr;

  const size_t body = length + 1;
  if (!TakeAttachment(*msg, bytes + body, size - body)) return nullptr;
  return msg;
}

}  // namespace

// These two stand here and not with the envelope, as they know all messages.
JsonMsg* JsonMsg::FromPacketAsCame(const Packet& packet) {
  try {
    return Decode(packet).release();
  } catch (const std::exception&) {
    return nullptr;
  }
}

JsonMsg* JsonMsg::FromPacket(const Packet& packet) {
  try {
    std::unique_ptr<JsonMsg> msg = Decode(packet);
    if (msg) msg->attachment.resize(static_cast<size_t>(msg->announced));
    return msg.release();
  } catch (const std::exception&) {
    return nullptr;
  }
}

// The two operations of a message with fields: the envelope, then the fields as listed.
#define QZ_MESSAGE_WITH_FIELDS(Msg)                    \
  ErrInfo Msg::Serialize(JSON::Value& out) {           \
    ErrInfo err = JsonMsg::Serialize(out);             \
    if (!err.IsOk()) return err;                       \
    Fields(*this, FieldWriter{out});                   \
    return ERR_HERE("Network::" #Msg "::Serialize");   \
  }                                                    \
  ErrInfo Msg::Deserialize(const JSON::Value& in) {    \
    ErrInfo err = JsonMsg::Deserialize(in);            \
    if (!err.IsOk()) return err;                       \
    Fields(*this, FieldReader{in});                    \
    return ERR_HERE("Network::" #Msg "::Deserialize"); \
  }

QZ_MESSAGE_WITH_FIELDS(JsonMsgAck)
QZ_MESSAGE_WITH_FIELDS(JsonMsgAtt)
QZ_MESSAGE_WITH_FIELDS(JsonMsgDevInfo)
QZ_MESSAGE_WITH_FIELDS(JsonMsgSetState)
QZ_MESSAGE_WITH_FIELDS(JsonMsgState)
QZ_MESSAGE_WITH_FIELDS(JsonMsgSetInputs)
QZ_MESSAGE_WITH_FIELDS(JsonMsgInputs)
QZ_MESSAGE_WITH_FIELDS(JsonMsgSetFmFreq)
QZ_MESSAGE_WITH_FIELDS(JsonMsgFmFreq)
QZ_MESSAGE_WITH_FIELDS(JsonMsgFmQuality)
QZ_MESSAGE_WITH_FIELDS(JsonMsgError)

#undef QZ_MESSAGE_WITH_FIELDS

}  // namespace Network
