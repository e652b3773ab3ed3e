#include "platform/ports.h"

#include <cstring>
#include <set>
#include <utility>

#include "platform/text.h"
#include "platform/win32/win.h"
// After winsock2.h, whose types it uses.
#include <iphlpapi.h>

namespace platform {

namespace {

PortOwner OwnerOf(DWORD process) {
  PortOwner owner{0, "another user's program", static_cast<int>(process), {}};
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

std::vector<PortOwner> UdpPortOwners() {
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
  std::set<std::pair<DWORD, uint16_t>> seen;  // a program may have a port at several addresses
  for (DWORD i = 0; i < table->dwNumEntries; ++i) {
    const MIB_UDPROW_OWNER_PID& row = table->table[i];
    // In network byte order in the lower half.
    const uint16_t port = ntohs(static_cast<u_short>(row.dwLocalPort));
    if (!seen.insert({row.dwOwningPid, port}).second) continue;
    owners.push_back(OwnerOf(row.dwOwningPid));
    owners.back().port = port;
  }
  return owners;
}

}  // namespace platform
