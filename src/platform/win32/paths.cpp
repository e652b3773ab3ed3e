#include "platform/paths.h"

#include "platform/win32/win.h"

namespace platform {

wchar_t PathSeparator() {
  return L'\\';
}

std::wstring ModuleFile() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) return {};
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    path.resize(path.size() * 2);  // it was cut
  }
}

std::wstring TempDir() {
  std::wstring dir(MAX_PATH + 1, L'\0');
  const DWORD length = GetTempPathW(static_cast<DWORD>(dir.size()), dir.data());
  dir.resize(length < dir.size() ? length : 0);
  return dir;
}

}  // namespace platform
