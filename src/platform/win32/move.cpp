// What changes the names of files.
#include <string>

#include "platform/errors.h"
#include "platform/win32/files.h"

namespace platform {

using win32::Result;

uint32_t PathRemove(const wchar_t* path) {
  return Result(DeleteFileW(path));
}

uint32_t PathMove(const wchar_t* from, const wchar_t* to, const MoveOptions& options) {
  const DWORD flags = (options.copy ? MOVEFILE_COPY_ALLOWED : 0u) |
                      (options.replace ? MOVEFILE_REPLACE_EXISTING : 0u) |
                      (options.flush ? MOVEFILE_WRITE_THROUGH : 0u) |
                      (options.atRestart ? MOVEFILE_DELAY_UNTIL_REBOOT : 0u);
  return Result(MoveFileExW(from, to, flags));
}

// There are links, but none of them can be removed as long as the file runs under any of its names.
uint32_t PathLinkProgram(const wchar_t*, const wchar_t*) {
  return kNotSupported;
}

uint32_t PathReplace(const wchar_t* from, const wchar_t* to) {
  // Keeps the access rights and attributes of `to`, but needs one that is there.
  if (ReplaceFileW(to, from, nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS, nullptr, nullptr)) return 0;
  if (GetLastError() != ERROR_FILE_NOT_FOUND) return GetLastError();
  return Result(MoveFileExW(from, to, MOVEFILE_WRITE_THROUGH));
}

std::wstring PathFollowLinks(const wchar_t* path) {
  const DWORD attributes = GetFileAttributesW(path);
  const bool link =
      attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  if (!link) return path;
  const HANDLE handle = CreateFileW(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return path;
  std::wstring target(32768, L'\0');  // the longest path of the system
  const DWORD length =
      GetFinalPathNameByHandleW(handle, target.data(), static_cast<DWORD>(target.size()), 0);
  CloseHandle(handle);
  if (length == 0 || length >= target.size()) return path;
  target.resize(length);
  return target;
}

}  // namespace platform
