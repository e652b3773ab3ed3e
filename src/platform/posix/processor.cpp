#include "platform/processor.h"

namespace platform {

bool HasSsse3() {
#if defined(__x86_64__)
  return __builtin_cpu_supports("ssse3");
#else
  return false;
#endif
}

}  // namespace platform
