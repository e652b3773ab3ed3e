#include "platform/advice.h"

namespace platform {

std::string CommandBringInterfaceUp() {
  return "netsh interface set interface NAME enable   (netsh interface show interface lists them)";
}

// No name of a file has quotes.
std::string Quoted(const std::string& text) {
  return text.find_first_of(" &()^;,") == std::string::npos ? text : "\"" + text + "\"";
}

std::string CommandEdit(const std::string& path) {
  return "notepad " + Quoted(path);
}

std::string CommandEndProcess(int process) {
  return "taskkill /F /PID " + std::to_string(process);
}

std::string CommandShowPort(uint16_t port) {
  return "netstat -anobp UDP   (look for :" + std::to_string(port) + ")";
}

std::string CommandShowLoad() {
  return "taskmgr";
}

// Every user may have the priority that matters here.
std::string CommandPermitRealTime(const std::string&) {
  return {};
}

std::string CommandPermitUdp(const std::string& program, const std::vector<PortRange>& ports) {
  std::string list;
  for (const PortRange& range : ports) {
    list += (list.empty() ? "" : ",") + std::to_string(range.first);
    if (range.last > range.first) list += "-" + std::to_string(range.last);
  }
  return "netsh advfirewall firewall add rule name=qz640emu dir=in action=allow protocol=UDP "
         "localport=" +
         list + (program.empty() ? "" : " program=\"" + program + "\"");
}

// Its rules are worded in the system's language: people read them.
std::vector<PacketFilter> ReadPacketFilters() {
  return {{"netsh advfirewall firewall show rule name=all dir=in", false,
           "shows rules in the language of this system, for people"}};
}

}  // namespace platform
