#include "platform/usage.h"

#include "platform/win32/win.h"
// After windows.h, whose types they use.
#include <psapi.h>
#include <tlhelp32.h>

namespace platform {

namespace {

uint32_t CountThreads(DWORD process) {
  const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (all == INVALID_HANDLE_VALUE) return 0;
  uint32_t count = 0;
  THREADENTRY32 thread{};
  thread.dwSize = sizeof thread;
  for (BOOL more = Thread32First(all, &thread); more; more = Thread32Next(all, &thread))
    count += thread.th32OwnerProcessID == process;
  CloseHandle(all);
  return count;
}

// In 100 ns.
double SecondsOf(const FILETIME& time) {
  return static_cast<double>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime) / 1e7;
}

}  // namespace

std::optional<Usage> UsageOf(int processId) {
  const auto id = static_cast<DWORD>(processId);
  const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id);
  if (!process) return std::nullopt;
  PROCESS_MEMORY_COUNTERS memory{};
  DWORD handles = 0, status = 0;
  FILETIME begun{}, ended{}, kernel{}, user{};
  const bool known = GetExitCodeProcess(process, &status) && status == STILL_ACTIVE &&
                     K32GetProcessMemoryInfo(process, &memory, sizeof memory) &&
                     GetProcessHandleCount(process, &handles) &&
                     GetProcessTimes(process, &begun, &ended, &kernel, &user);
  CloseHandle(process);
  if (!known) return std::nullopt;
  return Usage{memory.WorkingSetSize, CountThreads(id), handles,
               SecondsOf(kernel) + SecondsOf(user)};
}

}  // namespace platform
