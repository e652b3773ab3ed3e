// What the file sources of this folder share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/file.h"
#include "platform/text.h"

namespace platform::posix {

// False if the path isn't text.
bool ToNative(const wchar_t* path, std::string& native);

// errno as an error number.
uint32_t Error();

// Go on after interruptions and short counts. `done` is the count moved, also after a failure.
uint32_t WriteAll(int fd, const void* buffer, size_t size, size_t* done);
uint32_t ReadAll(int fd, void* buffer, size_t size, size_t* done);

// Fills all but the name of `entry` for `path` below the directory `dirFd`, or for `dirFd` itself
// with an empty path and AT_EMPTY_PATH. A link is followed unless it leads nowhere.
uint32_t Describe(int dirFd, const char* path, int flags, FileEntry& entry);

}  // namespace platform::posix
