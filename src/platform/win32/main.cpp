#include "platform/startup.h"

int wmain() {
  return ProgramMain();
}
