#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include "support/System.h"

int OwnProcessId() {
  return static_cast<int>(GetCurrentProcessId());
}

void PrepareForChildren() {}

void Interrupt(int processId) {
  GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, static_cast<DWORD>(processId));
}

void Terminate(int processId) {
  Interrupt(processId);
}

// As Wine's developers advise for programs that have to know.
bool UnderWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

std::string FromConsole(const std::string& bytes) {
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes.compare(i, 2, "\r\n") != 0) text += bytes[i];
  }
  return text;
}
