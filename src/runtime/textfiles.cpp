#include "runtime/textfiles.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

#include "platform/errors.h"
#include "platform/file.h"
#include "platform/text.h"
#include "runtime/Clocks.h"
#include "runtime/IFS.h"

namespace fs {

namespace {

constexpr char kSourceFile[] = "src\\textfiles";

constexpr wchar_t kOpenError[] = L"open error: file ";
constexpr wchar_t kSizeError[] = L"getsize error: file ";
constexpr wchar_t kReadError[] = L"read error: file ";
constexpr wchar_t kWriteError[] = L"write error: file ";

using FilePointer = std::unique_ptr<IFile>;

// "open error: file "C:\a.json"", with the path as the caller gave it.
std::wstring FailureText(const wchar_t* what, const wchar_t* path) {
  return std::wstring(what) + L'"' + path + L'"';
}

// The count of one write has 32 bits: more than that is a short write, and so a failure.
bool WriteAll(IFile& file, const char* data, size_t size) {
  uint32_t done = 0;
  return file.Write(data, static_cast<uint32_t>(size), &done) && done == size;
}

}  // namespace

ErrInfo WriteWholeFile(const wchar_t* path, const char* data, size_t size) {
  const FsRef fileSystem;
  const FilePointer file(fileSystem.Get()->Open(path, kWrite | kTruncate, 0));
  if (!file) {
    const uint32_t code = fileSystem.Get()->GetLastError();
    return ERR_HERE("fs::WriteWholeFile").SetCode(code, FailureText(kOpenError, path));
  }
  if (!WriteAll(*file, data, size)) {
    const uint32_t code = file->GetLastError();
    return ERR_HERE("fs::WriteWholeFile").SetCode(code, FailureText(kWriteError, path));
  }
  return ERR_HERE("fs::WriteWholeFile");
}

ErrInfo WriteWholeFile(const wchar_t* path, const char* text) {
  return WriteWholeFile(path, text, std::strlen(text));
}

ErrInfo WriteWholeFile(const wchar_t* path, const wchar_t* text) {
  return WriteWholeFile(path, WideToUtf8(text).c_str());
}

ErrInfo ReadWholeFile(const wchar_t* path, std::string& bytes) {
  bytes.clear();
  const FsRef fileSystem;
  const FilePointer file(fileSystem.Get()->Open(path, kRead, 0));
  if (!file) {
    const uint32_t code = fileSystem.Get()->GetLastError();
    return ERR_HERE("fs::ReadWholeFile").SetCode(code, FailureText(kOpenError, path));
  }
  uint64_t size = 0;
  if (!file->GetSize(&size)) {
    const uint32_t code = file->GetLastError();
    return ERR_HERE("fs::ReadWholeFile").SetCode(code, FailureText(kSizeError, path));
  }
  // One read moves less than 4 GiB: a larger file fails before it takes the memory.
  uint32_t done = 0;
  bool whole = size <= std::numeric_limits<uint32_t>::max();
  if (whole) {
    bytes.resize(size);
    whole = file->Read(bytes.data(), static_cast<uint32_t>(size), &done) && done == size;
  }
  if (!whole) {
    const uint32_t code = file->GetLastError();
    return ERR_HERE("fs::ReadWholeFile").SetCode(code, FailureText(kReadError, path));
  }
  return ERR_HERE("fs::ReadWholeFile");
}

ErrInfo ReadWholeFile(const wchar_t* path, std::wstring& text) {
  std::string bytes;
  const ErrInfo result = ReadWholeFile(path, bytes);
  text = Utf8ToWide(bytes);
  return result;
}

namespace {

enum class Replaced { Done, Failed, NotPossible };

// Makes a file beside `target` under a name that nobody had, and gives it in `path`; null if none
// can be made. A file that is there already is somebody's, so the next number is tried. The first
// number comes from the clock, so that a second program rarely meets the same.
FilePointer OpenBeside(const std::wstring& target, std::wstring& path) {
  const FsRef fileSystem;
  IFS& files = *fileSystem.Get();
  const int64_t first = ClockTicks100ns();
  for (int64_t number = first; number < first + 100; ++number) {
    path = target + L'.' + std::to_wstring(number) + L".new";
    FilePointer file(files.Open(path.c_str(), kWrite | kMustBeNew, 0));
    if (file || files.GetLastError() != platform::kFileExists) return file;
  }
  return nullptr;
}

// Writes a file beside `target` and puts it in the place of `target`. Failed, with its `code`,
// means that the target must stay as it is; NotPossible that it can't be replaced by another file.
Replaced TryReplace(const std::wstring& target, const char* data, size_t size, uint32_t& code) {
  const FsRef fileSystem;
  IFS& files = *fileSystem.Get();
  std::wstring beside;
  FilePointer file = OpenBeside(target, beside);
  if (!file) return Replaced::NotPossible;

  const bool written = WriteAll(*file, data, size) && file->Flush();
  code = file->GetLastError();
  file.reset();
  if (written && platform::PathReplace(beside.c_str(), target.c_str()) == 0) return Replaced::Done;
  files.Remove(beside.c_str());
  return written ? Replaced::NotPossible : Replaced::Failed;
}

}  // namespace

// Its failures are named as those of WriteWholeFile: for the reader of a log the two are one thing.
ErrInfo ReplaceWholeFile(const wchar_t* path, const char* data, size_t size) {
  const FsRef fileSystem;
  IFS& files = *fileSystem.Get();
  // A file that may not be written isn't replaced either. Nothing is emptied here.
  if (!FilePointer(files.Open(path, kWrite | kMustExist, 0))) {
    const uint32_t code = files.GetLastError();
    if (code != platform::kFileNotFound) {
      return ERR_HERE("fs::WriteWholeFile").SetCode(code, FailureText(kOpenError, path));
    }
  }
  const std::wstring target = platform::PathFollowLinks(path);
  const uint32_t attributes = files.GetAttributes(target.c_str());
  constexpr uint32_t kUnlikeFiles = platform::kAttributeDevice | platform::kAttributeLink;
  const bool replaceable = attributes == kNoAttributes || (attributes & kUnlikeFiles) == 0;
  if (replaceable) {
    uint32_t code = 0;
    switch (TryReplace(target, data, size, code)) {
      case Replaced::Done:
        return ERR_HERE("fs::WriteWholeFile");
      case Replaced::Failed:
        return ERR_HERE("fs::WriteWholeFile").SetCode(code, FailureText(kWriteError, path));
      case Replaced::NotPossible:
        break;
    }
  }
  return WriteWholeFile(path, data, size);
}

ErrInfo ReplaceWholeFile(const wchar_t* path, const wchar_t* text) {
  const std::string bytes = WideToUtf8(text);
  return ReplaceWholeFile(path, bytes.data(), bytes.size());
}

}  // namespace fs
