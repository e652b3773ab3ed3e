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

std::string FirstLine(const std::string& text, const char* otherwise) {
  const std::string line = text.substr(0, text.find('\n'));
  return line.empty() ? otherwise : line;
}

}  // namespace

std::string CommandBringInterfaceUp() {
  return "sudo ip link set NAME up   (ip address lists them)";
}

std::string Quoted(const std::string& text) {
  return QuotedForSh(text);
}

std::string CommandEdit(const std::string& path) {
  return "${EDITOR:-vi} " + Quoted(path);
}

std::string CommandEndProcess(int process) {
  return "kill " + std::to_string(process);
}

std::string CommandShowPort(uint16_t port) {
  return "sudo ss -ulpn sport = :" + std::to_string(port);
}

std::string CommandShowLoad() {
  return "top";
}

std::string CommandPermitRealTime(const std::string& program) {
  return "sudo setcap cap_sys_nice+ep " + (program.empty() ? "PATH/qz640emu" : Quoted(program));
}

std::string CommandPermitUdp(const std::string&, const std::vector<PortRange>& ports) {
  const bool iptables = !FindTool("iptables").empty();
  std::string list;
  for (const PortRange& range : ports) {
    list += (list.empty() ? "" : ",") + std::to_string(range.first);
    if (range.last > range.first) list += (iptables ? ":" : "-") + std::to_string(range.last);
  }
  if (iptables) {
    return "sudo iptables -I INPUT -p udp " +
           std::string(ports.size() > 1 ? "-m multiport --dports " : "--dport ") + list +
           " -j ACCEPT";
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
    if (!filter.read) filter.rules = FirstLine(filter.rules, "it ends with an error");
    filters.push_back(filter);
  }
  return filters;
}

}  // namespace platform
