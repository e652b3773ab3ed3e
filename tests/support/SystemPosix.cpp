#include <unistd.h>

#include "support/System.h"

int OwnProcessId() {
  return getpid();
}

bool UnderWine() {
  return false;
}

std::string FromConsole(const std::string& bytes) {
  return bytes;
}
