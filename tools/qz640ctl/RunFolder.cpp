#include "RunFolder.h"

#include <chrono>
#include <fstream>
#include <random>
#include <system_error>
#include <thread>
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
constexpr auto kPatience = std::chrono::seconds(2);
constexpr auto kStep = std::chrono::milliseconds(20);

using Clock = std::chrono::steady_clock;

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

// A file, or a folder of a run. Its lock goes last: where something can't be removed yet, a later
// sweep still knows the folder by it. Empty for success.
std::error_code Remove(const files::path& path) {
  std::error_code error;
  for (files::directory_iterator at(path, error), end; !error && at != end; at.increment(error)) {
    if (at->path().filename() == kLock) continue;
    files::remove_all(at->path(), error);
    if (error) return error;
  }
  files::remove_all(path, error);
  return error;
}

// Windows removes no program that runs, has only just ended, or is looked at by a virus scanner, so
// some tries follow until `limit`.
std::error_code RemoveUntil(const files::path& path, Clock::time_point limit) {
  std::error_code error;
  while ((error = Remove(path)) && Clock::now() < limit)
    std::this_thread::sleep_for(kStep);
  return error;
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

RunFolder::~RunFolder() {
  Leave();
}

// The lock file of a folder that stays is left there: by the time that it was removed, the next run
// could have locked it.
std::string RunFolder::Leave() {
  if (left_) return {};
  left_ = true;
  if (lock_ == platform::kNoFile && stays_) return {};
  if (lock_ != platform::kNoFile) platform::FileClose(lock_);
  if (!stays_) {
    const std::error_code error = RemoveUntil(path_, Clock::now() + kPatience);
    return error ? error.message() : std::string();
  }
  std::error_code ignored;
  for (const char* own : {kStop, kDetached})
    files::remove(path_ / own, ignored);
  return {};
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
  RemoveUntil(installed, Clock::now() + kPatience);
  error.clear();
  if (platform::PathLinkProgram(Wide(emulator).c_str(), Wide(installed).c_str()) != 0)
    files::copy_file(emulator, installed, error);
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

// A folder without a lock belongs to a run that has made it this very moment. The emulator of a run
// that was killed just now may still be ending.
void RunFolder::Sweep() {
  std::error_code ignored;
  const auto limit = Clock::now() + kPatience;
  for (const files::path& path : Folders()) {
    if (files::exists(path / kLock, ignored) && !IsRunning(path)) RemoveUntil(path, limit);
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

bool RunFolder::IsLeft(const files::path& path) {
  std::error_code ignored;
  if (path.filename().string().starts_with(kPrefix)) return !files::exists(path, ignored);
  return !IsRunning(path) && !files::exists(path / kStop, ignored);
}

bool RunFolder::AskToStop(const files::path& path) {
  return std::ofstream(path / kStop, std::ios::binary).good();
}

}  // namespace ctl
