#include "platform/interfaces.h"

#include <bit>
#include <cstring>

#include "platform/text.h"
#include "platform/win32/win.h"
// After winsock2.h, whose types it uses.
#include <iphlpapi.h>

namespace platform {

namespace {

std::vector<uint8_t> AdapterRecords() {
  constexpr ULONG kSkip =
      GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
  // As the documentation advises: begin with 15 KiB and grow while the list does.
  ULONG size = 15 * 1024;
  for (int attempt = 0; attempt < 4; ++attempt) {
    std::vector<uint8_t> records(size);
    const ULONG result = GetAdaptersAddresses(
        AF_INET, kSkip, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(records.data()), &size);
    if (result == NO_ERROR) return records;
    if (result != ERROR_BUFFER_OVERFLOW) break;
  }
  return {};
}

SocketAddress BroadcastOf(const SocketAddress& address, unsigned prefix) {
  SocketAddress broadcast;
  if (prefix > 30) return broadcast;  // a single host or a pair has none
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned netBits = prefix > 8 * i ? prefix - 8 * i : 0;
    const unsigned hostMask = netBits >= 8 ? 0 : 0xFFu >> netBits;
    broadcast.address[i] = static_cast<uint8_t>(address.address[i] | hostMask);
  }
  return broadcast;
}

}  // namespace

std::vector<Interface> ListInterfaces() {
  std::vector<Interface> interfaces;
  const std::vector<uint8_t> records = AdapterRecords();
  if (records.empty()) return interfaces;
  for (auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(records.data()); adapter;
       adapter = adapter->Next) {
    if (adapter->OperStatus != IfOperStatusUp) continue;
    for (auto* unicast = adapter->FirstUnicastAddress; unicast; unicast = unicast->Next) {
      if (unicast->Address.lpSockaddr->sa_family != AF_INET) continue;
      sockaddr_in system{};
      std::memcpy(&system, unicast->Address.lpSockaddr, sizeof(system));
      Interface found;
      found.name = WideToUtf8Lossy(adapter->FriendlyName ? adapter->FriendlyName : L"");
      found.address = std::bit_cast<SocketAddress>(system);
      found.address.port[0] = found.address.port[1] = 0;
      found.loopback = adapter->IfType == IF_TYPE_SOFTWARE_LOOPBACK;
      found.broadcast = BroadcastOf(found.address, unicast->OnLinkPrefixLength);
      interfaces.push_back(found);
    }
  }
  return interfaces;
}

}  // namespace platform
