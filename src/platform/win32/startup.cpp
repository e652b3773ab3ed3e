#include "platform/startup.h"

#include <fcntl.h>
#include <io.h>
#include <malloc.h>
#include <stdlib.h>

#include <system_error>

#include "platform/win32/win.h"
// After windows.h, whose types it uses.
#include <timeapi.h>

namespace platform {

namespace {

HANDLE stopSignal = nullptr;       // manual-reset: Ctrl-C or the like has come
HANDLE characterSignal = nullptr;  // manual-reset: a character or the end of input has come

void OpenIfClosed(DWORD which, DWORD access) {
  const HANDLE handle = GetStdHandle(which);
  if (handle != nullptr && handle != INVALID_HANDLE_VALUE) return;
  const HANDLE null = CreateFileW(L"NUL", access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, 0, nullptr);
  if (null != INVALID_HANDLE_VALUE) SetStdHandle(which, null);
}

BOOL WINAPI OnControl(DWORD event) {
  SetEvent(stopSignal);
  // When the console closes or the user logs off, Windows ends the process as soon as the handler
  // returns: it stays here, so that the main thread can end the run. Windows bounds the wait.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
  return TRUE;
}

// Of a console the rest of the line goes with the character, and what was typed ahead. An input
// that can't be read is none, unlike one that has ended: a pipe whose other end is closed.
DWORD WINAPI ReadCharacter(void*) {
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  char line[4096];
  DWORD mode = 0;
  const bool console = GetConsoleMode(input, &mode) != 0;
  DWORD got = 0;
  const BOOL read = ReadFile(input, line, console ? sizeof line : 1, &got, nullptr);
  if (!read && GetLastError() != ERROR_BROKEN_PIPE && GetLastError() != ERROR_HANDLE_EOF) return 0;
  if (console) FlushConsoleInputBuffer(input);
  SetEvent(characterSignal);
  return 0;
}

// Windows 11 lowers the timer resolution of processes whose windows are hidden; this asks it not
// to. Looked up at run time, as older systems don't have the call.
void KeepTimerResolution() {
  struct ThrottlingState {  // PROCESS_POWER_THROTTLING_STATE of the Windows API
    ULONG version, controlMask, stateMask;
  };
  constexpr int kProcessPowerThrottling = 4;
  constexpr ULONG kIgnoreTimerResolution = 4;
  using SetProcessInformationCall = BOOL(WINAPI*)(HANDLE, int, void*, DWORD);

  const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
  if (!kernel) return;
  const auto call = reinterpret_cast<SetProcessInformationCall>(
      reinterpret_cast<void*>(GetProcAddress(kernel, "SetProcessInformation")));
  if (!call) return;
  ThrottlingState state{1, kIgnoreTimerResolution, 0};
  call(GetCurrentProcess(), kProcessPowerThrottling, &state, sizeof(state));
}

UINT consoleCodePage = 0;  // what the console took before this program

void RestoreConsole() {
  SetConsoleOutputCP(consoleCodePage);
}

// All text leaves the program as UTF-8. The console belongs to others too, who get it back as it
// was.
void LetConsoleTakeUtf8() {
  consoleCodePage = GetConsoleOutputCP();
  if (consoleCodePage == 0 || consoleCodePage == CP_UTF8) return;
  if (SetConsoleOutputCP(CP_UTF8)) atexit(RestoreConsole);
}

}  // namespace

void Startup() {
  OpenIfClosed(STD_INPUT_HANDLE, GENERIC_READ);
  OpenIfClosed(STD_OUTPUT_HANDLE, GENERIC_WRITE);
  OpenIfClosed(STD_ERROR_HANDLE, GENERIC_WRITE);

  LetConsoleTakeUtf8();
  stopSignal = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(OnControl, TRUE);
}

void WaitForInput() {
  // Reading can't be given up halfway, so a thread of its own does it; when the stop signal comes
  // first, that thread stays in its read until the process ends.
  characterSignal = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  const HANDLE reader = CreateThread(nullptr, 0, ReadCharacter, nullptr, 0, nullptr);
  if (!reader) {
    ReadCharacter(nullptr);
    if (WaitForSingleObject(characterSignal, 0) != WAIT_OBJECT_0) WaitForStop(INFINITE);
    return;
  }
  CloseHandle(reader);
  const HANDLE signals[] = {characterSignal, stopSignal};
  WaitForMultipleObjects(stopSignal ? 2 : 1, signals, FALSE, INFINITE);
}

bool WaitForStop(uint32_t milliseconds) {
  return stopSignal && WaitForSingleObject(stopSignal, milliseconds) == WAIT_OBJECT_0;
}

namespace {

DWORD WINAPI ReadToEnd(void*) {
  char dropped[4096];
  DWORD got = 0;
  while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), dropped, sizeof dropped, &got, nullptr)) {
    if (got == 0) break;
  }
  if (got == 0 || GetLastError() == ERROR_BROKEN_PIPE) SetEvent(stopSignal);
  return 0;
}

}  // namespace

void StopAtEndOfInput() {
  const HANDLE reader = CreateThread(nullptr, 0, ReadToEnd, nullptr, 0, nullptr);
  if (!reader) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "no thread");
  }
  CloseHandle(reader);
}

// The C library's descriptors and the system's handles both lead to the pipes' ends.
void LeaveStreams() {
  const int null = _open("NUL", _O_RDWR);
  if (null == -1) return;
  const DWORD handles[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
  for (int stream = 0; stream < 3; ++stream) {
    _dup2(null, stream);
    SetStdHandle(handles[stream], reinterpret_cast<HANDLE>(_get_osfhandle(stream)));
  }
  _close(null);
}

// Services of this system aren't started so.
bool NotifyReady(std::string_view /*status*/) {
  return false;
}

// Not through the C library's stream: its lock, held by a thread that stays in its write, would
// hold up the end of the process. Line feeds become what text files have here, as in that stream.
// The system has two numbers for a pipe that nobody reads.
uint32_t WriteOutput(std::string_view bytes) {
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  char text[4096];
  while (!bytes.empty()) {
    DWORD size = 0;
    while (!bytes.empty() && size + 2 <= sizeof text) {
      if (bytes.front() == '\n') text[size++] = '\r';
      text[size++] = bytes.front();
      bytes.remove_prefix(1);
    }
    for (DWORD done = 0, count = 0; done < size; done += count) {
      if (WriteFile(output, text + done, size - done, &count, nullptr) && count > 0) continue;
      const DWORD error = GetLastError();
      return error == ERROR_BROKEN_PIPE || error == 0 ? DWORD{ERROR_NO_DATA} : error;
    }
  }
  return 0;
}

// Of a pipe it takes no more than is there, as a read that waits can't be given up. Files have what
// they have, and consoles are waited for.
PipeResult ReadBytes(void* buffer, uint32_t size, uint32_t milliseconds) {
  constexpr DWORD kTurn = 5;  // milliseconds
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  DWORD there = size;
  for (DWORD waited = 0; GetFileType(input) == FILE_TYPE_PIPE; waited += kTurn) {
    if (WaitForStop(0)) return {PipeState::Stopped};
    if (!PeekNamedPipe(input, nullptr, 0, nullptr, &there, nullptr)) {
      if (GetLastError() == ERROR_BROKEN_PIPE) return {PipeState::Ended};
      return {PipeState::Failed, 0, GetLastError()};
    }
    if (there > 0) break;
    if (waited >= milliseconds) return {};
    WaitForStop(kTurn);
  }
  DWORD got = 0;
  if (!ReadFile(input, buffer, there < size ? there : size, &got, nullptr)) {
    const DWORD error = GetLastError();
    if (error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF) return {PipeState::Ended};
    return {PipeState::Failed, 0, error};
  }
  return {got > 0 ? PipeState::Open : PipeState::Ended, got};
}

PipeResult WriteBytes(std::string_view bytes) {
  constexpr size_t kTurn = 65536;
  const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
  uint32_t count = 0;
  while (!bytes.empty()) {
    DWORD written = 0;
    const auto size = static_cast<DWORD>(bytes.size() < kTurn ? bytes.size() : kTurn);
    if (!WriteFile(output, bytes.data(), size, &written, nullptr)) {
      const DWORD error = GetLastError();
      const bool ended = error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA;
      return {ended ? PipeState::Ended : PipeState::Failed, count, ended ? 0 : error};
    }
    count += written;
    bytes.remove_prefix(written);
  }
  return {PipeState::Open, count};
}

void ReturnFreeMemory() {
  _heapmin();
}

void BeginTimerPeriod() {
  KeepTimerResolution();
  timeBeginPeriod(1);
}

void EndTimerPeriod() {
  timeEndPeriod(1);
}

}  // namespace platform
