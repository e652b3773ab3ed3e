// A directory as it stood at one moment: sorted by name, filtered by kind and by a pattern. Used on
// one thread; the result may be handed on.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <regex>
#include <string>

#include "runtime/IFS.h"

namespace fs {

class Dir {
 public:
  // Bits of the constructor's flags: what is listed.
  static constexpr uint32_t kFiles = 1;        // what isn't a directory
  static constexpr uint32_t kDirectories = 2;  // directories, but . and ..
  static constexpr uint32_t kDots = 4;         // . and ..

  // Without regard to the case of A to Z, as file names are compared on Windows. Of two names that
  // differ in nothing else, which other systems allow, the listing has the one found first.
  struct wstring_lessy {
    bool operator()(const std::wstring& a, const std::wstring& b) const;
  };
  using Files = std::map<std::wstring, FileDescription, wstring_lessy>;

  // Lists `directory`. The whole name has to match `pattern`, a regular expression of ECMAScript
  // grammar without regard to case; one that is malformed throws std::regex_error.
  Dir(const std::wstring& directory, const std::wstring& pattern, uint32_t flags);

  // By full path: the normalised directory, one separator, the name. A copy of the pointer keeps
  // the listing alive.
  std::shared_ptr<Files> files;

  // Why the listing ended: platform::kNoMoreFiles if it is complete, else the system's error.
  int32_t error;

 private:
  void Scan();
  bool Wants(const FindRecordW& record) const;

  std::wregex pattern_;
  std::wstring path_;
  uint32_t flags_;
};

}  // namespace fs
