#include "EmulatorFile.h"

#include <vector>

#include "ExitStatus.h"
#include "platform/paths.h"
#include "platform/text.h"

namespace ctl {

namespace files = std::filesystem;

// Built, both stand in one folder; installed, the emulator isn't for people to start and stands
// below libexec, as a file or in a folder of its own.
files::path FindEmulator(const std::string& named) {
  const files::path own = platform::WideToUtf8Lossy(platform::ModuleFile(nullptr));
  files::path name = "qz640emu";
  name += own.extension();
  std::vector<files::path> candidates;
  if (!named.empty()) {
    candidates.emplace_back(named);
  } else {
    const files::path installed = own.parent_path().parent_path() / "libexec";
    candidates = {own.parent_path() / name, installed / name, installed / "qz640emu" / name};
    const std::wstring found = platform::FindProgram(platform::Utf8ToWideLossy(name.string()));
    if (!found.empty()) candidates.emplace_back(platform::WideToUtf8Lossy(found));
  }
  std::string looked;
  for (const files::path& candidate : candidates) {
    std::error_code error;
    const files::path real = files::canonical(candidate, error);
    if (!error && files::is_regular_file(real, error)) return real;
    looked += (looked.empty() ? "" : ", ") + candidate.string();
  }
  throw Failure{kUsage, named.empty() ? "there is no emulator at " + looked +
                                            " nor on the PATH; name it with --emulator PATH"
                                      : "there is no emulator at " + looked};
}

}  // namespace ctl
