// Attributes and listings.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "platform/errors.h"
#include "platform/posix/files.h"

namespace platform {

using posix::Error;
using posix::ToNative;

namespace posix {

namespace {

FileTime ToFileTime(const statx_timestamp& time) {
  return {static_cast<uint32_t>(time.tv_sec), time.tv_nsec};
}

// Hidden, system and archive have no counterpart here and are not made up.
uint32_t AttributesOf(const struct statx& info, bool link) {
  uint32_t attributes = link ? kAttributeLink : 0;
  if (S_ISDIR(info.stx_mode)) {
    attributes |= kAttributeDirectory;
  } else if (!S_ISREG(info.stx_mode) && !S_ISLNK(info.stx_mode)) {
    attributes |= kAttributeDevice;
  }
  if ((info.stx_mode & S_IWUSR) == 0) attributes |= kAttributeReadOnly;
  return attributes != 0 ? attributes : kAttributeNormal;
}

}  // namespace

uint32_t Describe(int dirFd, const char* path, int flags, FileEntry& entry) {
  constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;
  struct statx info {};
  if (statx(dirFd, path, flags | AT_SYMLINK_NOFOLLOW, kWanted, &info) != 0) return Error();
  const bool link = S_ISLNK(info.stx_mode);
  if (link) {
    struct statx target {};
    if (statx(dirFd, path, flags, kWanted, &target) == 0) info = target;
  }
  entry.size = info.stx_size;
  // File systems that don't keep the birth get the latest change of the file's status instead.
  const bool knowsBirth = (info.stx_mask & STATX_BTIME) != 0;
  entry.created = ToFileTime(knowsBirth ? info.stx_btime : info.stx_ctime);
  entry.accessed = ToFileTime(info.stx_atime);
  entry.modified = ToFileTime(info.stx_mtime);
  entry.attributes = AttributesOf(info, link);
  return 0;
}

}  // namespace posix

uint32_t PathGetAttributes(const wchar_t* path, uint32_t* attributes) {
  std::string native;
  if (!ToNative(path, native)) return kNoTranslation;
  FileEntry entry;
  const uint32_t error = posix::Describe(AT_FDCWD, native.c_str(), 0, entry);
  if (error == 0) *attributes = entry.attributes;
  return error;
}

uint32_t PathSetAttributes(const wchar_t* path, uint32_t attributes) {
  std::string native;
  if (!ToNative(path, native)) return kNoTranslation;
  struct stat info {};
  if (stat(native.c_str(), &info) != 0) return Error();
  constexpr mode_t kAllWrite = S_IWUSR | S_IWGRP | S_IWOTH;
  mode_t mode = info.st_mode & 07777;
  if ((attributes & kAttributeReadOnly) != 0) {
    mode &= ~kAllWrite;
  } else if ((mode & S_IWUSR) == 0) {
    mode |= S_IWUSR;
  }
  return chmod(native.c_str(), mode) == 0 ? 0 : Error();
}

uint32_t PathMakeDir(const wchar_t* path) {
  std::string native;
  if (!ToNative(path, native)) return kNoTranslation;
  return mkdir(native.c_str(), 0700) == 0 ? 0 : Error();
}

uint32_t PathCheckOwnDir(const wchar_t* path) {
  std::string native;
  if (!ToNative(path, native)) return kNoTranslation;
  struct stat info {};
  if (lstat(native.c_str(), &info) != 0) return Error();
  if (!S_ISDIR(info.st_mode)) return ENOTDIR;
  const bool own = info.st_uid == geteuid() && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return own ? 0 : static_cast<uint32_t>(EPERM);
}

namespace {

struct Listing {
  explicit Listing(DIR* opened) : dir(opened) {}
  ~Listing() { closedir(dir); }
  Listing(const Listing&) = delete;
  Listing& operator=(const Listing&) = delete;

  DIR* dir;
  bool givenParent = false;
};

Listing* AsListing(FileHandle handle) {
  return reinterpret_cast<Listing*>(handle);
}

}  // namespace

uint32_t ListOpen(const wchar_t* search, FileHandle* listing, FileEntry* first) {
  *listing = kNoFile;
  std::string native;
  if (!ToNative(search, native)) return kNoTranslation;
  // Of "directory/*.*" the part up to the separator, which alone names the root directory.
  const size_t separator = native.rfind('/');
  native.resize(separator == std::string::npos ? 0 : separator + 1);

  DIR* dir = opendir(native.empty() ? "." : native.c_str());
  if (!dir) return Error();
  auto opened = std::make_unique<Listing>(dir);
  const uint32_t error = posix::Describe(dirfd(dir), ".", 0, *first);
  if (error != 0) return error;
  first->name = L".";
  *listing = reinterpret_cast<FileHandle>(opened.release());
  return 0;
}

uint32_t ListNext(FileHandle listing, FileEntry* entry) {
  Listing& list = *AsListing(listing);
  if (!list.givenParent) {
    list.givenParent = true;
    entry->name = L"..";
    if (posix::Describe(dirfd(list.dir), "..", 0, *entry) == 0) return 0;
  }
  for (;;) {
    errno = 0;
    const dirent* found = readdir(list.dir);
    if (!found) return errno != 0 ? Error() : kNoMoreFiles;
    const std::string_view name = found->d_name;
    if (name == "." || name == "..") continue;
    try {
      entry->name = Utf8ToWide(found->d_name);
    } catch (const std::range_error&) {
      return kNoTranslation;
    }
    if (posix::Describe(dirfd(list.dir), found->d_name, 0, *entry) == 0) return 0;
    // It has gone since the directory was read.
  }
}

uint32_t ListClose(FileHandle listing) {
  delete AsListing(listing);
  return 0;
}

}  // namespace platform
