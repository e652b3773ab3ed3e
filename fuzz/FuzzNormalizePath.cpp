// Any text as a path, by the rules of both systems. Where no segment is empty and no drive is
// named, the result must be the one of a simple stack of segments, and normalising it again must
// change nothing.
#include <algorithm>
#include <vector>

#include "Harness.h"
#include "runtime/Paths.h"

using fuzz::Require;

namespace {

// What `path` normalises to if it has single separators and no root but a separator.
std::wstring Model(const std::wstring& path, wchar_t separator) {
  const bool rooted = !path.empty() && path.front() == separator;
  std::vector<std::wstring> stack;
  size_t pos = rooted ? 1 : 0;
  bool open = false;  // ends in a separator
  while (pos < path.size()) {
    const size_t end = std::min(path.find(separator, pos), path.size());
    const std::wstring segment = path.substr(pos, end - pos);
    if (segment == L".." && !stack.empty() && stack.back() != L"..") {
      stack.pop_back();
    } else if (segment != L".") {
      stack.push_back(segment);
    }
    open = end < path.size();
    pos = end + 1;
  }
  std::wstring result = rooted ? std::wstring(1, separator) : L"";
  for (size_t i = 0; i < stack.size(); ++i) {
    if (i > 0) result += separator;
    result += stack[i];
  }
  if (open && !stack.empty()) result += separator;
  return result;
}

void Check(std::wstring text, const PathStyle& style) {
  std::wstring path = text;
  Require(&NormalizePath(path, style) == &path, "it changes its argument");
  Require(path.size() <= text.size(), "it never lengthens");

  if (style.drives) std::replace(text.begin(), text.end(), L'/', style.separator);
  const std::wstring twice(2, style.separator);
  if (text.find(twice) != std::wstring::npos || text.find(L':') != std::wstring::npos) return;
  Require(path == Model(text, style.separator), "the segments that stay");
  std::wstring again = path;
  Require(NormalizePath(again, style) == path, "a second time changes nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::wstring text(data, data + size);
  Check(text, kPosixPaths);
  Check(text, kWindowsPaths);
  return 0;
}
