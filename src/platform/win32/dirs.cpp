// Attributes and listings.
#include "platform/errors.h"
#include "platform/win32/files.h"

namespace platform {

using win32::AsHandle;
using win32::Result;

uint32_t PathGetAttributes(const wchar_t* path, uint32_t* attributes) {
  const DWORD found = GetFileAttributesW(path);
  if (found == INVALID_FILE_ATTRIBUTES) return GetLastError();
  *attributes = found;
  return 0;
}

uint32_t PathSetAttributes(const wchar_t* path, uint32_t attributes) {
  return Result(SetFileAttributesW(path, attributes));
}

// The directory for temporary files is each user's own here, and hands its rights on.
uint32_t PathMakeDir(const wchar_t* path) {
  return Result(CreateDirectoryW(path, nullptr));
}

uint32_t PathCheckOwnDir(const wchar_t* path) {
  uint32_t attributes = 0;
  const uint32_t error = PathGetAttributes(path, &attributes);
  if (error != 0) return error;
  const bool plain = (attributes & (kAttributeDirectory | kAttributeLink)) == kAttributeDirectory;
  return plain ? 0 : static_cast<uint32_t>(ERROR_DIRECTORY);
}

namespace {

void Fill(const WIN32_FIND_DATAW& found, FileEntry* entry) {
  entry->size = uint64_t{found.nFileSizeHigh} << 32 | found.nFileSizeLow;
  entry->created = win32::ToFileTime(found.ftCreationTime);
  entry->accessed = win32::ToFileTime(found.ftLastAccessTime);
  entry->modified = win32::ToFileTime(found.ftLastWriteTime);
  entry->attributes = found.dwFileAttributes;
  entry->name = found.cFileName;
}

}  // namespace

uint32_t ListOpen(const wchar_t* search, FileHandle* listing, FileEntry* first) {
  *listing = kNoFile;
  WIN32_FIND_DATAW found{};
  const HANDLE handle = FindFirstFileW(search, &found);
  if (handle == INVALID_HANDLE_VALUE) return GetLastError();
  Fill(found, first);
  *listing = reinterpret_cast<FileHandle>(handle);
  return 0;
}

uint32_t ListNext(FileHandle listing, FileEntry* entry) {
  WIN32_FIND_DATAW found{};
  if (!FindNextFileW(AsHandle(listing), &found)) return GetLastError();
  Fill(found, entry);
  return 0;
}

uint32_t ListClose(FileHandle listing) {
  return Result(FindClose(AsHandle(listing)));
}

}  // namespace platform
