// What the program's standard streams are connected to.
#pragma once

namespace platform {

enum class Stream { Output, Error };

// The stream is a terminal that takes colours (ANSI escape sequences, ECMA-48) and carriage
// returns. On Windows the first call switches them on.
bool IsTerminal(Stream stream);

}  // namespace platform
