#include "platform/ports.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace platform {

namespace {

// The UDP ports in use by the inodes of their sockets, from the kernel's table (proc(5),
// /proc/net/udp).
std::map<std::string, uint16_t> PortsByInode() {
  std::map<std::string, uint16_t> ports;
  std::ifstream table("/proc/net/udp");
  std::string line;
  std::getline(table, line);  // the heading
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::vector<std::string> columns;
    for (std::string field; fields >> field;)
      columns.push_back(field);
    if (columns.size() < 10) continue;
    const size_t colon = columns[1].find(':');
    if (colon == std::string::npos) continue;
    ports[columns[9]] =
        static_cast<uint16_t>(std::stoul(columns[1].substr(colon + 1), nullptr, 16));
  }
  return ports;
}

std::vector<std::string> NamesIn(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (!dir) return names;
  while (const dirent* entry = readdir(dir))
    names.emplace_back(entry->d_name);
  closedir(dir);
  return names;
}

std::string LinkTarget(const std::string& path) {
  char target[4096];
  const ssize_t length = readlink(path.c_str(), target, sizeof(target));
  return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

// The ports of the sockets that the process has; takes those sockets out of `missing`.
std::set<uint16_t> PortsOf(const std::string& process,
                           const std::map<std::string, uint16_t>& sockets,
                           std::map<std::string, uint16_t>& missing) {
  std::set<uint16_t> ports;
  const std::string descriptors = "/proc/" + process + "/fd";
  for (const std::string& name : NamesIn(descriptors)) {
    const std::string target = LinkTarget(descriptors + "/" + name);
    if (!target.starts_with("socket:[")) continue;
    const auto found = sockets.find(target.substr(8, target.size() - 9));
    if (found == sockets.end()) continue;
    missing.erase(found->first);
    ports.insert(found->second);
  }
  return ports;
}

}  // namespace

std::vector<PortOwner> UdpPortOwners() {
  std::vector<PortOwner> owners;
  const std::map<std::string, uint16_t> sockets = PortsByInode();
  std::map<std::string, uint16_t> missing = sockets;
  for (const std::string& process : NamesIn("/proc")) {
    if (!std::all_of(process.begin(), process.end(), [](unsigned char c) { return isdigit(c); })) {
      continue;
    }
    PortOwner owner;
    for (const uint16_t port : PortsOf(process, sockets, missing)) {
      if (owner.process == 0) {
        owner.process = std::atoi(process.c_str());
        owner.program = LinkTarget("/proc/" + process + "/exe");
        std::getline(std::ifstream("/proc/" + process + "/comm"), owner.name);
      }
      owner.port = port;
      owners.push_back(owner);
    }
  }
  for (const auto& [inode, port] : missing)
    owners.push_back({port, "another user's program", 0, {}});
  return owners;
}

}  // namespace platform
