#include "platform/processor.h"

#include <windows.h>

namespace platform {

bool HasSsse3() {
  return IsProcessorFeaturePresent(PF_SSSE3_INSTRUCTIONS_AVAILABLE) != FALSE;
}

}  // namespace platform
