#include <signal.h>
#include <unistd.h>

#include "support/System.h"

int OwnProcessId() {
  return getpid();
}

void PrepareForChildren() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGINT, SIG_DFL);
  signal(SIGHUP, SIG_DFL);
}

void Interrupt(int processId) {
  kill(processId, SIGINT);
}

void Terminate(int processId) {
  kill(processId, SIGTERM);
}

bool UnderWine() {
  return false;
}

std::string FromConsole(const std::string& bytes) {
  return bytes;
}
