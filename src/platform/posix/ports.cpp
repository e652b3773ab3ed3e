#include "platform/ports.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

namespace platform {

namespace {

// The inodes of the sockets on `port`, from the kernel's table (proc(5), /proc/net/udp).
std::set<std::string> InodesOf(uint16_t port) {
  std::set<std::string> inodes;
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
    if (std::stoul(columns[1].substr(colon + 1), nullptr, 16) == port) inodes.insert(columns[9]);
  }
  return inodes;
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

// Whether the process has one of the sockets; takes those that it has out of `missing`.
bool HasOne(const std::string& process, const std::set<std::string>& inodes,
            std::set<std::string>& missing) {
  bool found = false;
  const std::string descriptors = "/proc/" + process + "/fd";
  for (const std::string& name : NamesIn(descriptors)) {
    std::string target = LinkTarget(descriptors + "/" + name);
    if (!target.starts_with("socket:[")) continue;
    target = target.substr(8, target.size() - 9);
    if (inodes.count(target) == 0) continue;
    missing.erase(target);
    found = true;
  }
  return found;
}

}  // namespace

std::vector<PortOwner> UdpPortOwners(uint16_t port) {
  std::vector<PortOwner> owners;
  const std::set<std::string> inodes = InodesOf(port);
  if (inodes.empty()) return owners;
  std::set<std::string> missing = inodes;
  for (const std::string& process : NamesIn("/proc")) {
    if (!std::all_of(process.begin(), process.end(), [](unsigned char c) { return isdigit(c); })) {
      continue;
    }
    if (!HasOne(process, inodes, missing)) continue;
    PortOwner owner;
    owner.process = std::atoi(process.c_str());
    owner.program = LinkTarget("/proc/" + process + "/exe");
    std::getline(std::ifstream("/proc/" + process + "/comm"), owner.name);
    owners.push_back(owner);
  }
  if (!missing.empty()) owners.push_back({"another user's program", 0, {}});
  return owners;
}

}  // namespace platform
