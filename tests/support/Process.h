// A child process that a test drives: its standard input is a pipe that stays open, its output is
// kept as lines with the time at which each arrived, by threads that read it as it comes. The
// functions belong to the test's own thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/child.h"

class Process {
 public:
  using Clock = std::chrono::steady_clock;

  struct Line {
    Clock::time_point time;
    std::string text;  // without its line end
    size_t number;     // from 0, empty lines not counted
  };

  struct Options {
    std::vector<std::string> arguments = {};                            // after the program's name
    std::vector<std::pair<std::string, std::string>> environment = {};  // added or replaced
  };

  static constexpr auto kPatience = std::chrono::seconds(30);

  // Throws std::runtime_error if the program can't be started.
  Process(const std::filesystem::path& program, const Options& options);

  // Kills what still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // False once the child no longer reads.
  bool Write(std::string_view bytes) { return child_.WriteInput(bytes); }
  void CloseInput() { child_.CloseInput(); }

  // Closes the reading end of the child's output after the next bytes that come from there: what
  // the child writes then fails.
  void StopReading();

  void Kill() { child_.Kill(); }
  bool HasEnded() { return child_.Wait(0).has_value(); }
  int Id() const { return child_.Id(); }

  // The first line from line number `from` on that holds `part`. Empty if the output ends or the
  // time runs out before.
  std::optional<Line> WaitLine(std::string_view part, size_t from = 0,
                               Clock::duration patience = kPatience);

  // The exit status; 128 plus the number of the signal that ended the child. By then all of the
  // output is in. Empty if the child doesn't end in time.
  std::optional<int> WaitExit(Clock::duration patience = kPatience);

  // The lines so far, without the empty ones; the output as bytes; the error output.
  std::vector<Line> Lines() const;
  std::string Output() const;
  std::string ErrorOutput() const;

 private:
  void ReadOutput();
  void ReadErrors();

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Line> lines_;
  std::string output_;
  std::string errors_;
  size_t lineBegin_ = 0;  // in `output_`, of the line that is still incomplete
  bool stopReading_ = false;
  bool outputEnded_ = false;
  bool errorsEnded_ = false;

  platform::Child child_;
  std::thread outputReader_;
  std::thread errorsReader_;
};
