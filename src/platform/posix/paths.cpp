#include "platform/paths.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "platform/text.h"

namespace platform {

wchar_t PathSeparator() {
  return L'/';
}

std::wstring ModuleFile(const void* module) {
  Dl_info library{};
  Dl_info program{};
  if (module != nullptr) {
    if (dladdr(module, &library) == 0) return {};
    // Of the program itself it knows no more than how it was called.
    dladdr(reinterpret_cast<const void*>(&ModuleFile), &program);
    if (library.dli_fbase != program.dli_fbase) return Utf8ToWideLossy(library.dli_fname);
  }
  std::string path(256, '\0');
  for (;;) {
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length < 0) return {};
    if (static_cast<size_t>(length) < path.size()) {
      path.resize(static_cast<size_t>(length));
      break;
    }
    path.resize(path.size() * 2);  // it was cut
  }
  // Linux adds this when the file was replaced while the program runs; the settings still stand
  // beside the old name. A file may also really be called so.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.ends_with(kDeleted) && access(path.c_str(), F_OK) != 0) {
    path.resize(path.size() - kDeleted.size());
  }
  return Utf8ToWideLossy(path);
}

std::wstring TempDir() {
  // A relative TMPDIR would move with the working directory.
  const char* named = std::getenv("TMPDIR");
  std::string dir = named && named[0] == '/' ? named : "/tmp";
  if (dir.back() != '/') dir += '/';
  return Utf8ToWideLossy(dir);
}

std::vector<std::wstring> TempDirs() {
  std::vector<std::wstring> all{TempDir()};
  for (const wchar_t* each : {L"/tmp/", L"/var/tmp/"}) {
    if (each != all.front()) all.emplace_back(each);
  }
  return all;
}

std::wstring FindProgram(const std::wstring& name) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path ? path : "";
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(':'), rest.size());
    const std::string candidate = std::string(rest.substr(0, end)) + "/" + WideToUtf8Lossy(name);
    struct stat info {};
    if (end > 0 && stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return Utf8ToWideLossy(candidate);
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return {};
}

// The XDG base directories (version 0.8), which have relative paths ignored.
std::wstring StateDir() {
  const char* named = std::getenv("XDG_STATE_HOME");
  if (named && named[0] == '/') return Utf8ToWideLossy(std::string(named) + "/");
  const char* home = std::getenv("HOME");
  if (!home || home[0] != '/') return {};
  return Utf8ToWideLossy(std::string(home) + "/.local/state/");
}

}  // namespace platform
