#include "runtime/Dir.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include "platform/errors.h"
#include "runtime/Paths.h"

namespace fs {

namespace {

// Locale-free: the order must not depend on who runs the program.
uint32_t Fold(wchar_t unit) {
  const uint32_t code = static_cast<uint32_t>(unit);
  return code >= 'A' && code <= 'Z' ? code + ('a' - 'A') : code;
}

}  // namespace

bool Dir::wstring_lessy::operator()(const std::wstring& a, const std::wstring& b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](wchar_t x, wchar_t y) { return Fold(x) < Fold(y); });
}

Dir::Dir(const std::wstring& directory, const std::wstring& pattern, uint32_t flags)
    : files(std::make_shared<Files>()),
      error(std::numeric_limits<int32_t>::min()),
      pattern_(pattern, std::regex::ECMAScript | std::regex::icase),
      path_(directory),
      flags_(flags) {
  // A relative path that leads back to where it began normalises to nothing, which the root does
  // too once its separator is gone: the working directory has its name then.
  if (NormalizePath(path_).empty()) path_ = L".";
  RemoveTrailingSeparator(path_);
  Scan();
}

bool Dir::Wants(const FindRecordW& record) const {
  const std::wstring_view name = record.name;
  uint32_t kind = kFiles;
  if (name == L"." || name == L"..") {
    kind = kDots;
  } else if ((record.attributes & kDirectory) != 0) {
    kind = kDirectories;
  }
  return (flags_ & kind) != 0 && std::regex_match(record.name, pattern_);
}

void Dir::Scan() {
  const FsRef fileSystem;
  FindRecordW record;
  const std::unique_ptr<IFileFinder> finder(fileSystem.Get()->FindFirst(path_.c_str(), &record));
  error = 0;
  if (!finder) {
    error = static_cast<int32_t>(fileSystem.Get()->GetLastError());
    return;
  }
  for (bool found = true;;) {
    if (found && Wants(record)) {
      files->emplace(path_ + GetPathSeparator() + record.name, record);
    }
    found = finder->FindNext(&record);
    if (found) continue;
    error = static_cast<int32_t>(finder->GetLastError());
    // A name that isn't text ends nothing but itself.
    if (error != static_cast<int32_t>(platform::kNoTranslation)) break;
  }
}

}  // namespace fs
