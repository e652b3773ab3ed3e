// Files, directories and their attributes, one system call a function. Every function returns the
// operating system's error number, 0 for success. Paths are wide text; one that can't be converted
// for the system is kNoTranslation. Any thread; a handle belongs to one thread at a time.
//
// Regular files alone are read; a pipe or a device at a path would block or never end. A device may
// be written.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// An open file or listing.
using FileHandle = intptr_t;
constexpr FileHandle kNoFile = -1;

// Since 1970-01-01 00:00:00 UTC.
struct FileTime {
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
};

// Attributes have the values of the Windows documentation on every system. A system that hasn't
// got one never gives it, and ignores it when it is set.
constexpr uint32_t kAttributeReadOnly = 0x1;
constexpr uint32_t kAttributeHidden = 0x2;
constexpr uint32_t kAttributeSystem = 0x4;
constexpr uint32_t kAttributeDirectory = 0x10;
constexpr uint32_t kAttributeArchive = 0x20;
constexpr uint32_t kAttributeDevice = 0x40;  // no regular file and no directory
constexpr uint32_t kAttributeNormal = 0x80;  // none of the others
constexpr uint32_t kAttributeTemporary = 0x100;
constexpr uint32_t kAttributeSparse = 0x200;
constexpr uint32_t kAttributeLink = 0x400;  // the other bits are those of its target
constexpr uint32_t kAttributeCompressed = 0x800;
constexpr uint32_t kAttributeOffline = 0x1000;
constexpr uint32_t kAttributeNotIndexed = 0x2000;
constexpr uint32_t kAttributeEncrypted = 0x4000;

enum class Disposition {
  CreateNew,        // fails with kFileExists if the file is there
  CreateAlways,     // an existing file is emptied
  OpenExisting,     // fails with kFileNotFound if it isn't there
  OpenAlways,       // made if it isn't there
  TruncateExisting  // must be there, and is emptied
};

struct OpenOptions {
  bool read = false;
  bool write = false;
  Disposition disposition = Disposition::OpenExisting;
  // What others may do meanwhile. Two writers of which one doesn't share writing never meet: the
  // second fails with kBusy, and an existing file is only emptied once that is clear. Systems
  // without sharing modes hold to no more than that, and only within this program's own files.
  bool shareRead = true;
  bool shareWrite = false;
  uint32_t attributes = kAttributeNormal;  // of a file that is made
  // For files in a directory that others can write: only this user may open a file that is made,
  // and a link at the path isn't followed. Has no meaning where the system keeps such directories
  // for each user.
  bool ownerOnly = false;
};

// `existed`, which may be null, becomes whether the file was there before.
uint32_t FileOpen(const wchar_t* path, const OpenOptions& options, FileHandle* file, bool* existed);
uint32_t FileClose(FileHandle file);

// Move `size` bytes at the present position, which goes on by as many. `done` is the count moved,
// also after a failure; less than `size` without one is the end of the file.
uint32_t FileRead(FileHandle file, void* buffer, uint32_t size, uint32_t* done);
uint32_t FileWrite(FileHandle file, const void* buffer, uint32_t size, uint32_t* done);

enum class SeekFrom { Start, Current, End };
uint32_t FileSeek(FileHandle file, int64_t offset, SeekFrom from, uint64_t* position);
uint32_t FileSize(FileHandle file, uint64_t* size);
uint32_t FileSetEnd(FileHandle file);  // the file ends at the present position
uint32_t FileFlush(FileHandle file);   // to the disk
uint32_t FileTimes(FileHandle file, FileTime* created, FileTime* accessed, FileTime* modified);

// Locks the whole file against other locks, here and in other processes; reading and writing go on
// unhindered where the system's locks are advisory. Without `wait` a taken lock is kLocked. An
// exclusive lock needs a file open for writing, a shared one a file open for reading.
uint32_t FileLock(FileHandle file, bool exclusive, bool wait);
uint32_t FileUnlock(FileHandle file);

// Deletes a file. One that a writer has open without sharing writing is kBusy.
uint32_t PathRemove(const wchar_t* path);

// `from` takes the name `to`. With `copy` also to another volume, by copying; with `replace` an
// existing file is replaced, without it is kAlreadyExists; with `flush` the result is on the disk
// when the call returns.
struct MoveOptions {
  bool copy = false;
  bool replace = false;
  bool flush = false;
  bool atRestart = false;  // only when the machine starts again; kNotSupported on most systems
};
uint32_t PathMove(const wchar_t* from, const wchar_t* to, const MoveOptions& options);

// Gives the program `from` the second name `to`, under which it runs and can be removed while it
// runs under the first. kNotSupported where the system can't do that: a copy has to do.
uint32_t PathLinkProgram(const wchar_t* from, const wchar_t* to);

// Puts the file `from` in the place of `to` in one step, so that at any moment `to` is either the
// old file or the new one, also after a crash. An existing `to` hands on its access rights.
uint32_t PathReplace(const wchar_t* from, const wchar_t* to);

// Where the links at `path` lead; `path` itself if it is none or leads nowhere.
std::wstring PathFollowLinks(const wchar_t* path);

// Makes one directory, which only this user may enter and change where the system's directories
// for temporary files are shared by all users.
uint32_t PathMakeDir(const wchar_t* path);

// 0 if `path` is a directory, itself and no link, that nobody but this user can change.
uint32_t PathCheckOwnDir(const wchar_t* path);

uint32_t PathGetAttributes(const wchar_t* path, uint32_t* attributes);
uint32_t PathSetAttributes(const wchar_t* path, uint32_t attributes);

// Has the system store the file compressed, or no longer. Does nothing where there is no such
// thing.
uint32_t PathSetCompression(const wchar_t* path, bool on);

struct FileEntry {
  uint64_t size = 0;
  FileTime created;
  FileTime accessed;
  FileTime modified;
  uint32_t attributes = 0;
  std::wstring name;
};

// Lists a directory: "." and ".." first where it has them, then the rest in no order. `search` is
// the directory, a separator and "*.*", which stands for every name. ListNext gives kNoMoreFiles at
// the end, and kNoTranslation for a name that isn't text; the call after that goes on with the
// next.
uint32_t ListOpen(const wchar_t* search, FileHandle* listing, FileEntry* first);
uint32_t ListNext(FileHandle listing, FileEntry* entry);
uint32_t ListClose(FileHandle listing);

}  // namespace platform
