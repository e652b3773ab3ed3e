#include "platform/terminal.h"

#include <unistd.h>

namespace platform {

bool IsTerminal(Stream stream) {
  return isatty(stream == Stream::Output ? STDOUT_FILENO : STDERR_FILENO) == 1;
}

}  // namespace platform
