// A child process that a test drives: its standard input is a pipe that stays open, its output is
// kept as lines with the time at which each arrived. Threads of its own read the output and wait
// for the end; every function may be called from any thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class Process {
 public:
  using Clock = std::chrono::steady_clock;

  struct Line {
    Clock::time_point time;
    std::string text;  // without its line end
    size_t number;     // from 0, empty lines not counted
  };

  struct Options {
    std::vector<std::string> arguments = {};  // behind the program's name
    std::vector<std::pair<std::string, std::string>> environment =
        {};  // replaces or adds variables
    // The child starts without the descriptor, as under `<&-` and `>&-` of a shell.
    bool withoutInput = false;
    bool withoutOutput = false;
    // Gets the child's output as it comes, on a thread of the reader's own; then nothing of it is
    // kept here.
    std::function<void(std::string_view)> takeOutput = {};
  };

  enum class Signal { Interrupt, Terminate, Kill, Suspend, Resume };

  static constexpr auto kPatience = std::chrono::seconds(30);

  // Throws std::runtime_error if the program can't be started.
  Process(const std::filesystem::path& program, const Options& options);

  // Kills what still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // False once the child no longer reads.
  bool Write(std::string_view bytes);
  void CloseInput();

  // Closes the reading end of the child's output: what it writes from now on fails.
  void StopReading();

  void Send(Signal signal);

  // The first line from line number `from` on that holds `part`. Empty if the output ends or the
  // time runs out before.
  std::optional<Line> WaitLine(std::string_view part, size_t from = 0,
                               Clock::duration patience = kPatience);

  // The exit status; 128 plus the number of the signal that ended the child. By then all of the
  // output is in. Empty if the child doesn't end in time.
  std::optional<int> WaitExit(Clock::duration patience = kPatience);

  bool HasEnded() const;
  int Id() const;

  // The lines so far, without the empty ones; the output as bytes; the error output.
  std::vector<Line> Lines() const;
  std::string Output() const;
  std::string ErrorOutput() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
