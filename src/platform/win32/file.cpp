#include "platform/file.h"

#include "platform/errors.h"
#include "platform/win32/files.h"

#include <winioctl.h>  // needs the headers of win.h before it

namespace platform {

using win32::AsHandle;
using win32::Result;

static_assert(kNoFile == static_cast<FileHandle>(-1), "INVALID_HANDLE_VALUE");

namespace win32 {

FileTime ToFileTime(const FILETIME& time) {
  // Windows counts 100 ns since 1601-01-01; so many lie before 1970-01-01.
  constexpr uint64_t kUntil1970 = 116'444'736'000'000'000;
  const uint64_t units = (uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime) - kUntil1970;
  return {static_cast<uint32_t>(units / 10'000'000),
          static_cast<uint32_t>(units % 10'000'000 * 100)};
}

}  // namespace win32

namespace {

DWORD NativeDisposition(Disposition disposition) {
  switch (disposition) {
    case Disposition::CreateNew:
      return CREATE_NEW;
    case Disposition::CreateAlways:
      return CREATE_ALWAYS;
    case Disposition::OpenAlways:
      return OPEN_ALWAYS;
    case Disposition::TruncateExisting:
      return TRUNCATE_EXISTING;
    case Disposition::OpenExisting:
      break;
  }
  return OPEN_EXISTING;
}

}  // namespace

// Windows keeps the sharing modes and empties a file only once they admit it, so one call does all
// that other systems need several for. It sets the last error after a success too, if the file was
// there; only for the dispositions that may make one. What isn't a file on a disk (a pipe, a
// console, CON or NUL under any folder) is refused to readers: it would block them.
uint32_t FileOpen(const wchar_t* path, const OpenOptions& options, FileHandle* file,
                  bool* existed) {
  *file = kNoFile;
  const DWORD access = (options.read ? GENERIC_READ : 0u) | (options.write ? GENERIC_WRITE : 0u);
  const DWORD share =
      (options.shareRead ? FILE_SHARE_READ : 0u) | (options.shareWrite ? FILE_SHARE_WRITE : 0u);
  const DWORD disposition = NativeDisposition(options.disposition);
  const HANDLE handle =
      CreateFileW(path, access, share, nullptr, disposition, options.attributes, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return GetLastError();
  const bool wasThere = disposition == OPEN_EXISTING || disposition == TRUNCATE_EXISTING ||
                        GetLastError() == ERROR_ALREADY_EXISTS;
  if (options.read && GetFileType(handle) != FILE_TYPE_DISK) {
    CloseHandle(handle);
    return kInvalidArgument;
  }
  *file = reinterpret_cast<FileHandle>(handle);
  if (existed) *existed = wasThere;
  return 0;
}

uint32_t FileClose(FileHandle file) {
  return Result(CloseHandle(AsHandle(file)));
}

uint32_t FileRead(FileHandle file, void* buffer, uint32_t size, uint32_t* done) {
  DWORD count = 0;
  const uint32_t error = Result(ReadFile(AsHandle(file), buffer, size, &count, nullptr));
  *done = count;
  return error;
}

uint32_t FileWrite(FileHandle file, const void* buffer, uint32_t size, uint32_t* done) {
  DWORD count = 0;
  const uint32_t error = Result(WriteFile(AsHandle(file), buffer, size, &count, nullptr));
  *done = count;
  return error;
}

uint32_t FileSeek(FileHandle file, int64_t offset, SeekFrom from, uint64_t* position) {
  const DWORD origin = from == SeekFrom::Start     ? FILE_BEGIN
                       : from == SeekFrom::Current ? FILE_CURRENT
                                                   : FILE_END;
  LARGE_INTEGER distance{};
  LARGE_INTEGER reached{};
  distance.QuadPart = offset;
  if (!SetFilePointerEx(AsHandle(file), distance, &reached, origin)) return GetLastError();
  if (position) *position = static_cast<uint64_t>(reached.QuadPart);
  return 0;
}

uint32_t FileSize(FileHandle file, uint64_t* size) {
  LARGE_INTEGER bytes{};
  if (!GetFileSizeEx(AsHandle(file), &bytes)) return GetLastError();
  *size = static_cast<uint64_t>(bytes.QuadPart);
  return 0;
}

uint32_t FileSetEnd(FileHandle file) {
  return Result(SetEndOfFile(AsHandle(file)));
}

uint32_t FileFlush(FileHandle file) {
  return Result(FlushFileBuffers(AsHandle(file)));
}

uint32_t FileTimes(FileHandle file, FileTime* created, FileTime* accessed, FileTime* modified) {
  FILETIME times[3] = {};
  if (!GetFileTime(AsHandle(file), &times[0], &times[1], &times[2])) return GetLastError();
  *created = win32::ToFileTime(times[0]);
  *accessed = win32::ToFileTime(times[1]);
  *modified = win32::ToFileTime(times[2]);
  return 0;
}

// The whole range of 64 bits from offset 0, so that the lock also covers what is written later.
uint32_t FileLock(FileHandle file, bool exclusive, bool wait) {
  const DWORD flags =
      (exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0u) | (wait ? 0u : LOCKFILE_FAIL_IMMEDIATELY);
  OVERLAPPED start{};
  return Result(LockFileEx(AsHandle(file), flags, 0, MAXDWORD, MAXDWORD, &start));
}

uint32_t FileUnlock(FileHandle file) {
  OVERLAPPED start{};
  return Result(UnlockFileEx(AsHandle(file), 0, MAXDWORD, MAXDWORD, &start));
}

// Not shared: a file that somebody else has open stays as it is. The flag admits folders too, for
// which compression is what new files in them get.
uint32_t PathSetCompression(const wchar_t* path, bool on) {
  const HANDLE handle = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return GetLastError();
  USHORT format = on ? COMPRESSION_FORMAT_DEFAULT : COMPRESSION_FORMAT_NONE;
  DWORD returned = 0;
  const uint32_t error = Result(DeviceIoControl(handle, FSCTL_SET_COMPRESSION, &format,
                                                sizeof(format), nullptr, 0, &returned, nullptr));
  CloseHandle(handle);
  return error;
}

}  // namespace platform
