// The real emulator in a folder of its own, with settings, a temporary directory and addresses that
// nobody else has. At the end it is stopped in good order and held to what every run has to keep:
// exit status 0, nothing on the error output (where sanitizers report), and no failure in the log
// that the test didn't expect.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/Process.h"
#include "support/System.h"
#include "wire/Loop.h"

// How long a test waits for what has to come. Generous, as nobody waits that long when all is well.
constexpr auto kPatience = std::chrono::seconds(30);

// What a test has on the wire runs on this loop, also while it waits for the emulator to say
// something or to end.
wire::Loop& TestLoop();

struct UnitSpec {
  std::string type = "QZ610";
  std::string id = "studio-a";
  int mode = 0;
  int64_t sampleFreq = 48000;
  std::string speed = "1.00000";
};

// The text of a settings file in the form in which the emulator writes it.
std::string SettingsText(const std::string& address, int basePort, int broadcastPort,
                         const std::vector<UnitSpec>& units);

class EmulatorProcess {
 public:
  // Makes the folder, with a copy of the executable.
  EmulatorProcess();

  // And a settings file with those units, on OwnAddress() from port 8000, discovery on 15001.
  explicit EmulatorProcess(const std::vector<UnitSpec>& units, int basePort = 8000,
                           int broadcastPort = 15001);

  // Ends the run, if there is one, and removes the folder.
  ~EmulatorProcess();
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  std::filesystem::path SettingsPath() const;
  void WriteSettings(const std::string& text) const;
  std::string ReadSettings() const;  // empty if there is no file

  // Starts a run; one at a time. A failure of the test if it can't be started.
  void Start(Process::Options options = {});

  // Starts it from a POSIX shell that has executed `commands`, as "ulimit -n 20".
  void StartUnder(const std::string& commands);

  // Start, and waits for " Start OK". A failure of the test if that doesn't come.
  void StartAndWait();

  // The latest run, also after its end.
  Process& Child() { return *child_; }

  // Waits for a log line that holds `part`, and expects it. A failure of the test if none comes.
  // Returns the line's text after date and thread. Lines are looked at once: the next call
  // searches after the line that this one found, unless it looks for another `part`.
  std::string Line(const std::string& part);

  // The log texts so far that hold `part`, without date and thread.
  std::vector<std::string> LinesWith(const std::string& part) const;

  // The files of the log, of all runs so far, oldest first.
  std::vector<std::filesystem::path> LogFiles() const;

  // A failure report with this in it is nothing to complain of.
  void Allow(const std::string& part) { allowed_.push_back(part); }

  // Writes one character and waits for the end.
  void Stop();

  // Waits for the end of a run that ends by itself or was asked to, and holds it to the rules
  // above.
  void ExpectOrderlyEnd();

  // For what the rules above don't fit: kills the run, checks nothing.
  void Abandon() {
    child_->Kill();
    running_ = false;
  }

  // Where unit number `unit` with the given counts before it listens.
  wire::Endpoint Control(int portOffset = 0) const;
  wire::Endpoint Discovery() const;

 private:
  void Launch(const std::filesystem::path& program, Process::Options options);
  void CheckLog() const;

  std::filesystem::path folder_;
  std::unique_ptr<Process> child_;  // of the latest run, kept for its output
  bool running_ = false;
  std::vector<std::string> allowed_;
  int basePort_ = 8000;
  int broadcastPort_ = 15001;
  std::vector<std::pair<std::string, size_t>> searched_;  // next line to look at, by part
};
