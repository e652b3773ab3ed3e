// The file layer as its users see it: operations on paths, an open file, a directory listing.
// Results are true or not null on success; the operating system's error number is then what
// GetLastError of the object that was asked gives. Nothing is logged.
//
// Narrow paths are UTF-8 and throw std::range_error("bad conversion") when they aren't; nothing
// else throws. Any thread may use the one IFS, but its GetLastError is one value for all threads. A
// file or a listing belongs to one thread at a time.
#pragma once

#include <cstdint>

#include "platform/file.h"

namespace fs {

using platform::FileTime;

// Bits of FileDescription::attributes; the first five also of IFS::Open.
constexpr uint32_t kReadOnly = 0x1;
constexpr uint32_t kSystem = 0x2;
constexpr uint32_t kHidden = 0x4;
constexpr uint32_t kArchive = 0x8;
constexpr uint32_t kTemporary = 0x10;
constexpr uint32_t kCompressed = 0x20;
constexpr uint32_t kEncrypted = 0x40;
constexpr uint32_t kSparse = 0x80;
constexpr uint32_t kLink = 0x100;
constexpr uint32_t kOffline = 0x200;
constexpr uint32_t kNotIndexed = 0x400;
constexpr uint32_t kDirectory = 0x800;
constexpr uint32_t kDevice = 0x1000;

// Bits of the mode of IFS::Open.
constexpr uint32_t kRead = 0x1;  // alone: an existing file, whatever the other bits say
constexpr uint32_t kWrite = 0x2;
constexpr uint32_t kTruncate = 0x4;      // with kWrite: starts with an empty file
constexpr uint32_t kMustExist = 0x8;     // with kWrite: the file must exist
constexpr uint32_t kMustBeNew = 0x10;    // with kWrite: the file must not exist
constexpr uint32_t kShareWrite = 0x100;  // others may also write
constexpr uint32_t kDenyRead = 0x200;    // others may not read

// Bits of the flags of IFS::Move.
constexpr uint32_t kMoveCopy = 0x1;       // to another volume by copying
constexpr uint32_t kMoveReplace = 0x2;    // an existing target is replaced
constexpr uint32_t kMoveFlush = 0x4;      // returns when it is on the disk
constexpr uint32_t kMoveAtRestart = 0x8;  // only when the machine starts again

// What IFS::GetAttributes gives for a failure.
constexpr uint32_t kNoAttributes = 0xFFFFFFFF;

struct FileDescription {
  uint64_t size = 0;  // bytes
  FileTime created;
  FileTime accessed;
  FileTime modified;
  uint32_t attributes = 0;  // kReadOnly to kDevice; 0 for an ordinary file
};

// A name is cut at the end of a character if it doesn't fit with its NUL.
struct FindRecord : FileDescription {
  char name[512] = {};  // UTF-8
};
struct FindRecordW : FileDescription {
  wchar_t name[512] = {};
};

class IFile {
 public:
  virtual ~IFile() = default;  // closes the file if it is open

  // Of the latest operation on this file. Right after IFS::Open it says whether the file was
  // there before: platform::kAlreadyExists if so, else 0.
  virtual uint32_t GetLastError() = 0;
  virtual void Close() = 0;

  // `done` gets the number of bytes moved, also after a failure. Less than `size` with success is
  // the end of the file. With keepPosition the position is as before, also after a failure.
  virtual bool Read(void* buffer, uint32_t size, uint32_t* done) = 0;
  virtual bool ReadAt(uint64_t position, void* buffer, uint32_t size, uint32_t* done,
                      bool keepPosition) = 0;
  virtual bool Write(const void* buffer, uint32_t size, uint32_t* done) = 0;
  virtual bool WriteAt(uint64_t position, const void* buffer, uint32_t size, uint32_t* done,
                       bool keepPosition) = 0;
  virtual bool Flush() = 0;

  // `origin`: 0 the start, 1 the present position, 2 the end. `position`, like the out values of
  // Tell and GetSize, is all ones after a failure.
  virtual bool Seek(int64_t offset, uint32_t origin, uint64_t* position) = 0;
  virtual bool Seek(int64_t offset, uint32_t origin) = 0;
  virtual bool Tell(uint64_t* position) = 0;
  virtual bool GetSize(uint64_t* size) = 0;
  virtual bool SetEnd() = 0;  // the file ends at the present position

  // The whole file, against other locks. TryLock fails at once if the lock isn't free.
  virtual bool Lock(bool exclusive) = 0;
  virtual bool TryLock(bool exclusive) = 0;
  virtual bool Unlock() = 0;

  virtual FileTime GetModifyTime() = 0;  // zero after a failure
  // Out values stay as they are after a failure.
  virtual bool GetTimes(FileTime* created, FileTime* accessed, FileTime* modified) = 0;
};

class IFileFinder {
 public:
  virtual ~IFileFinder() = default;

  virtual uint32_t GetLastError() = 0;
  virtual void Close() = 0;

  // False at the end (platform::kNoMoreFiles), and for a name that isn't text
  // (platform::kNoTranslation), after which the next call goes on.
  virtual bool FindNext(FindRecord* record) = 0;
  virtual bool FindNext(FindRecordW* record) = 0;
};

class IFS {
 public:
  virtual ~IFS() = default;

  virtual bool Remove(const char* path) = 0;
  virtual bool Remove(const wchar_t* path) = 0;
  virtual bool Move(const char* from, const char* to, uint32_t flags) = 0;
  virtual bool Move(const wchar_t* from, const wchar_t* to, uint32_t flags) = 0;
  virtual bool MakeDir(const char* path) = 0;  // one level
  virtual bool MakeDir(const wchar_t* path) = 0;

  // The system's own attribute bits (platform::kAttribute...), not those of FileDescription.
  virtual bool SetAttributes(const char* path, uint32_t attributes) = 0;
  virtual bool SetAttributes(const wchar_t* path, uint32_t attributes) = 0;
  virtual uint32_t GetAttributes(const char* path) = 0;
  virtual uint32_t GetAttributes(const wchar_t* path) = 0;

  virtual uint32_t GetLastError() = 0;

  // The caller owns the file, and deletes it before the file layer ends. `attributes` are those of
  // a file that is made. A mode without read and write access gives null and sets no error.
  virtual IFile* Open(const char* path, uint32_t mode, uint32_t attributes) = 0;
  virtual IFile* Open(const wchar_t* path, uint32_t mode, uint32_t attributes) = 0;

  // Fills `record` with the first entry, which is "."; then comes "..". The caller owns the finder.
  virtual IFileFinder* FindFirst(const char* directory, FindRecord* record) = 0;
  virtual IFileFinder* FindFirst(const wchar_t* directory, FindRecordW* record) = 0;
};

// A scoped reference to the one IFS, which the first Get creates and which then stays until the
// process ends. Any thread.
class FsRef {
 public:
  FsRef();
  ~FsRef();
  FsRef(const FsRef&) = delete;
  FsRef& operator=(const FsRef&) = delete;

  IFS* Get() const;
};

}  // namespace fs
