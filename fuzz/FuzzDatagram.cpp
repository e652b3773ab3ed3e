// Any datagram as the tools read it. What they say of it to who writes a controller must be what
// the unit makes of it.
#include <algorithm>
#include <cstdio>
#include <memory>

#include "Harness.h"
#include "control/JsonMsgs.h"
#include "wire/Explain.h"

using fuzz::Require;

namespace {

bool UnitTakes(const uint8_t* data, size_t size) {
  Network::Packet packet(size);
  packet.Resize(size);
  std::copy(data, data + size, packet.Data());
  return std::unique_ptr<Network::JsonMsg>(Network::JsonMsg::FromPacket(packet)) != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1432) return 0;  // the connection's own bound
  const wire::Bytes bytes(data, data + size);
  const wire::Explanation says = wire::Explain(bytes);
  const bool agree = says.refused.empty() == UnitTakes(data, size);
  for (const std::string& reason : says.refused)
    if (!agree) std::fprintf(stderr, "%s\n", reason.c_str());
  Require(agree, "a unit drops it for one of the reasons, and else takes it");
  try {
    const wire::Message message = wire::Decode(bytes);
    const wire::Message again = wire::Decode(wire::Encode(message.body, message.attachment));
    Require(again.body == message.body && again.attachment == message.attachment,
            "what was taken in can be written and taken in again");
    Require(!wire::HasLowerCaseEscape(again.text), "in the form that units take");
    Require(says.id == message.id && says.name == message.type, "both name the same message");
  } catch (const wire::BadMessage&) {
  }
  return 0;
}
