#include "platform/ports.h"

#include <cstring>

#include "platform/text.h"
#include "platform/win32/win.h"
// After winsock2.h, whose types it uses.
#include <iphlpapi.h>

namespace platform {

namespace {

PortOwner OwnerOf(DWORD process) {
  PortOwner owner{"another user's program", static_cast<int>(process), {}};
  const HANDLE handle = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process);
  if (!handle) return owner;
  wchar_t path[1024];
  DWORD length = 1024;
  const BOOL known = QueryFullProcessImageNameW(handle, 0, path, &length);
  CloseHandle(handle);
  if (!known) return owner;
  const std::wstring full(path, length);
  owner.name = WideToUtf8Lossy(full.substr(full.find_last_of(L'\\') + 1));
  owner.program = WideToUtf8Lossy(full);
  return owner;
}

}  // namespace

std::vector<PortOwner> UdpPortOwners(uint16_t port) {
  std::vector<PortOwner> owners;
  DWORD size = 0;
  GetExtendedUdpTable(nullptr, &size, FALSE, AF_INET, UDP_TABLE_OWNER_PID, 0);
  std::vector<uint8_t> bytes(size + 4096);  // the table may grow between the calls
  size = static_cast<DWORD>(bytes.size());
  if (GetExtendedUdpTable(bytes.data(), &size, FALSE, AF_INET, UDP_TABLE_OWNER_PID, 0) !=
      NO_ERROR) {
    return owners;
  }
  const auto* table = reinterpret_cast<const MIB_UDPTABLE_OWNER_PID*>(bytes.data());
  for (DWORD i = 0; i < table->dwNumEntries; ++i) {
    const MIB_UDPROW_OWNER_PID& row = table->table[i];
    // In network byte order in the lower half.
    if (ntohs(static_cast<u_short>(row.dwLocalPort)) != port) continue;
    owners.push_back(OwnerOf(row.dwOwningPid));
  }
  return owners;
}

}  // namespace platform
