#include "platform/advice.h"

#include <unistd.h>

#include <utility>

#include "platform/child.h"
#include "platform/paths.h"
#include "platform/text.h"

namespace platform {

namespace {

// The tools of the packet filters stand where only root's PATH leads.
std::string FindTool(const char* name) {
  const std::wstring found = FindProgram(Utf8ToWideLossy(name));
  if (!found.empty()) return WideToUtf8Lossy(found);
  const std::string fallback = std::string("/usr/sbin/") + name;
  return access(fallback.c_str(), X_OK) == 0 ? fallback : std::string();
}

}  // namespace

std::string CommandBringInterfaceUp() {
  return "sudo ip link set NAME up   (ip address lists them)";
}

std::string CommandPermitRealTime(const std::string& program) {
  return "sudo setcap cap_sys_nice+ep " + (program.empty() ? "PATH/qz640emu" : program);
}

std::string CommandPermitUdp(const std::string&, const std::vector<uint16_t>& ports) {
  std::string list;
  for (const uint16_t port : ports)
    list += (list.empty() ? "" : ",") + std::to_string(port);
  const bool many = ports.size() > 1;
  if (!FindTool("iptables").empty()) {
    return "sudo iptables -I INPUT -p udp " +
           std::string(many ? "-m multiport --dports " : "--dport ") + list + " -j ACCEPT";
  }
  return "sudo nft insert rule inet filter input udp dport { " + list + " } accept";
}

// What goes to the error output, such as a complaint of missing leave, isn't of interest: the
// status says it.
std::vector<PacketFilter> ReadPacketFilters() {
  std::vector<PacketFilter> filters;
  const std::pair<const char*, std::vector<std::string>> tools[] = {{"nft", {"list", "ruleset"}},
                                                                    {"iptables-save", {}}};
  for (const auto& [name, arguments] : tools) {
    ChildOptions options;
    options.command = {FindTool(name)};
    if (options.command.front().empty()) continue;
    PacketFilter filter;
    filter.command = std::string("sudo ") + name;
    for (const std::string& argument : arguments) {
      filter.command += " " + argument;
      options.command.push_back(argument);
    }
    options.piped = true;
    options.errorsToOutput = true;
    Child tool;
    if (tool.Start(options) != 0) continue;
    tool.CloseInput();
    for (std::string bytes = tool.ReadOutput(); !bytes.empty(); bytes = tool.ReadOutput())
      filter.rules += bytes;
    filter.read = tool.Wait(UINT32_MAX) == 0;
    filters.push_back(filter);
  }
  return filters;
}

}  // namespace platform
