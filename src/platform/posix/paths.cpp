#include "platform/paths.h"

#include <dlfcn.h>
#include <unistd.h>

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

// The XDG base directories (version 0.8), which have relative paths ignored.
std::wstring StateDir() {
  const char* named = std::getenv("XDG_STATE_HOME");
  if (named && named[0] == '/') return Utf8ToWideLossy(std::string(named) + "/");
  const char* home = std::getenv("HOME");
  if (!home || home[0] != '/') return {};
  return Utf8ToWideLossy(std::string(home) + "/.local/state/");
}

}  // namespace platform
