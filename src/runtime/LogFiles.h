// The files of the log: a directory of "<name>~YYYYMMDD-HHMMSS.log", of which the newest is being
// written. When it reaches its size it is closed, the next one is opened, and old ones are deleted.
//
// Lives on the log's writer thread; deleting runs on a thread of its own, at most one at a time.
// No lock: the two share nothing but flags, and a file that is being written can't be deleted.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/clock.h"
#include "platform/file.h"

struct LogParams {
  std::wstring dir;                    // made if it isn't there; empty is the working directory
  std::wstring name;                   // first part of every file name
  uint64_t maxFileSize = 1'048'576;    // bytes; above it the file is closed. 0: one file for all
  uint64_t maxTotalSize = 31'457'280;  // bytes of all rotated files together; 0: no limit
  uint32_t maxAgeDays = 30;            // age beyond which rotated files go; 0: no limit
};

// With a maxFileSize of 0 the one file is "<name>.log", every run appends to it, and nothing is
// ever deleted.
//
// Nothing here fails towards the caller. Where no file can be opened, lines are dropped (there is
// no directory, it isn't this user's alone, or another log writes the file of the same name), and
// it is tried again in each new second.
class LogFiles {
 public:
  explicit LogFiles(const LogParams& params);
  // Once the writer has ended; a deletion that is under way stops at the next file.
  ~LogFiles();
  LogFiles(const LogFiles&) = delete;
  LogFiles& operator=(const LogFiles&) = delete;

  // Of the writer thread. Open and Close write a banner line as the first and the last of a file.
  void Open();
  // Store gathers lines, with their line ends, and may go on to the next file; WriteGathered writes
  // them to the current one.
  void Store(std::wstring_view line);
  void WriteGathered();
  void Close();

  // Why there is no file, in a sentence for the console; empty if that was taken already, or if
  // there is a file.
  std::wstring TakeTrouble() { return std::exchange(trouble_, {}); }

 private:
  std::wstring NewPath() const;
  uint32_t PrepareDir() const;
  void NoFile(const std::wstring& reason);
  void WriteBanner(const wchar_t* text);
  void CloseUnflushed();
  void Rotate();
  void StartCleanUp();

  const LogParams params_;  // dir is normalised and has no trailing separator

  std::wstring path_;  // of the current file
  platform::FileHandle file_ = platform::kNoFile;
  uint64_t written_ = 0;  // bytes in the current file, banners and earlier runs included
  std::string gathered_;  // whole lines for it

  std::wstring trouble_;           // to be shown
  std::wstring latestTrouble_;     // since a file was open
  platform::LocalTime openTried_;  // the second of the latest Open

  std::atomic<bool> cleaning_{false};
  std::atomic<bool> destroying_{false};
  std::thread cleanUp_;
};

// Deletes rotated files, oldest first: until they are within maxTotalSize, then those older than
// maxAgeDays. Waits 100 ms after each deletion. Stops before the next file once `stop` is set.
void DeleteOldLogs(const LogParams& params, const std::atomic<bool>& stop);

// Days since 1972-01-01, with a leap year every fourth year; months and days from 1.
int64_t DayNumber(int year, int month, int day);
