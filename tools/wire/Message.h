// Control messages as they stand in a datagram: the JSON text of one object in UTF-8, a byte 0x00,
// the attachment's bytes. Written the way that units read, and read strictly: what only this reader
// would take is no message.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "wire/Endpoint.h"

namespace wire {

// Keys in ascending order, as units write them. Texts are UTF-8.
using Json = nlohmann::json;

// Bytes. A message that announces a longer attachment is none, to a unit either.
constexpr uint32_t kMostAttachment = 1 << 20;

// What isn't a message, or isn't the message that it should be. The text says why.
struct BadMessage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// `message["msg_id"]` and the like, for a key that must be there; throw BadMessage, naming it.
uint32_t NumberAt(const Json& object, const char* key);    // 0 to 4294967295
std::string TextAt(const Json& object, const char* key);   // UTF-8
const Json& ArrayAt(const Json& object, const char* key);  // the empty array where it is missing
std::vector<int32_t> NumbersAt(const Json& object, const char* key);  // likewise

struct Message {
  std::string type;  // "msg"
  uint32_t id = 0;   // "msg_id"
  Json body;         // the whole object
  std::string text;  // the JSON text as it came
  Bytes attachment;  // as far as it came in this datagram; whole where a Link put it together
  Endpoint from;
  Clock::time_point time;
};

// Texts within are escaped as units take them: hexadecimal digits in upper case, and nothing above
// U+001F escaped that needn't be.
std::string ToText(const Json& object);

// A \u escape with a digit in lower case, which most JSON writers make and no unit takes.
bool HasLowerCaseEscape(std::string_view text);

// What the parser said, for people: where in the text, and what is wrong there.
std::string WhyNoJson(const Json::exception& error);

// A datagram. `att` isn't added.
Bytes Encode(const Json& object, const Bytes& attachment = {});

// Throws BadMessage: no byte 0x00, an empty text, malformed UTF-8, no plain JSON, a key twice, no
// object, "msg" or "msg_id" missing or of another type, more bytes than "att" announces.
Message Decode(const Bytes& bytes, const Endpoint& from = {}, Clock::time_point time = {});

}  // namespace wire
