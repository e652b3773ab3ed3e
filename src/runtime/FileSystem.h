// The file layer itself: the operations of IFS.h on the system's files. Users take it by FsRef.
// The only lock is that of its table of handles.
#pragma once

#include <atomic>
#include <string>

#include "runtime/HandleTable.h"
#include "runtime/IFS.h"

namespace fs {

class implFile final : public OsFileHandle, public IFile {
 public:
  implFile(platform::FileHandle opened, HandleTable* table) : OsFileHandle(opened, table) {}
  ~implFile() override;

  uint32_t GetLastError() override { return lastError; }
  void Close() override;
  bool Read(void* buffer, uint32_t size, uint32_t* done) override;
  bool ReadAt(uint64_t position, void* buffer, uint32_t size, uint32_t* done,
              bool keepPosition) override;
  bool Write(const void* buffer, uint32_t size, uint32_t* done) override;
  bool WriteAt(uint64_t position, const void* buffer, uint32_t size, uint32_t* done,
               bool keepPosition) override;
  bool Flush() override;
  bool Seek(int64_t offset, uint32_t origin, uint64_t* position) override;
  bool Seek(int64_t offset, uint32_t origin) override;
  bool Tell(uint64_t* position) override;
  bool GetSize(uint64_t* size) override;
  bool SetEnd() override;
  bool Lock(bool exclusive) override;
  bool TryLock(bool exclusive) override;
  bool Unlock() override;
  FileTime GetModifyTime() override;
  bool GetTimes(FileTime* created, FileTime* accessed, FileTime* modified) override;

 private:
  bool Succeeded(uint32_t error);
  bool SeekBack(uint64_t position);
};

class implFileFinder final : public OsFileHandle, public IFileFinder {
 public:
  implFileFinder(platform::FileHandle opened, HandleTable* table, std::wstring search);
  ~implFileFinder() override;

  uint32_t GetLastError() override { return lastError; }
  void Close() override;
  bool FindNext(FindRecord* record) override;
  bool FindNext(FindRecordW* record) override;

 private:
  bool Next();

  std::wstring search_;  // what is listed
  platform::FileEntry entry_;
};

class implFS final : public IFS {
 public:
  bool Remove(const char* path) override;
  bool Remove(const wchar_t* path) override;
  bool Move(const char* from, const char* to, uint32_t flags) override;
  bool Move(const wchar_t* from, const wchar_t* to, uint32_t flags) override;
  bool MakeDir(const char* path) override;
  bool MakeDir(const wchar_t* path) override;
  bool SetAttributes(const char* path, uint32_t attributes) override;
  bool SetAttributes(const wchar_t* path, uint32_t attributes) override;
  uint32_t GetAttributes(const char* path) override;
  uint32_t GetAttributes(const wchar_t* path) override;
  uint32_t GetLastError() override { return lastError_; }
  IFile* Open(const char* path, uint32_t mode, uint32_t attributes) override;
  IFile* Open(const wchar_t* path, uint32_t mode, uint32_t attributes) override;
  IFileFinder* FindFirst(const char* directory, FindRecord* record) override;
  IFileFinder* FindFirst(const wchar_t* directory, FindRecordW* record) override;

  const HandleTable& Table() const { return table_; }

 private:
  bool Succeeded(uint32_t error);
  implFileFinder* StartListing(const wchar_t* directory, platform::FileEntry& first);

  HandleTable table_;
  std::atomic<uint32_t> lastError_{0};
};

}  // namespace fs
