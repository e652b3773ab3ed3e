#include "platform/advice.h"

namespace platform {

std::string CommandBringInterfaceUp() {
  return "netsh interface set interface NAME enable   (netsh interface show interface lists them)";
}

// Every user may have the priority that matters here.
std::string CommandPermitRealTime(const std::string&) {
  return "end other programs that keep the processor busy";
}

std::string CommandPermitUdp(const std::string& program, const std::vector<uint16_t>& ports) {
  std::string list;
  for (const uint16_t port : ports)
    list += (list.empty() ? "" : ",") + std::to_string(port);
  return "netsh advfirewall firewall add rule name=qz640emu dir=in action=allow protocol=UDP "
         "localport=" +
         list + (program.empty() ? "" : " program=\"" + program + "\"");
}

// Its rules are worded in the system's language: people read them.
std::vector<PacketFilter> ReadPacketFilters() {
  return {{"netsh advfirewall firewall show rule name=all dir=in", false, {}}};
}

}  // namespace platform
