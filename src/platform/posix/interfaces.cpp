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
    const bool broadcasts = (entry->ifa_flags & IFF_BROADCAST) != 0;
    if (broadcasts) Store(entry->ifa_broadaddr, &found.broadcast);
    // The subnet's broadcast is heard also where the system doesn't list it: it lists nothing for
    // the loopback, and the interface's own address where none was configured.
    const bool listed = found.broadcast != SocketAddress() && found.broadcast != found.address;
    if ((broadcasts || found.loopback) && !listed && Store(entry->ifa_netmask, &mask)) {
      for (size_t i = 0; i < sizeof mask.address; ++i)
        found.broadcast.address[i] =
            static_cast<uint8_t>(found.address.address[i] | (~mask.address[i] & 0xFF));
    }
    interfaces.push_back(found);
  }
  return interfaces;
}

}  // namespace platform
