#include "platform/paths.h"

#include "platform/win32/win.h"

namespace platform {

wchar_t PathSeparator() {
  return L'\\';
}

std::wstring ModuleFile(const void* module) {
  HMODULE handle = nullptr;
  constexpr DWORD kByAddress =
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
  if (module && !GetModuleHandleExW(kByAddress, static_cast<const wchar_t*>(module), &handle))
    return {};
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(handle, path.data(), static_cast<DWORD>(path.size()));
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

std::vector<std::wstring> TempDirs() {
  return {TempDir()};
}

std::wstring FindProgram(const std::wstring& name) {
  std::wstring path(32768, L'\0');
  const DWORD length = SearchPathW(nullptr, name.c_str(), nullptr, static_cast<DWORD>(path.size()),
                                   path.data(), nullptr);
  path.resize(length < path.size() ? length : 0);
  return path;
}

std::wstring StateDir() {
  std::wstring dir(32767, L'\0');  // the longest value of a variable
  const DWORD length =
      GetEnvironmentVariableW(L"LOCALAPPDATA", dir.data(), static_cast<DWORD>(dir.size()));
  if (length == 0 || length >= dir.size()) return {};
  dir.resize(length);
  return dir + L'\\';
}

}  // namespace platform
