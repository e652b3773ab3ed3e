#include "platform/terminal.h"

#include "platform/win32/win.h"

namespace platform {

bool IsTerminal(Stream stream) {
  const HANDLE handle =
      GetStdHandle(stream == Stream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
  DWORD mode = 0;
  if (!GetConsoleMode(handle, &mode)) return false;
  // Consoles before Windows 10 refuse; they get plain text.
  return SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

}  // namespace platform
