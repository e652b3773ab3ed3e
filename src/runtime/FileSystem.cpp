#include "runtime/FileSystem.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>

#include "platform/errors.h"
#include "platform/text.h"
#include "runtime/Paths.h"
#include "runtime/SingletonGate.h"

namespace fs {

namespace {

constexpr uint64_t kUnknown = ~uint64_t{0};

// Which bit of FileDescription::attributes stands for which of the system's attributes.
struct AttributeBit {
  uint32_t bit;
  uint32_t native;
};
constexpr AttributeBit kAttributeBits[] = {
    {kReadOnly, platform::kAttributeReadOnly},
    {kSystem, platform::kAttributeSystem},
    {kHidden, platform::kAttributeHidden},
    {kArchive, platform::kAttributeArchive},
    {kTemporary, platform::kAttributeTemporary},
    {kCompressed, platform::kAttributeCompressed},
    {kEncrypted, platform::kAttributeEncrypted},
    {kSparse, platform::kAttributeSparse},
    {kLink, platform::kAttributeLink},
    {kOffline, platform::kAttributeOffline},
    {kNotIndexed, platform::kAttributeNotIndexed},
    {kDirectory, platform::kAttributeDirectory},
    {kDevice, platform::kAttributeDevice},
};

uint32_t FromNative(uint32_t native) {
  uint32_t bits = 0;
  for (const AttributeBit& entry : kAttributeBits) {
    if ((native & entry.native) != 0) bits |= entry.bit;
  }
  return bits;
}

// For a file that is made; only these bits may be asked for.
uint32_t ToNative(uint32_t bits) {
  constexpr uint32_t kAllowed = kReadOnly | kSystem | kHidden | kArchive | kTemporary;
  uint32_t native = 0;
  for (const AttributeBit& entry : kAttributeBits) {
    if ((bits & kAllowed & entry.bit) != 0) native |= entry.native;
  }
  return native != 0 ? native : platform::kAttributeNormal;
}

platform::Disposition DispositionOf(uint32_t mode) {
  using platform::Disposition;
  const bool truncate = (mode & kTruncate) != 0;
  if ((mode & kWrite) == 0) return Disposition::OpenExisting;
  if ((mode & kMustExist) != 0) {
    return truncate ? Disposition::TruncateExisting : Disposition::OpenExisting;
  }
  if ((mode & kMustBeNew) != 0) return Disposition::CreateNew;
  return truncate ? Disposition::CreateAlways : Disposition::OpenAlways;
}

void Describe(const platform::FileEntry& entry, FileDescription& description) {
  description.size = entry.size;
  description.created = entry.created;
  description.accessed = entry.accessed;
  description.modified = entry.modified;
  description.attributes = FromNative(entry.attributes);
}

void Fill(const platform::FileEntry& entry, FindRecordW* record) {
  Describe(entry, *record);
  const size_t length = std::min(entry.name.size(), std::size(record->name) - 1);
  std::copy_n(entry.name.data(), length, record->name);
  record->name[length] = L'\0';
}

void Fill(const platform::FileEntry& entry, FindRecord* record) {
  Describe(entry, *record);
  // The name may hold what the system, but not the strict converter, takes for text.
  const std::string name = platform::WideToUtf8Lossy(entry.name);
  size_t length = std::min(name.size(), std::size(record->name) - 1);
  const auto insideCharacter = [&] {
    return length < name.size() && (static_cast<uint8_t>(name[length]) & 0xC0) == 0x80;
  };
  while (length > 0 && insideCharacter())
    --length;
  std::copy_n(name.data(), length, record->name);
  record->name[length] = '\0';
}

}  // namespace

// The open file.

implFile::~implFile() {
  Close();
}

bool implFile::Succeeded(uint32_t error) {
  lastError = error;
  return error == 0;
}

void implFile::Close() {
  if (handle == platform::kNoFile) return;
  platform::FileClose(handle);
  handle = platform::kNoFile;
  lastError = 0;
}

bool implFile::Read(void* buffer, uint32_t size, uint32_t* done) {
  return Succeeded(platform::FileRead(handle, buffer, size, done));
}

bool implFile::Write(const void* buffer, uint32_t size, uint32_t* done) {
  return Succeeded(platform::FileWrite(handle, buffer, size, done));
}

bool implFile::ReadAt(uint64_t position, void* buffer, uint32_t size, uint32_t* done,
                      bool keepPosition) {
  uint64_t before = 0;
  *done = 0;
  if (keepPosition && !Tell(&before)) return false;
  if (!Seek(static_cast<int64_t>(position), 0)) return false;
  const bool moved = Read(buffer, size, done);
  return keepPosition ? SeekBack(before) : moved;
}

bool implFile::WriteAt(uint64_t position, const void* buffer, uint32_t size, uint32_t* done,
                       bool keepPosition) {
  uint64_t before = 0;
  *done = 0;
  if (keepPosition && !Tell(&before)) return false;
  if (!Seek(static_cast<int64_t>(position), 0)) return false;
  const bool moved = Write(buffer, size, done);
  return keepPosition ? SeekBack(before) : moved;
}

// A read or write that failed has moved the position too. Its error is the one to report.
bool implFile::SeekBack(uint64_t position) {
  const uint32_t error = lastError;
  const bool back = Seek(static_cast<int64_t>(position), 0);
  return error == 0 ? back : Succeeded(error);
}

bool implFile::Flush() {
  return Succeeded(platform::FileFlush(handle));
}

bool implFile::Seek(int64_t offset, uint32_t origin, uint64_t* position) {
  *position = kUnknown;
  if (origin > 2) return Succeeded(platform::kInvalidArgument);
  const auto from = origin == 0   ? platform::SeekFrom::Start
                    : origin == 1 ? platform::SeekFrom::Current
                                  : platform::SeekFrom::End;
  return Succeeded(platform::FileSeek(handle, offset, from, position));
}

bool implFile::Seek(int64_t offset, uint32_t origin) {
  uint64_t position = 0;
  return Seek(offset, origin, &position);
}

bool implFile::Tell(uint64_t* position) {
  return Seek(0, 1, position);
}

bool implFile::GetSize(uint64_t* size) {
  *size = kUnknown;
  return Succeeded(platform::FileSize(handle, size));
}

bool implFile::SetEnd() {
  return Succeeded(platform::FileSetEnd(handle));
}

bool implFile::Lock(bool exclusive) {
  return Succeeded(platform::FileLock(handle, exclusive, true));
}

bool implFile::TryLock(bool exclusive) {
  return Succeeded(platform::FileLock(handle, exclusive, false));
}

bool implFile::Unlock() {
  return Succeeded(platform::FileUnlock(handle));
}

FileTime implFile::GetModifyTime() {
  FileTime created;
  FileTime accessed;
  FileTime modified;
  return GetTimes(&created, &accessed, &modified) ? modified : FileTime{};
}

bool implFile::GetTimes(FileTime* created, FileTime* accessed, FileTime* modified) {
  return Succeeded(platform::FileTimes(handle, created, accessed, modified));
}

// The listing.

implFileFinder::implFileFinder(platform::FileHandle opened, HandleTable* table, std::wstring search)
    : OsFileHandle(opened, table), search_(std::move(search)) {
  RemoveTrailingSeparator(search_);
}

implFileFinder::~implFileFinder() {
  Close();
}

void implFileFinder::Close() {
  if (handle == platform::kNoFile) return;
  platform::ListClose(handle);
  handle = platform::kNoFile;
  lastError = 0;
}

bool implFileFinder::Next() {
  lastError =
      handle == platform::kNoFile ? platform::kInvalidHandle : platform::ListNext(handle, &entry_);
  return lastError == 0;
}

bool implFileFinder::FindNext(FindRecord* record) {
  if (!Next()) return false;
  Fill(entry_, record);
  return true;
}

bool implFileFinder::FindNext(FindRecordW* record) {
  if (!Next()) return false;
  Fill(entry_, record);
  return true;
}

// The operations on paths.

bool implFS::Succeeded(uint32_t error) {
  lastError_ = error;
  return error == 0;
}

bool implFS::Remove(const char* path) {
  return Remove(Utf8ToWide(path).c_str());
}

bool implFS::Remove(const wchar_t* path) {
  return Succeeded(platform::PathRemove(path));
}

bool implFS::Move(const char* from, const char* to, uint32_t flags) {
  return Move(Utf8ToWide(from).c_str(), Utf8ToWide(to).c_str(), flags);
}

bool implFS::Move(const wchar_t* from, const wchar_t* to, uint32_t flags) {
  const platform::MoveOptions options{.copy = (flags & kMoveCopy) != 0,
                                      .replace = (flags & kMoveReplace) != 0,
                                      .flush = (flags & kMoveFlush) != 0,
                                      .atRestart = (flags & kMoveAtRestart) != 0};
  return Succeeded(platform::PathMove(from, to, options));
}

bool implFS::MakeDir(const char* path) {
  return MakeDir(Utf8ToWide(path).c_str());
}

bool implFS::MakeDir(const wchar_t* path) {
  return Succeeded(platform::PathMakeDir(path));
}

bool implFS::SetAttributes(const char* path, uint32_t attributes) {
  return SetAttributes(Utf8ToWide(path).c_str(), attributes);
}

bool implFS::SetAttributes(const wchar_t* path, uint32_t attributes) {
  return Succeeded(platform::PathSetAttributes(path, attributes));
}

uint32_t implFS::GetAttributes(const char* path) {
  return GetAttributes(Utf8ToWide(path).c_str());
}

uint32_t implFS::GetAttributes(const wchar_t* path) {
  uint32_t attributes = 0;
  return Succeeded(platform::PathGetAttributes(path, &attributes)) ? attributes : kNoAttributes;
}

IFile* implFS::Open(const char* path, uint32_t mode, uint32_t attributes) {
  return Open(Utf8ToWide(path).c_str(), mode, attributes);
}

IFile* implFS::Open(const wchar_t* path, uint32_t mode, uint32_t attributes) {
  if ((mode & (kRead | kWrite)) == 0) return nullptr;
  const platform::OpenOptions options{
      .read = (mode & kRead) != 0,
      .write = (mode & kWrite) != 0,
      .disposition = DispositionOf(mode),
      .shareRead = (mode & kDenyRead) == 0,
      .shareWrite = (mode & kShareWrite) != 0,
      .attributes = ToNative(attributes),
  };
  platform::FileHandle handle = platform::kNoFile;
  bool existed = false;
  if (!Succeeded(platform::FileOpen(path, options, &handle, &existed))) return nullptr;

  std::unique_ptr<implFile> file(new (std::nothrow) implFile(handle, &table_));
  if (!file || !file->IsOpen()) {
    if (!file) platform::FileClose(handle);
    Succeeded(platform::kNoPlace);
    return nullptr;
  }
  const bool mayMake = options.disposition == platform::Disposition::CreateAlways ||
                       options.disposition == platform::Disposition::OpenAlways;
  if (mayMake && existed) file->lastError = platform::kAlreadyExists;
  return file.release();
}

implFileFinder* implFS::StartListing(const wchar_t* directory, platform::FileEntry& first) {
  std::wstring search = directory;
  AddTrailingSeparator(search) += L"*.*";
  platform::FileHandle handle = platform::kNoFile;
  if (!Succeeded(platform::ListOpen(search.c_str(), &handle, &first))) return nullptr;

  std::unique_ptr<implFileFinder> finder(new (std::nothrow)
                                             implFileFinder(handle, &table_, std::move(search)));
  if (!finder || !finder->IsOpen()) {
    if (!finder) platform::ListClose(handle);
    Succeeded(platform::kNoPlace);
    return nullptr;
  }
  return finder.release();
}

IFileFinder* implFS::FindFirst(const char* directory, FindRecord* record) {
  platform::FileEntry first;
  IFileFinder* finder = StartListing(Utf8ToWide(directory).c_str(), first);
  if (finder) Fill(first, record);
  return finder;
}

IFileFinder* implFS::FindFirst(const wchar_t* directory, FindRecordW* record) {
  platform::FileEntry first;
  IFileFinder* finder = StartListing(directory, first);
  if (finder) Fill(first, record);
  return finder;
}

// The one file system of the process.

namespace {

constinit SingletonGate gate;
constinit std::atomic<IFS*> fileSystem{nullptr};

}  // namespace

FsRef::FsRef() {
  gate.Acquire();
}

FsRef::~FsRef() {
  if (gate.Release()) delete fileSystem.exchange(nullptr);
}

IFS* FsRef::Get() const {
  if (IFS* present = fileSystem.load(std::memory_order_acquire)) return present;
  std::lock_guard lock(*gate.mutex.load());
  if (!fileSystem.load()) fileSystem.store(new implFS, std::memory_order_release);
  return fileSystem.load();
}

}  // namespace fs
