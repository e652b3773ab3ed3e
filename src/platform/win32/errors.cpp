#include "platform/errors.h"

#include "platform/win32/win.h"

namespace platform {

const uint32_t kFileNotFound = ERROR_FILE_NOT_FOUND;
const uint32_t kPathNotFound = ERROR_PATH_NOT_FOUND;
const uint32_t kFileExists = ERROR_FILE_EXISTS;
const uint32_t kAlreadyExists = ERROR_ALREADY_EXISTS;
const uint32_t kBusy = ERROR_SHARING_VIOLATION;
const uint32_t kLocked = ERROR_LOCK_VIOLATION;
const uint32_t kInvalidHandle = ERROR_INVALID_HANDLE;
const uint32_t kSocketClosed = WSAENOTSOCK;
const uint32_t kInvalidArgument = ERROR_INVALID_PARAMETER;
const uint32_t kNotSupported = ERROR_NOT_SUPPORTED;
const uint32_t kPipeClosed = ERROR_NO_DATA;

const uint32_t kAddrInUse = WSAEADDRINUSE;
const uint32_t kMsgSize = WSAEMSGSIZE;
const uint32_t kConnRefused = WSAECONNREFUSED;

}  // namespace platform
