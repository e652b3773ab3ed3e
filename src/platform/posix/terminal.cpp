#include "platform/terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace platform {

namespace {

int DescriptorOf(Stream stream) {
  return stream == Stream::Output ? STDOUT_FILENO : STDERR_FILENO;
}

// The terminal's keys belong to this program's job. From another job's terminal a read, or a change
// of its modes, would stop this program.
bool InForeground() {
  return tcgetpgrp(STDIN_FILENO) == getpgrp();
}

}  // namespace

bool IsTerminal(Stream stream) {
  return isatty(DescriptorOf(stream)) == 1;
}

// A serial line has no size: 0 by 0.
std::optional<TerminalSize> SizeOf(Stream stream) {
  winsize size{};
  if (ioctl(DescriptorOf(stream), TIOCGWINSZ, &size) != 0) return std::nullopt;
  if (size.ws_col == 0 || size.ws_row == 0) return std::nullopt;
  return TerminalSize{size.ws_col, size.ws_row};
}

struct Keys::Impl {
  termios before{};
};

Keys::Keys() {
  termios modes{};
  if (!InForeground() || tcgetattr(STDIN_FILENO, &modes) != 0) return;
  auto impl = std::make_unique<Impl>();
  impl->before = modes;
  modes.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  modes.c_cc[VMIN] = 1;
  modes.c_cc[VTIME] = 0;
  modes.c_cc[VSUSP] = modes.c_cc[VQUIT] = _POSIX_VDISABLE;
  if (tcsetattr(STDIN_FILENO, TCSANOW, &modes) == 0) impl_ = std::move(impl);
}

// What was typed and not taken goes: the shell would take it for its next command.
Keys::~Keys() {
  if (impl_ && InForeground()) tcsetattr(STDIN_FILENO, TCSAFLUSH, &impl_->before);
}

std::optional<char> Keys::Take() {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  if (!impl_ || !InForeground() || poll(&input, 1, 0) <= 0) return std::nullopt;
  char key = 0;
  if (read(STDIN_FILENO, &key, 1) != 1) return std::nullopt;
  return key;
}

}  // namespace platform
