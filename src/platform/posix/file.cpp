#include "platform/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "platform/errors.h"
#include "platform/posix/files.h"

namespace platform {

namespace posix {

bool ToNative(const wchar_t* path, std::string& native) {
  try {
    native = WideToUtf8(path);
    return true;
  } catch (const std::range_error&) {
    return false;
  }
}

uint32_t Error() {
  return static_cast<uint32_t>(errno);
}

uint32_t WriteAll(int fd, const void* buffer, size_t size, size_t* done) {
  const char* bytes = static_cast<const char*>(buffer);
  *done = 0;
  while (*done < size) {
    const ssize_t count = write(fd, bytes + *done, size - *done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Error();
    *done += static_cast<size_t>(count);
  }
  return 0;
}

uint32_t ReadAll(int fd, void* buffer, size_t size, size_t* done) {
  char* bytes = static_cast<char*>(buffer);
  *done = 0;
  while (*done < size) {
    const ssize_t count = read(fd, bytes + *done, size - *done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Error();
    if (count == 0) break;
    *done += static_cast<size_t>(count);
  }
  return 0;
}

}  // namespace posix

using posix::Error;
using posix::ToNative;

namespace {

int Descriptor(FileHandle file) {
  return static_cast<int>(file);
}

uint32_t Result(int result) {
  return result < 0 ? Error() : 0;
}

int OpenRetrying(const char* path, int flags, mode_t mode) {
  for (;;) {
    const int fd = open(path, flags, mode);
    if (fd >= 0 || errno != EINTR) return fd;
  }
}

// Opens without emptying anything yet.
int OpenByDisposition(const char* path, int flags, mode_t mode, Disposition disposition,
                      bool* existed) {
  *existed = true;
  if (disposition == Disposition::OpenExisting || disposition == Disposition::TruncateExisting) {
    return OpenRetrying(path, flags, mode);
  }
  // Only an exclusive creation shows for sure whether the file was there.
  int fd = OpenRetrying(path, flags | O_CREAT | O_EXCL, mode);
  if (fd >= 0) {
    *existed = false;
    return fd;
  }
  if (errno != EEXIST || disposition == Disposition::CreateNew) return -1;
  fd = OpenRetrying(path, flags, mode);
  if (fd >= 0 || errno != ENOENT) return fd;
  // A link that leads to no file yet, or a file that has just gone.
  *existed = false;
  return OpenRetrying(path, flags | O_CREAT, mode);
}

// What else has to hold before the file may be used.
uint32_t Admit(int fd, const OpenOptions& options, bool existed) {
  struct stat info {};
  if (fstat(fd, &info) != 0) return Error();
  if (S_ISDIR(info.st_mode)) return EISDIR;
  if (!S_ISREG(info.st_mode)) {
    const bool device = S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode);
    if (options.read || !device) return EINVAL;
    return Result(fcntl(fd, F_SETFL, 0));  // it was opened not to block; writing may
  }
  if (!options.write) return 0;
  if (flock(fd, (options.shareWrite ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    return EBUSY;  // other failures: a file system without locks, where there is nothing to keep
  }
  const bool empties = options.disposition == Disposition::CreateAlways ||
                       options.disposition == Disposition::TruncateExisting;
  if (empties && existed) return Result(ftruncate(fd, 0));
  return 0;
}

}  // namespace

uint32_t FileOpen(const wchar_t* path, const OpenOptions& options, FileHandle* file,
                  bool* existed) {
  *file = kNoFile;
  std::string native;
  if (!ToNative(path, native)) return kNoTranslation;

  // Not to block: opening a pipe waits for its other end otherwise.
  int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  flags |= options.read && options.write ? O_RDWR : options.write ? O_WRONLY : O_RDONLY;
  mode_t mode = (options.attributes & kAttributeReadOnly) != 0 ? 0444 : 0666;
  if (options.ownerOnly) {
    flags |= O_NOFOLLOW;
    mode &= 0700;
  }
  bool wasThere = false;
  const int fd = OpenByDisposition(native.c_str(), flags, mode, options.disposition, &wasThere);
  if (fd < 0) return Error();
  const uint32_t error = Admit(fd, options, wasThere);
  if (error != 0) {
    close(fd);
    return error;
  }
  *file = fd;
  if (existed) *existed = wasThere;
  return 0;
}

uint32_t FileClose(FileHandle file) {
  // Linux frees the descriptor also when close is interrupted: never twice.
  return close(Descriptor(file)) == 0 || errno == EINTR ? 0 : Error();
}

uint32_t FileRead(FileHandle file, void* buffer, uint32_t size, uint32_t* done) {
  size_t count = 0;
  const uint32_t error = posix::ReadAll(Descriptor(file), buffer, size, &count);
  *done = static_cast<uint32_t>(count);
  return error;
}

uint32_t FileWrite(FileHandle file, const void* buffer, uint32_t size, uint32_t* done) {
  size_t count = 0;
  const uint32_t error = posix::WriteAll(Descriptor(file), buffer, size, &count);
  *done = static_cast<uint32_t>(count);
  return error;
}

uint32_t FileSeek(FileHandle file, int64_t offset, SeekFrom from, uint64_t* position) {
  const int origin = from == SeekFrom::Start     ? SEEK_SET
                     : from == SeekFrom::Current ? SEEK_CUR
                                                 : SEEK_END;
  const off_t reached = lseek(Descriptor(file), offset, origin);
  if (reached < 0) return Error();
  if (position) *position = static_cast<uint64_t>(reached);
  return 0;
}

uint32_t FileSize(FileHandle file, uint64_t* size) {
  struct stat info {};
  if (fstat(Descriptor(file), &info) != 0) return Error();
  *size = static_cast<uint64_t>(info.st_size);
  return 0;
}

uint32_t FileSetEnd(FileHandle file) {
  const off_t position = lseek(Descriptor(file), 0, SEEK_CUR);
  if (position < 0) return Error();
  return Result(ftruncate(Descriptor(file), position));
}

uint32_t FileFlush(FileHandle file) {
  return Result(fsync(Descriptor(file)));
}

uint32_t FileTimes(FileHandle file, FileTime* created, FileTime* accessed, FileTime* modified) {
  FileEntry entry;
  const uint32_t error = posix::Describe(Descriptor(file), "", AT_EMPTY_PATH, entry);
  if (error != 0) return error;
  *created = entry.created;
  *accessed = entry.accessed;
  *modified = entry.modified;
  return 0;
}

namespace {

// Locks of the open file description: classic ones are lost as soon as any descriptor of the file
// is closed, and don't keep the threads of one process apart.
uint32_t SetLock(FileHandle file, short type, bool wait) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;  // the whole file, however it grows
  for (;;) {
    if (fcntl(Descriptor(file), wait ? F_OFD_SETLKW : F_OFD_SETLK, &lock) == 0) return 0;
    if (errno == EINTR) continue;
    return errno == EACCES ? static_cast<uint32_t>(EAGAIN) : Error();  // POSIX allows either
  }
}

}  // namespace

uint32_t FileLock(FileHandle file, bool exclusive, bool wait) {
  return SetLock(file, exclusive ? F_WRLCK : F_RDLCK, wait);
}

uint32_t FileUnlock(FileHandle file) {
  return SetLock(file, F_UNLCK, false);
}

uint32_t PathSetCompression(const wchar_t*, bool) {
  return 0;
}

}  // namespace platform
