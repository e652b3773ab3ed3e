#include "RunFolder.h"

#include <fstream>
#include <random>
#include <system_error>
#include <utility>

#include "HeldFile.h"
#include "platform/errors.h"
#include "platform/paths.h"
#include "platform/text.h"

namespace ctl {

namespace files = std::filesystem;

namespace {

constexpr const char* kPrefix = "qz640ctl-up-";
constexpr const char* kLock = "up.lock";
constexpr const char* kDetached = "up.detached";
constexpr const char* kStop = "up.stop";

std::wstring Wide(const files::path& path) {
  return platform::Utf8ToWideLossy(path.string());
}

std::string Reason(uint32_t error) {
  return std::system_category().message(static_cast<int>(error));
}

// This user's folders of runs below Places(), of runs that last and of others.
std::vector<files::path> Folders() {
  std::vector<files::path> folders;
  for (const files::path& place : RunFolder::Places()) {
    std::error_code error;
    for (files::directory_iterator at(place, error), end; !error && at != end;
         at.increment(error)) {
      const files::path path = at->path();
      if (!path.filename().string().starts_with(kPrefix)) continue;
      if (platform::PathCheckOwnDir(Wide(path).c_str()) == 0) folders.push_back(path);
    }
  }
  return folders;
}

// The lock goes last: where something can't be removed yet, as a program that has only just ended
// can't on Windows, a later sweep still knows the folder by it.
void Remove(const files::path& path) {
  std::error_code error;
  for (files::directory_iterator at(path, error), end; !error && at != end; at.increment(error)) {
    if (at->path().filename() == kLock) continue;
    files::remove_all(at->path(), error);
    if (error) return;
  }
  files::remove_all(path, error);
}

}  // namespace

std::vector<files::path> RunFolder::Places() {
  std::vector<files::path> places;
  for (const std::wstring& dir : platform::TempDirs()) {
    // They end in a separator, which a path that is shown does without.
    if (!dir.empty()) places.push_back(files::path(platform::WideToUtf8Lossy(dir)).parent_path());
  }
  const std::wstring state = platform::StateDir();
  if (!state.empty()) places.push_back(files::path(platform::WideToUtf8Lossy(state)) / "qz640ctl");
  return places;
}

// The number has to be new, not secret: where there is a folder of that name already, the next
// number is taken.
std::unique_ptr<RunFolder> RunFolder::MakeIn(const files::path& place) {
  std::random_device random;
  std::error_code missing;
  if (!files::is_directory(place, missing)) {
    throw Unusable(place.string() + " is no folder that is there");
  }
  uint32_t error = 0;
  for (int attempt = 0; attempt < 10; ++attempt) {
    const files::path path = place / (kPrefix + std::to_string(random()));
    error = platform::PathMakeDir(Wide(path).c_str());
    if (error == platform::kAlreadyExists || error == platform::kFileExists) continue;
    if (error != 0) break;
    std::unique_ptr<RunFolder> folder(new RunFolder(path, false));
    error = folder->Lock();
    if (error == 0) return folder;
  }
  throw Unusable(place.string() + " takes no folder (" + Reason(error) + ")");
}

std::unique_ptr<RunFolder> RunFolder::Open(const files::path& path) {
  std::error_code error;
  files::create_directories(path, error);
  if (error) throw Unusable(path.string() + " can't be made (" + error.message() + ")");
  const files::path full = files::canonical(path, error);
  std::unique_ptr<RunFolder> folder(new RunFolder(error ? path : full, true));
  uint32_t locked = folder->Lock();
  if (locked == platform::kBusy && !IsRunning(folder->path_)) locked = folder->Lock();
  if (locked == platform::kBusy) {
    throw Unusable("another run has " + folder->path_.string() +
                   "; give each a folder of its own, or end that one: qz640ctl down " +
                   folder->path_.string());
  }
  if (locked != 0) {
    throw Unusable(folder->path_.string() + " can't be written (" + Reason(locked) + ")");
  }
  for (const char* left : {kStop, kDetached})
    files::remove(folder->path_ / left, error);
  return folder;
}

// The lock file of a folder that stays is left there: by the time that it was removed, the next run
// could have locked it.
RunFolder::~RunFolder() {
  if (lock_ == platform::kNoFile && stays_) return;
  std::error_code ignored;
  if (lock_ != platform::kNoFile) platform::FileClose(lock_);
  if (stays_) {
    for (const char* own : {kStop, kDetached})
      files::remove(path_ / own, ignored);
  } else {
    Remove(path_);
  }
}

uint32_t RunFolder::Lock() {
  const uint32_t error = platform::FileOpen(
      Wide(path_ / kLock).c_str(), Alone(platform::Disposition::OpenAlways), &lock_, nullptr);
  if (error != 0) lock_ = platform::kNoFile;
  return error;
}

// A link to the file where the system permits it, else a copy. One of an earlier run makes room:
// the emulator may have been replaced by a newer one since.
files::path RunFolder::Install(const files::path& emulator, const std::string& settings) const {
  const files::path installed = path_ / emulator.filename();
  std::error_code error;
  if (files::equivalent(emulator.parent_path(), path_, error)) {
    throw Unusable(path_.string() + " is the emulator's own folder, where nothing is written");
  }
  files::remove(installed, error);
  files::create_hard_link(emulator, installed, error);
  if (error) files::copy_file(emulator, installed, error);
  if (error) {
    throw Unusable(path_.string() + " takes no copy of " + emulator.string() + " (" +
                   error.message() + ")");
  }
  std::ofstream file(installed.string() + ".json", std::ios::binary);
  file << settings;
  file.close();
  if (!file) throw Unusable(path_.string() + " takes no settings file; is the disk full?");
  return installed;
}

void RunFolder::MarkDetached() const {
  std::ofstream(path_ / kDetached, std::ios::binary);
}

bool RunFolder::IsStopAsked() const {
  std::error_code error;
  return files::exists(path_ / kStop, error);
}

// A folder without a lock belongs to a run that has made it this very moment.
void RunFolder::Sweep() {
  std::error_code ignored;
  for (const files::path& path : Folders()) {
    if (files::exists(path / kLock, ignored) && !IsRunning(path)) Remove(path);
  }
}

std::vector<files::path> RunFolder::Detached() {
  std::vector<files::path> runs;
  std::error_code ignored;
  for (const files::path& path : Folders()) {
    if (files::exists(path / kDetached, ignored) && IsRunning(path)) runs.push_back(path);
  }
  return runs;
}

bool RunFolder::IsRunning(const files::path& path) {
  return IsHeld(Wide(path / kLock));
}

bool RunFolder::AskToStop(const files::path& path) {
  return std::ofstream(path / kStop, std::ios::binary).good();
}

}  // namespace ctl
