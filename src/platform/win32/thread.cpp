#include "platform/thread.h"

#include "platform/win32/win.h"

namespace platform {

uint32_t ThreadNumber() {
  return GetCurrentThreadId();
}

void SetTimeCritical() {
  SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
}

bool CanBeTimeCritical() {
  const int priority = GetThreadPriority(GetCurrentThread());
  if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL)) return false;
  SetThreadPriority(GetCurrentThread(), priority);
  return true;
}

}  // namespace platform
