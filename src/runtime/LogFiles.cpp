#include "runtime/LogFiles.h"

#include <algorithm>
#include <string_view>

#include "platform/errors.h"
#include "runtime/Dir.h"
#include "runtime/Format.h"
#include "runtime/LogLine.h"
#include "runtime/Paths.h"

namespace {

constexpr wchar_t kBeginBanner[] =
    L"------------------------<<< BEGIN LOG >>>------------------------";
constexpr wchar_t kEndBanner[] =
    L"-------------------------<<< END LOG >>>-------------------------";

// Between two deletions, so that other programs get their turn at the disk.
constexpr uint32_t kDeletePauseMs = 100;

constexpr size_t kGatheredBytes = 65536;

LogParams Normalized(LogParams params) {
  NormalizePath(params.dir);
  // The root keeps its separator: an empty text would be the working directory.
  if (params.dir.size() > 1) RemoveTrailingSeparator(params.dir);
  return params;
}

platform::LocalTime SecondNow() {
  platform::LocalTime now = platform::GetClock().Local();
  now.millisecond = 0;
  return now;
}

// `name` as a regular expression that matches it alone.
std::wstring Literal(std::wstring_view name) {
  std::wstring pattern;
  for (const wchar_t unit : name) {
    if (std::wstring_view(L"^$\\.*+?()[]{}|").find(unit) != std::wstring_view::npos)
      pattern += L'\\';
    pattern += unit;
  }
  return pattern;
}

}  // namespace

LogFiles::LogFiles(const LogParams& params) : params_(Normalized(params)) {}

LogFiles::~LogFiles() {
  destroying_ = true;
  if (cleanUp_.joinable()) cleanUp_.join();
}

std::wstring LogFiles::NewPath() const {
  std::wstring path = params_.dir;
  if (!path.empty()) AddTrailingSeparator(path);
  path += params_.name;
  if (params_.maxFileSize != 0) {
    path += L'~';
    AppendDigits(path, openTried_.year, 4);
    AppendDigits(path, openTried_.month, 2);
    AppendDigits(path, openTried_.day, 2);
    path += L'-';
    AppendDigits(path, openTried_.hour, 2);
    AppendDigits(path, openTried_.minute, 2);
    AppendDigits(path, openTried_.second, 2);
  }
  return path + L".log";
}

// Makes the directory if it isn't there. The log of a service is no reading for others, and in a
// directory that others write they could have put a link under the name of the file, to a file of
// ours that we would empty.
uint32_t LogFiles::PrepareDir() const {
  if (params_.dir.empty()) return 0;
  const wchar_t* dir = params_.dir.c_str();
  const uint32_t error = platform::PathCheckOwnDir(dir);
  if (error != platform::kFileNotFound && error != platform::kPathNotFound) return error;
  const uint32_t made = platform::PathMakeDir(dir);
  return made != 0 ? made : platform::PathCheckOwnDir(dir);
}

// A reason is reported once, however often the file is tried after that.
void LogFiles::NoFile(const std::wstring& reason) {
  std::wstring trouble = Format(L"No log file in \"%s\": %s. It is tried again every second.",
                                params_.dir.empty() ? L"." : params_.dir, reason);
  if (trouble == latestTrouble_) return;
  trouble_ = latestTrouble_ = std::move(trouble);
}

void LogFiles::Open() {
  const bool rotates = params_.maxFileSize != 0;
  openTried_ = SecondNow();
  path_ = NewPath();
  written_ = 0;
  if (const uint32_t error = PrepareDir(); error != 0) {
    NoFile(Format(L"it has to be a folder that this user alone can change (error %d)", error));
    return;
  }
  if (rotates) {
    // Of two files in one second the later stays. Emptying the earlier one would wait until the
    // system has brought it to the disk, removing it doesn't.
    platform::PathRemove(path_.c_str());
  } else {
    platform::PathSetCompression(path_.c_str(), false);
  }

  const platform::OpenOptions options{.write = true,
                                      .disposition = rotates ? platform::Disposition::CreateAlways
                                                             : platform::Disposition::OpenAlways,
                                      .ownerOnly = true};
  const uint32_t error = platform::FileOpen(path_.c_str(), options, &file_, nullptr);
  if (error != 0) {
    NoFile(error == platform::kBusy ? std::wstring(L"another program writes a file of that name")
                                    : Format(L"the file can't be made (error %d)", error));
    return;
  }
  trouble_.clear();
  latestTrouble_.clear();
  platform::FileSeek(file_, 0, platform::SeekFrom::End, &written_);
  WriteBanner(kBeginBanner);
}

void LogFiles::Close() {
  if (file_ == platform::kNoFile) return;
  WriteBanner(kEndBanner);
  platform::FileFlush(file_);
  CloseUnflushed();
}

void LogFiles::CloseUnflushed() {
  platform::FileClose(file_);
  file_ = platform::kNoFile;
  platform::PathSetCompression(path_.c_str(), true);
  path_.clear();
}

void LogFiles::WriteGathered() {
  if (gathered_.empty()) return;
  uint32_t done = 0;
  if (platform::FileWrite(file_, gathered_.data(), static_cast<uint32_t>(gathered_.size()),
                          &done) != 0 &&
      done != 0) {
    // A full disk costs whole lines: what is stored later must not go on in the middle of one.
    const size_t lineEnd = gathered_.rfind('\n', done - 1);
    const uint32_t whole = lineEnd == std::string::npos ? 0 : static_cast<uint32_t>(lineEnd) + 1;
    platform::FileSeek(file_, int64_t{whole} - done, platform::SeekFrom::Current, nullptr);
    platform::FileSetEnd(file_);
    done = whole;
  }
  written_ += done;
  gathered_.clear();
}

void LogFiles::WriteBanner(const wchar_t* text) {
  AppendShown(gathered_, FormatLogLine(text, std::wstring_view(text).size()));
  WriteGathered();
}

void LogFiles::Store(std::wstring_view line) {
  if (file_ == platform::kNoFile && SecondNow() != openTried_) Open();
  if (file_ == platform::kNoFile) return;
  AppendShown(gathered_, line);
  const bool full = params_.maxFileSize != 0 && written_ + gathered_.size() > params_.maxFileSize;
  if (full || gathered_.size() >= kGatheredBytes) WriteGathered();
  if (params_.maxFileSize != 0 && written_ > params_.maxFileSize) Rotate();
}

void LogFiles::Rotate() {
  // The system brings the file to the disk in its own time. To wait for that takes seconds where
  // others use the disk, and a flood's lines would fill the memory meanwhile.
  WriteBanner(kEndBanner);
  CloseUnflushed();
  Open();
  if (!cleaning_) StartCleanUp();
}

void LogFiles::StartCleanUp() {
  if (cleanUp_.joinable()) cleanUp_.join();  // it has ended, or is about to
  cleaning_ = true;
  try {
    cleanUp_ = std::thread([this] {
      try {
        DeleteOldLogs(params_, destroying_);
      } catch (...) {
        // No memory: the files stay until the next rotation.
      }
      cleaning_ = false;
    });
  } catch (...) {
    cleaning_ = false;  // no thread to be had; the next rotation tries again
  }
}

namespace {

// The rotated files of a log, oldest first: their names differ in nothing but the time.
class RotatedFiles {
 public:
  RotatedFiles(const LogParams& params, const std::atomic<bool>& stop) : stop_(stop) {
    const std::wstring pattern = L"^" + Literal(params.name) + L"~[0-9]{8}-[0-9]{6}\\.log$";
    const std::wstring dir = params.dir.empty() ? L"." : params.dir;
    files_ = *fs::Dir(dir, pattern, fs::Dir::kFiles).files;
    // No log made these.
    std::erase_if(files_,
                  [](const auto& file) { return (file.second.attributes & fs::kLink) != 0; });
    for (const auto& [path, description] : files_)
      totalSize_ += description.size;
  }

  uint64_t TotalSize() const { return totalSize_; }

  // Null when there is none, or when it is time to stop.
  const std::wstring* Oldest() const {
    return stop_ || files_.empty() ? nullptr : &files_.begin()->first;
  }

  // A file that can't be deleted, the current one above all, counts as gone here: it would stand
  // in the way of all that follow.
  void DeleteOldest() {
    const auto oldest = files_.begin();
    platform::PathRemove(oldest->first.c_str());
    totalSize_ -= oldest->second.size;
    files_.erase(oldest);
    platform::GetClock().Sleep(kDeletePauseMs);
  }

 private:
  const std::atomic<bool>& stop_;
  fs::Dir::Files files_;
  uint64_t totalSize_ = 0;
};

// The day in the name of a rotated file; false if there is none.
bool DayOfPath(const std::wstring& path, int64_t& day) {
  constexpr size_t kTail = std::wstring_view(L"YYYYMMDD-HHMMSS.log").size();
  if (path.size() < kTail) return false;
  const std::wstring_view date = std::wstring_view(path).substr(path.size() - kTail, 8);
  int digits[8];
  for (size_t i = 0; i < 8; ++i) {
    if (date[i] < L'0' || date[i] > L'9') return false;
    digits[i] = static_cast<int>(date[i] - L'0');
  }
  const int year = digits[0] * 1000 + digits[1] * 100 + digits[2] * 10 + digits[3];
  day = DayNumber(year, digits[4] * 10 + digits[5], digits[6] * 10 + digits[7]);
  return true;
}

}  // namespace

void DeleteOldLogs(const LogParams& params, const std::atomic<bool>& stop) {
  RotatedFiles files(params, stop);
  if (params.maxTotalSize != 0) {
    while (files.Oldest() && files.TotalSize() > params.maxTotalSize)
      files.DeleteOldest();
  }
  if (params.maxAgeDays != 0) {
    const platform::LocalTime now = platform::GetClock().Local();
    const int64_t limit = DayNumber(now.year, now.month, now.day) - int64_t{params.maxAgeDays};
    while (const std::wstring* oldest = files.Oldest()) {
      int64_t day = 0;
      if (!DayOfPath(*oldest, day) || day >= limit) break;
      files.DeleteOldest();
    }
  }
}

int64_t DayNumber(int year, int month, int day) {
  constexpr int kDaysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const int y = year - 1972;
  const bool beforeLeapDay = y % 4 == 0 && month <= 2;
  return int64_t{y / 4} * 1461 + (y % 4) * 365 + kDaysBefore[std::clamp(month, 1, 12) - 1] + day -
         1 + (beforeLeapDay ? 0 : 1);
}
