// The folder that an emulator of "up" runs in: its executable (the settings file stands beside it,
// so that comes along), its settings, and three files of this program's own: a lock that is held
// for as long as the run lasts, a mark of detached runs, and one whose coming asks the run to end.
// Not for several threads.
#pragma once

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/file.h"

namespace ctl {

class RunFolder {
 public:
  // A folder that can't serve. The text names it and says why.
  struct Unusable : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  // Where folders for one run may be made, the best first; some may not be there.
  static std::vector<std::filesystem::path> Places();

  // A new folder there, gone with its object. Throws Unusable.
  static std::unique_ptr<RunFolder> MakeIn(const std::filesystem::path& place);

  // That one, made if need be, which stays. Throws Unusable, also when another run has it.
  static std::unique_ptr<RunFolder> Open(const std::filesystem::path& path);

  ~RunFolder();  // leaves it
  RunFolder(const RunFolder&) = delete;
  RunFolder& operator=(const RunFolder&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  bool Stays() const { return stays_; }

  // Brings the executable and, beside it, its settings file. Returns where the executable stands
  // now. Throws Unusable.
  std::filesystem::path Install(const std::filesystem::path& emulator,
                                const std::string& settings) const;

  // Lets go of the folder and removes it, unless it stays: nothing may run there any more. Waits
  // for up to two seconds where the system still refuses to remove something. Empty for success,
  // else the system's reason.
  std::string Leave();

  // For Detached of others.
  void MarkDetached() const;

  // Another process wants the run to end.
  bool IsStopAsked() const;

  // -- Runs of other processes --

  // Removes the folders below Places() that this user's killed runs have left. Waits like Leave,
  // for all of them together.
  static void Sweep();

  // Of this user's detached runs below Places().
  static std::vector<std::filesystem::path> Detached();

  static bool IsRunning(const std::filesystem::path& path);

  // Whether a run that was asked to stop has ended and tidied up.
  static bool IsLeft(const std::filesystem::path& path);

  // False where this user may not.
  static bool AskToStop(const std::filesystem::path& path);

 private:
  RunFolder(std::filesystem::path path, bool stays) : path_(std::move(path)), stays_(stays) {}

  uint32_t Lock();  // the system's error number

  const std::filesystem::path path_;
  const bool stays_;
  platform::FileHandle lock_ = platform::kNoFile;
  bool left_ = false;
};

}  // namespace ctl
