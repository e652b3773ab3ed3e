// Where the program and its temporary files stand, and path texts. Any thread.
#pragma once

#include <string>

wchar_t GetPathSeparator();

// The path of a module's file, or the part of it that is asked for; what can't be converted to text
// is U+FFFD. `module` is an address in it, as its handle on Windows is; null is the running
// program. Empty if no module is there.
std::wstring GetModulePath(bool withDirectory, bool withExtension, const void* module = nullptr);

// The directory for temporary files, ending in a separator; empty if the system names none.
std::wstring GetTempDir();

// Each changes its argument and returns it. One trailing U+0000 is removed first.
std::wstring& AddTrailingSeparator(std::wstring& path);  // an empty text becomes one separator
std::wstring& RemoveTrailingSeparator(std::wstring& path);

// Resolves "." and ".." in the text, without asking the file system.
std::wstring& NormalizePath(std::wstring& path);

// The rules of one system's paths; both are tested on every system.
struct PathStyle {
  wchar_t separator;
  bool drives;  // drive letters, network paths, and '/' read as the separator
};
constexpr PathStyle kWindowsPaths{L'\\', true};
constexpr PathStyle kPosixPaths{L'/', false};

std::wstring& NormalizePath(std::wstring& path, const PathStyle& style);

// The part of a module's path that GetModulePath gives, before normalising.
std::wstring CutModulePath(const std::wstring& path, bool withDirectory, bool withExtension,
                           const PathStyle& style);
