// What the file sources of this folder share.
#pragma once

#include <cstdint>

#include "platform/file.h"
#include "platform/win32/win.h"

namespace platform::win32 {

inline HANDLE AsHandle(FileHandle handle) {
  return reinterpret_cast<HANDLE>(handle);
}

// The error number of a call that gave `success`.
inline uint32_t Result(BOOL success) {
  return success ? 0 : GetLastError();
}

FileTime ToFileTime(const FILETIME& time);

}  // namespace platform::win32
