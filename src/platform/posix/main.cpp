#include "platform/startup.h"

int main() {
  return ProgramMain();
}
