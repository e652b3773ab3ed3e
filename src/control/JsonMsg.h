// A control message: a typed object that travels in one datagram as a JSON text, a 0x00 byte and
// raw attachment bytes. No lock: built on one thread, then passed on by shared pointer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json/Value.h"
#include "runtime/ErrInfo.h"
#include "sockets/Packet.h"

namespace Network {

// Bytes. An announced attachment beyond this makes a bad message: the announcement is a number from
// the network, and a connection holds what comes of it until it is whole.
constexpr uint32_t kMaxAttachment = 1024 * 1024;

struct JsonMsg {
  // Takes the next number of the process.
  explicit JsonMsg(const std::wstring& name);
  virtual ~JsonMsg() = default;
  JsonMsg(const JsonMsg&) = delete;
  JsonMsg& operator=(const JsonMsg&) = delete;

  // Lets the numbers of this process go on from `number`; before the first message. They begin at 1
  // otherwise. A unit takes a message with the number of the one before for a repeat, whichever
  // peer sent it, so a controller that runs anew for each request begins anywhere.
  static void StartNumbersAt(uint32_t number);

  // Add this message's keys to `out`, take its fields from `in`. A derived one calls the base
  // first. May throw JSON::Exception; the functions below catch it. Serialize leaves the message
  // as it is, although a derived one may be written without const: the functions below rely on it.
  virtual ErrInfo Serialize(JSON::Value& out);
  virtual ErrInfo Deserialize(const JSON::Value& in);

  // The fields of a derived message beyond this envelope; see JsonMsgs.h.
  static void Fields(auto& /*self*/, auto&& /*field*/) {}

  // The whole datagram, into a packet whose capacity the caller has set: it takes at most one byte
  // less than that. On failure the packet is as it was. `text`, if given, receives the JSON text,
  // as ToString gives it.
  ErrInfo ToPacket(Packet& packet, std::wstring* text = nullptr) const;

  // The JSON text without the attachment.
  ErrInfo ToString(std::wstring& out) const;

  // The same for log lines: never fails.
  std::wstring ToString() const;

  // The message in a received datagram; the caller owns it. Null for anything that isn't a good
  // message of one of the types in JsonMsgs.h; throws nothing. Its attachment has the announced
  // size, with zeros where bytes haven't come.
  static JsonMsg* FromPacket(const Packet& packet);

  // The same, but the attachment holds only the bytes that have come: a datagram of 45 bytes can
  // announce a megabyte.
  static JsonMsg* FromPacketAsCame(const Packet& packet);

  std::wstring msg;     // type name, fixed by the concrete constructor
  uint32_t msg_id = 0;  // number of this message
  // Sending: the attachment bytes that the message announces. Received: how many leading bytes of
  // `attachment` have really arrived.
  uint64_t att = 0;
  std::vector<uint8_t> attachment;
  uint64_t announced = 0;  // received: size of the whole attachment, bytes
};

}  // namespace Network
