// Control messages both ways. An input whose first byte is the number of a message type fills that
// message's fields and must go through a datagram unharmed; any other input is a datagram.
#include <algorithm>
#include <memory>

#include "Harness.h"
#include "control/JsonMsgs.h"
#include "platform/text.h"

using namespace Network;
using fuzz::Input;
using fuzz::Require;

namespace {

// Escapes lengthen a text up to sixfold, so that no input outgrows the packet.
constexpr size_t kLargestInput = 4096;
constexpr size_t kAmple = 64 * 1024;

std::unique_ptr<JsonMsg> Decode(const uint8_t* data, size_t size) {
  Packet packet(size);
  packet.Resize(size);
  std::copy(data, data + size, packet.Data());
  return std::unique_ptr<JsonMsg>(JsonMsg::FromPacket(packet));
}

bool CanBeConverted(const std::wstring& text) {
  try {
    WideToUtf8(text);
    return true;
  } catch (const std::range_error&) {
    return false;
  }
}

// The message goes out, and what comes in is the same.
void RequireRoundTrip(JsonMsg& msg) {
  msg.att = msg.attachment.size();
  std::wstring text;
  ErrInfo rendered = msg.ToString(text);
  Require(rendered.IsOk() && !text.empty(), "every message has a text");

  Packet packet(kAmple);
  ErrInfo err = msg.ToPacket(packet);
  Require(err.IsOk() == CanBeConverted(text), "what can be converted goes into a packet");
  if (!err.IsOk()) {
    Require(packet.Size() == 0, "a failure leaves the packet alone");
    return;
  }

  // One byte more than the datagram is the least capacity.
  Packet tight(packet.Size() + 1);
  Packet tooTight(packet.Size());
  Require(msg.ToPacket(tight).IsOk(), "a packet may be one byte larger than its datagram");
  Require(!msg.ToPacket(tooTight).IsOk() && tooTight.Size() == 0, "and not smaller");

  const auto back = Decode(packet.Data(), packet.Size());
  Require(back != nullptr, "what was sent can be decoded");
  Require(back->msg == msg.msg && back->msg_id == msg.msg_id, "the envelope comes back");
  Require(back->att == msg.att && back->attachment == msg.attachment, "the attachment too");
  Require(back->ToString() == text, "and the fields");
}

// Fills each field of a message with what the input gives next.
struct Filler {
  void operator()(const wchar_t*, auto& field) const { Fill(field); }

  void Fill(uint32_t& value) const { value = input.U32(); }
  void Fill(int32_t& value) const { value = static_cast<int32_t>(input.U32()); }
  void Fill(std::wstring& text) const { text = input.Units(input.U8()); }
  void Fill(NetAddr& addr) const {
    platform::SocketAddress raw;
    for (uint8_t& part : raw.address)
      part = input.U8();
    raw.port[0] = input.U8();
    raw.port[1] = input.U8();
    addr = NetAddr(raw);
  }
  void Fill(InputChange& change) const {
    change.set = input.U8() % 2 != 0;
    Fill(change.addr);
  }
  template <typename T>
  void Fill(std::vector<T>& values) const {
    values.resize(input.U8() % 20);
    for (T& value : values)
      Fill(value);
  }

  Input& input;
};

// The message type of that number, filled; null when there is none.
std::unique_ptr<JsonMsg> Make(uint8_t type, Input& input) {
  std::unique_ptr<JsonMsg> made;
  uint8_t number = 0;
  AllMessages::ForEach([&]<typename Msg>() {
    if (number++ != type) return;
    auto msg = std::make_unique<Msg>();
    Msg::Fields(*msg, Filler{input});
    made = std::move(msg);
  });
  return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput) return 0;
  Input input(data, size);
  const uint8_t type = input.U8();
  const uint32_t msgId = input.U32();
  if (const auto made = size > 0 ? Make(type, input) : nullptr) {
    made->msg_id = msgId;
    made->attachment = input.Bytes(input.Left());
    RequireRoundTrip(*made);
    return 0;
  }
  const auto msg = Decode(data, size);
  if (!msg) return 0;
  Require(msg->attachment.size() <= kMaxAttachment, "an attachment has its bound");
  Require(msg->att <= msg->attachment.size() && msg->att < size, "no more came than was sent");
  Require(std::all_of(msg->attachment.begin() + static_cast<std::ptrdiff_t>(msg->att),
                      msg->attachment.end(), [](uint8_t byte) { return byte == 0; }),
          "what hasn't come is zero");
  // Only its first bytes: a megabyte each time would make the search slow.
  msg->attachment.resize(std::min<size_t>(msg->attachment.size(), 64));
  RequireRoundTrip(*msg);
  return 0;
}
