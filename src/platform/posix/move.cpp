// What changes the names of files.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "platform/errors.h"
#include "platform/posix/files.h"

namespace platform {

using posix::Error;
using posix::ToNative;

namespace {

// Closes a descriptor at the end of the block.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  int Get() const { return fd_; }

 private:
  int fd_;
};

// To the disk, best effort: the names in a directory and the bytes of a file are kept apart there.
void FlushPath(const std::string& path) {
  const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.IsOpen()) fsync(fd.Get());
}

void FlushWithDirectory(const std::string& path) {
  FlushPath(path);
  const size_t separator = path.rfind('/');
  FlushPath(separator == std::string::npos ? "." : path.substr(0, separator + 1));
}

uint32_t Rename(const std::string& from, const std::string& to, bool replace) {
  if (replace) return rename(from.c_str(), to.c_str()) == 0 ? 0 : Error();
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return Error();
  // A file system that can't do it in one step.
  struct stat info {};
  if (lstat(to.c_str(), &info) == 0) return EEXIST;
  return rename(from.c_str(), to.c_str()) == 0 ? 0 : Error();
}

uint32_t CopyBytes(int from, int to) {
  char buffer[65536];
  for (;;) {
    size_t got = 0;
    size_t written = 0;
    uint32_t error = posix::ReadAll(from, buffer, sizeof(buffer), &got);
    if (error == 0) error = posix::WriteAll(to, buffer, got, &written);
    if (error != 0) return error;
    if (got < sizeof(buffer)) return 0;
  }
}

// Copies a regular file with its permissions and times to a new name.
uint32_t CopyFile(const std::string& from, const std::string& to) {
  const Descriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!source.IsOpen()) return Error();
  struct stat info {};
  if (fstat(source.Get(), &info) != 0) return Error();
  if (!S_ISREG(info.st_mode)) return EXDEV;

  const Descriptor target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!target.IsOpen()) return Error();
  uint32_t error = CopyBytes(source.Get(), target.Get());
  if (error == 0 && fchmod(target.Get(), info.st_mode & 07777) != 0) error = Error();
  if (error == 0 && fsync(target.Get()) != 0) error = Error();  // the original goes next
  if (error == 0) {
    const timespec times[] = {info.st_atim, info.st_mtim};
    futimens(target.Get(), times);
  } else {
    unlink(to.c_str());
  }
  return error;
}

// To another volume: a copy beside the target takes the target's name in one step.
uint32_t MoveByCopy(const std::string& from, const std::string& to, bool replace) {
  const std::string copy = to + ".move";
  uint32_t error = CopyFile(from, copy);
  if (error != 0) return error;
  error = Rename(copy, to, replace);
  if (error != 0) {
    unlink(copy.c_str());
    return error;
  }
  return unlink(from.c_str()) == 0 ? 0 : Error();
}

}  // namespace

uint32_t PathRemove(const wchar_t* path) {
  std::string native;
  if (!ToNative(path, native)) return kNoTranslation;
  // Without this a file could be deleted under its writer, which goes on and fills the disk with
  // bytes that nobody finds.
  struct stat info {};
  const bool regular = lstat(native.c_str(), &info) == 0 && S_ISREG(info.st_mode);
  const Descriptor fd(regular ? open(native.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)
                              : -1);
  if (fd.IsOpen() && flock(fd.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    return EBUSY;
  }
  return unlink(native.c_str()) == 0 ? 0 : Error();
}

uint32_t PathMove(const wchar_t* from, const wchar_t* to, const MoveOptions& options) {
  if (options.atRestart) return ENOSYS;
  std::string source;
  std::string target;
  if (!ToNative(from, source) || !ToNative(to, target)) return kNoTranslation;
  uint32_t error = Rename(source, target, options.replace);
  if (error == EXDEV && options.copy) error = MoveByCopy(source, target, options.replace);
  if (error == 0 && options.flush) FlushWithDirectory(target);
  return error;
}

uint32_t PathLinkProgram(const wchar_t* from, const wchar_t* to) {
  std::string source;
  std::string target;
  if (!ToNative(from, source) || !ToNative(to, target)) return kNoTranslation;
  return link(source.c_str(), target.c_str()) == 0 ? 0 : Error();
}

uint32_t PathReplace(const wchar_t* from, const wchar_t* to) {
  std::string source;
  std::string target;
  if (!ToNative(from, source) || !ToNative(to, target)) return kNoTranslation;
  struct stat old {};
  struct stat now {};
  if (stat(target.c_str(), &old) == 0) {
    if (stat(source.c_str(), &now) != 0) return Error();
    const bool sameOwner = old.st_uid == now.st_uid && old.st_gid == now.st_gid;
    if (!sameOwner && chown(source.c_str(), old.st_uid, old.st_gid) != 0) return Error();
    if (chmod(source.c_str(), old.st_mode & 07777) != 0) return Error();
  }
  if (rename(source.c_str(), target.c_str()) != 0) return Error();
  FlushWithDirectory(target);
  return 0;
}

std::wstring PathFollowLinks(const wchar_t* path) {
  std::string native;
  if (!ToNative(path, native)) return path;
  const std::unique_ptr<char, decltype(&free)> real(realpath(native.c_str(), nullptr), &free);
  if (!real) return path;
  try {
    return Utf8ToWide(real.get());
  } catch (const std::exception&) {
    return path;
  }
}

}  // namespace platform
