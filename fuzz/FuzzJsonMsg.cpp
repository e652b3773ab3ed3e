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

NetAddr Address(Input& input) {
  platform::SocketAddress raw;
  for (uint8_t& part : raw.address)
    part = input.U8();
  raw.port[0] = input.U8();
  raw.port[1] = input.U8();
  return NetAddr(raw);
}

std::vector<int32_t> Ints(Input& input) {
  std::vector<int32_t> values(input.U8() % 20);
  for (int32_t& value : values)
    value = static_cast<int32_t>(input.U32());
  return values;
}

std::wstring Text(Input& input) {
  return input.Units(input.U8());
}

std::unique_ptr<JsonMsg> Make(uint8_t type, Input& input) {
  switch (type) {
    case 0:
      return std::make_unique<JsonMsgAck>(input.U32());
    case 1: {
      auto msg = std::make_unique<JsonMsgAtt>();
      msg->leader_id = input.U32();
      msg->seg_count = input.U32();
      msg->seg_number = input.U32();
      return msg;
    }
    case 2:
      return std::make_unique<JsonMsgDevFind>();
    case 3:
      return std::make_unique<JsonMsgGetDevInfo>();
    case 4: {
      auto msg = std::make_unique<JsonMsgDevInfo>();
      msg->unit_id = Text(input);
      msg->unit_type = Text(input);
      for (uint32_t* field :
           {&msg->hardware, &msg->firmware, &msg->software, &msg->audio_protocol,
            &msg->control_protocol, &msg->rtp_port, &msg->inputs, &msg->outputs}) {
        *field = input.U32();
      }
      return msg;
    }
    case 5:
      return std::make_unique<JsonMsgGetState>();
    case 6: {
      auto msg = std::make_unique<JsonMsgSetState>();
      msg->device_freq = input.U32();
      return msg;
    }
    case 7: {
      auto msg = std::make_unique<JsonMsgState>();
      msg->device_freq = input.U32();
      msg->input_freq = input.U32();
      return msg;
    }
    case 8:
      return std::make_unique<JsonMsgGetInputs>();
    case 9: {
      auto msg = std::make_unique<JsonMsgSetInputs>();
      msg->inputs.resize(input.U8() % 20);
      for (InputChange& change : msg->inputs) {
        change.set = input.U8() % 2 != 0;
        change.addr = Address(input);
      }
      return msg;
    }
    case 10: {
      auto msg = std::make_unique<JsonMsgInputs>();
      msg->inputs.resize(input.U8() % 20);
      for (NetAddr& addr : msg->inputs)
        addr = Address(input);
      return msg;
    }
    case 11:
      return std::make_unique<JsonMsgGetFmFreq>();
    case 12: {
      auto msg = std::make_unique<JsonMsgSetFmFreq>();
      msg->freq = Ints(input);
      return msg;
    }
    case 13: {
      auto msg = std::make_unique<JsonMsgFmFreq>();
      msg->freq = Ints(input);
      return msg;
    }
    case 14:
      return std::make_unique<JsonMsgGetFmQuality>();
    case 15: {
      auto msg = std::make_unique<JsonMsgFmQuality>();
      msg->rssi = Ints(input);
      msg->snr = Ints(input);
      msg->multipath = Ints(input);
      msg->pilot = Ints(input);
      return msg;
    }
    default: {
      const uint32_t code = input.U32();
      const uint32_t id = input.U32();
      return std::make_unique<JsonMsgError>(code, Text(input), id);
    }
  }
}

constexpr uint8_t kTypes = 17;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > kLargestInput) return 0;
  if (size > 0 && data[0] < kTypes) {
    Input input(data, size);
    const uint8_t type = input.U8();
    const uint32_t msgId = input.U32();
    const auto msg = Make(type, input);
    msg->msg_id = msgId;
    msg->attachment = input.Bytes(input.Left());
    RequireRoundTrip(*msg);
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
