#include "platform/terminal.h"

#include "platform/win32/win.h"

namespace platform {

namespace {

HANDLE HandleOf(Stream stream) {
  return GetStdHandle(stream == Stream::Output ? STD_OUTPUT_HANDLE : STD_ERROR_HANDLE);
}

}  // namespace

bool IsTerminal(Stream stream) {
  const HANDLE handle = HandleOf(stream);
  DWORD mode = 0;
  if (!GetConsoleMode(handle, &mode)) return false;
  // Consoles before Windows 10 refuse; they get plain text.
  return SetConsoleMode(handle, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

// The window's, not the buffer's, which is thousands of lines long.
std::optional<TerminalSize> SizeOf(Stream stream) {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  if (!GetConsoleScreenBufferInfo(HandleOf(stream), &info)) return std::nullopt;
  const int columns = info.srWindow.Right - info.srWindow.Left + 1;
  const int rows = info.srWindow.Bottom - info.srWindow.Top + 1;
  if (columns <= 0 || rows <= 0) return std::nullopt;
  return TerminalSize{static_cast<uint32_t>(columns), static_cast<uint32_t>(rows)};
}

struct Keys::Impl {
  DWORD before = 0;
};

Keys::Keys() {
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  auto impl = std::make_unique<Impl>();
  if (!GetConsoleMode(input, &impl->before)) return;
  const DWORD modes = impl->before & ~DWORD{ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT};
  if (SetConsoleMode(input, modes)) impl_ = std::move(impl);
}

// What was typed and not taken goes: the shell would take it for its next command.
Keys::~Keys() {
  if (!impl_) return;
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  FlushConsoleInputBuffer(input);
  SetConsoleMode(input, impl_->before);
}

// A console also reports keys that are let go, the mouse and its own size.
std::optional<char> Keys::Take() {
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  DWORD waiting = 0;
  while (impl_ && GetNumberOfConsoleInputEvents(input, &waiting) && waiting > 0) {
    INPUT_RECORD event{};
    DWORD got = 0;
    if (!ReadConsoleInputW(input, &event, 1, &got) || got == 0) break;
    if (event.EventType != KEY_EVENT || !event.Event.KeyEvent.bKeyDown) continue;
    const wchar_t key = event.Event.KeyEvent.uChar.UnicodeChar;
    if (key > 0 && key < 0x80) return static_cast<char>(key);
  }
  return std::nullopt;
}

}  // namespace platform
