#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include "support/System.h"

int OwnProcessId() {
  return static_cast<int>(GetCurrentProcessId());
}

void PrepareForChildren() {}

namespace {

FARPROC EntryOf(const wchar_t* library, const char* name) {
  return GetProcAddress(GetModuleHandleW(library), name);
}

// What a console does for Ctrl-C and Ctrl-Break: it starts a thread in the other process, whose
// entry lies at the same place in all. A process that was started as a group of its own ignores
// both under Wine, so its parameters first lose the mark of one.
void SignalUnderWine(int processId, DWORD event) {
  using Query = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);
  constexpr size_t kParametersInBlock = 0x20;  // of the 64-bit PEB and RTL_USER_PROCESS_PARAMETERS
  constexpr size_t kFlagsInParameters = 0x18;
  struct {  // PROCESS_BASIC_INFORMATION of the Windows API
    LONG_PTR status;
    char* block;
    LONG_PTR others[4];
  } basic{};
  const HANDLE process = OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(processId));
  const auto query = reinterpret_cast<Query>(
      reinterpret_cast<void*>(EntryOf(L"ntdll.dll", "NtQueryInformationProcess")));
  query(process, 0, &basic, sizeof basic, nullptr);
  char* parameters = nullptr;
  const ULONG none = 0;
  ReadProcessMemory(process, basic.block + kParametersInBlock, &parameters, sizeof parameters,
                    nullptr);
  WriteProcessMemory(process, parameters + kFlagsInParameters, &none, sizeof none, nullptr);
  const auto entry = reinterpret_cast<LPTHREAD_START_ROUTINE>(
      reinterpret_cast<void*>(EntryOf(L"kernelbase.dll", "CtrlRoutine")));
  CloseHandle(CreateRemoteThread(process, nullptr, 0, entry,
                                 reinterpret_cast<void*>(DWORD_PTR{event}), 0, nullptr));
  CloseHandle(process);
}

}  // namespace

// Windows itself sends a process of a group of its own nothing but Ctrl-Break. Wine sends nothing
// where no terminal is.
void Interrupt(int processId) {
  if (UnderWine()) {
    SignalUnderWine(processId, CTRL_C_EVENT);
  } else {
    Terminate(processId);
  }
}

void Terminate(int processId) {
  if (UnderWine()) {
    SignalUnderWine(processId, CTRL_BREAK_EVENT);
  } else {
    GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, static_cast<DWORD>(processId));
  }
}

// As Wine's developers advise for programs that have to know.
bool UnderWine() {
  return EntryOf(L"ntdll.dll", "wine_get_version") != nullptr;
}

std::string FromConsole(const std::string& bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes.compare(i, 2, "\r\n") != 0) text += bytes[i];
  }
  return text;
}
