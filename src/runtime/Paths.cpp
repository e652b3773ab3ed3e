#include "runtime/Paths.h"

#include <algorithm>
#include <vector>

#include "platform/paths.h"

namespace {

const PathStyle& NativeStyle() {
  static_assert(kPosixPaths.separator == L'/');
  return platform::PathSeparator() == kPosixPaths.separator ? kPosixPaths : kWindowsPaths;
}

void RemoveTrailingNul(std::wstring& path) {
  if (!path.empty() && path.back() == L'\0') path.pop_back();
}

// The front of a path that normalising leaves alone.
struct Root {
  size_t length;
  bool relative = false;  // has no root at all
};

Root FindRoot(const std::wstring& path, const PathStyle& style) {
  const auto isSeparator = [&](size_t i) { return i < path.size() && path[i] == style.separator; };
  if (style.drives && isSeparator(0) && isSeparator(1) && path.size() > 2) {
    // A network path, \\server\share\rest: the root ends with the separator after the share's name.
    size_t end = path.find(style.separator, 2);
    if (end != std::wstring::npos) end = path.find(style.separator, end + 1);
    return {end == std::wstring::npos ? path.size() : end + 1};
  }
  if (isSeparator(0)) return {1};
  if (style.drives && path.size() > 1 && path[1] == L':') {
    return {isSeparator(2) ? size_t{3} : size_t{2}};
  }
  return {.length = 0, .relative = true};
}

// Deletes the characters in [begin, end), which are whole segments, and one separator with them:
// "\a\b\.." becomes "\a" and not "\a\". That is the separator before them, or, where that one
// belongs to the root, the one after them ("\a\..\b" becomes "\b"). The first segment of a relative
// path goes alone ("a\..\b" becomes "\b", whose separator the caller removes at the end). Returns
// where the next segment begins.
size_t DeleteSegments(std::wstring& path, size_t begin, size_t end, size_t root,
                      wchar_t separator) {
  size_t next = begin;
  if (begin == 0 || path[begin - 1] != separator) {
    next = begin + 1;
  } else if (begin > root) {
    --begin;
  } else if (end < path.size()) {
    ++end;
  }
  path.erase(begin, end - begin);
  return next;
}

}  // namespace

wchar_t GetPathSeparator() {
  return platform::PathSeparator();
}

std::wstring GetModulePath(bool withDirectory, bool withExtension, const void* module) {
  std::wstring path =
      CutModulePath(platform::ModuleFile(module), withDirectory, withExtension, NativeStyle());
  if (withDirectory) NormalizePath(path);
  return path;
}

std::wstring CutModulePath(const std::wstring& path, bool withDirectory, bool withExtension,
                           const PathStyle& style) {
  size_t begin = 0;
  if (!withDirectory) {
    const size_t separator = path.rfind(style.separator);
    if (separator != std::wstring::npos) begin = separator + 1;
  }
  size_t end = path.size();
  if (!withExtension) {
    // A dot in a directory's name, or in front of the whole name, begins no extension.
    const size_t dot = path.rfind(L'.');
    if (dot != std::wstring::npos && dot > begin) end = dot;
  }
  return path.substr(begin, end - begin);
}

std::wstring GetTempDir() {
  return platform::TempDir();
}

std::wstring& AddTrailingSeparator(std::wstring& path) {
  const bool wasEmpty = path.empty();
  RemoveTrailingNul(path);
  const bool addsOne = path.empty() ? wasEmpty : path.back() != GetPathSeparator();
  if (addsOne) path += GetPathSeparator();
  return path;
}

std::wstring& RemoveTrailingSeparator(std::wstring& path) {
  RemoveTrailingNul(path);
  if (!path.empty() && path.back() == GetPathSeparator()) path.pop_back();
  return path;
}

std::wstring& NormalizePath(std::wstring& path) {
  return NormalizePath(path, NativeStyle());
}

std::wstring& NormalizePath(std::wstring& path, const PathStyle& style) {
  const wchar_t separator = style.separator;
  if (style.drives) std::replace(path.begin(), path.end(), L'/', separator);
  const Root root = FindRoot(path, style);

  std::vector<size_t> kept;  // where the segments that have stayed begin
  size_t pos = root.length;
  while (pos < path.size()) {
    const size_t end = std::min(path.find(separator, pos), path.size());
    const std::wstring segment = path.substr(pos, end - pos);
    if (segment == L".") {
      pos = DeleteSegments(path, pos, end, root.length, separator);
    } else if (segment == L".." && !kept.empty()) {
      const size_t begin = kept.back();
      kept.pop_back();
      pos = DeleteSegments(path, begin, end, root.length, separator);
    } else {
      if (segment != L"..") kept.push_back(pos);
      pos = end + 1;
    }
  }
  if (root.relative && !path.empty() && path.front() == separator) path.erase(0, 1);
  return path;
}
