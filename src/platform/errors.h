// The operating system's own error numbers that the logic compares or hands out. All others pass
// through as the system gives them, for whoever reads the log of that system.
#pragma once

#include <cstdint>

namespace platform {

// The same on every system, as the program itself gives them.
constexpr uint32_t kNoPlace = 14;          // no memory for one more open file
constexpr uint32_t kNoMoreFiles = 18;      // the end of a directory listing
constexpr uint32_t kNoTranslation = 1113;  // a name that can't be converted to or from text

// The numbers of the running system. Constant-initialised: usable before main.
extern const uint32_t kFileNotFound;
extern const uint32_t kPathNotFound;  // a missing directory; some systems give kFileNotFound
extern const uint32_t kFileExists;    // a file that was to be new is there
extern const uint32_t
    kAlreadyExists;             // the file to be opened was there, or the target of a move is
extern const uint32_t kBusy;    // somebody else writes the file
extern const uint32_t kLocked;  // TryLock found the file locked
extern const uint32_t kInvalidHandle;  // the file is closed
extern const uint32_t kSocketClosed;   // the socket is
extern const uint32_t kInvalidArgument;
extern const uint32_t kNotSupported;
extern const uint32_t kPipeClosed;  // nobody reads at the other end

extern const uint32_t kAddrInUse;  // the port is taken
extern const uint32_t kMsgSize;    // a datagram too large for the network or the buffer
extern const uint32_t kConnRefused;

}  // namespace platform
