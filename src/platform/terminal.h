// The terminal that the program's standard streams are connected to, if any: its size, its keys.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

namespace platform {

enum class Stream { Output, Error };

// The stream is a terminal that takes colours (ANSI escape sequences, ECMA-48) and carriage
// returns. On Windows the first call switches them on.
bool IsTerminal(Stream stream);

struct TerminalSize {
  uint32_t columns = 80;
  uint32_t rows = 24;
};

// The size of the stream's terminal now; a user may change it at any time. Nothing where there is
// no terminal, or none that knows its size.
std::optional<TerminalSize> SizeOf(Stream stream);

// For as long as it lives, the keys of the terminal on standard input come one by one and aren't
// shown. Ctrl-C and a closed terminal keep their meaning; the keys that stop or kill a program on
// the spot (Ctrl-Z and Ctrl-\ on POSIX systems) come as keys. Its end leaves the terminal as it
// was. On one thread. Without a terminal there, or in its background, there are no keys.
class Keys {
 public:
  Keys();
  ~Keys();
  Keys(const Keys&) = delete;
  Keys& operator=(const Keys&) = delete;

  // There is a terminal to take keys from.
  bool Ok() const { return impl_ != nullptr; }

  // The next ASCII character that was typed and not yet taken; nothing if there is none. Never
  // waits.
  std::optional<char> Take();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
