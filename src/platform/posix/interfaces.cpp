#include "platform/interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <bit>
#include <cstring>
#include <memory>

namespace platform {

namespace {

bool Store(const sockaddr* from, SocketAddress* to) {
  if (!from || from->sa_family != AF_INET) return false;
  sockaddr_in address;
  std::memcpy(&address, from, sizeof address);
  *to = std::bit_cast<SocketAddress>(address);
  return true;
}

}  // namespace

std::vector<Interface> ListInterfaces() {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) == -1) return {};
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, freeifaddrs);

  std::vector<Interface> interfaces;
  for (const ifaddrs* entry = first; entry; entry = entry->ifa_next) {
    Interface found;
    if (!(entry->ifa_flags & IFF_UP) || !Store(entry->ifa_addr, &found.address)) continue;
    found.name = entry->ifa_name;
    found.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
    SocketAddress mask;
    if (entry->ifa_flags & IFF_BROADCAST) {
      Store(entry->ifa_broadaddr, &found.broadcast);
    } else if (found.loopback && Store(entry->ifa_netmask, &mask)) {
      // It has one, though the system doesn't list it.
      for (size_t i = 0; i < sizeof mask.address; ++i)
        found.broadcast.address[i] =
            static_cast<uint8_t>(found.address.address[i] | (~mask.address[i] & 0xFF));
    }
    interfaces.push_back(found);
  }
  return interfaces;
}

}  // namespace platform
