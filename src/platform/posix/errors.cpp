#include "platform/errors.h"

#include <cerrno>

namespace platform {

const uint32_t kFileNotFound = ENOENT;
const uint32_t kPathNotFound = ENOENT;
const uint32_t kFileExists = EEXIST;
const uint32_t kAlreadyExists = EEXIST;
const uint32_t kBusy = EBUSY;
const uint32_t kLocked = EAGAIN;
const uint32_t kInvalidHandle = EBADF;
const uint32_t kSocketClosed = EBADF;
const uint32_t kInvalidArgument = EINVAL;
const uint32_t kNotSupported = ENOSYS;
const uint32_t kPipeClosed = EPIPE;

const uint32_t kAddrInUse = EADDRINUSE;
const uint32_t kMsgSize = EMSGSIZE;
const uint32_t kConnRefused = ECONNREFUSED;

}  // namespace platform
