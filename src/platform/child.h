// A program that this one starts and watches over. One thread at a time, but for what says
// otherwise.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

struct ChildOptions {
  std::vector<std::string>
      command;            // program (looked up in PATH if it has no separator), arguments
  std::string shellLine;  // instead of `command`: for the system's shell (sh, cmd.exe)
  std::vector<std::pair<std::string, std::string>> environment;  // added or replaced

  // Pipes in place of this program's own standard input and output. The child then also stands
  // outside the terminal's reach: Ctrl-C goes to this program alone.
  bool piped = false;

  // Without pipes: one in place of this program's own standard input alone, for WriteInput and
  // CloseInput. A child that ends with its input can so be asked to end where it can't be reached
  // by a signal, as on Windows without a console.
  bool inputPiped = false;

  // With pipes: a third one in place of this program's own standard error.
  bool errorsPiped = false;

  // With pipes: what the child writes to standard error goes to the same pipe as its output.
  bool errorsToOutput = false;

  // With pipes: the child leaves this program's terminal and session, and stays when this program
  // or the Child ends.
  bool detached = false;

  // Without pipes: what the child writes to standard output goes to this program's standard error.
  bool outputToError = false;

  // Without pipes: the child reads nothing, writes nowhere, and stands outside the terminal's
  // reach.
  bool silent = false;
};

class Child {
 public:
  Child();
  ~Child();  // ends what still runs and isn't detached, the hard way
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // The operating system's error number, 0 for success.
  uint32_t Start(const ChildOptions& options);

  // With pipes, or one for input: gives bytes to the child, or ends its input. False once it reads
  // no more.
  bool WriteInput(std::string_view bytes);
  void CloseInput();

  // With pipes: waits for output, on any one thread. Empty at its end.
  std::string ReadOutput();

  // With a pipe for errors: the same for the error output, on the same thread or another one.
  std::string ReadErrors();

  // With pipes, on the thread that reads: nothing is read any more, and what the child writes to
  // standard output from now on fails.
  void CloseOutput();

  // The system's number of the process that was started.
  int Id() const;

  // The exit status once the child has ended; 128 plus the number of the signal that ended it.
  std::optional<int> Wait(uint32_t milliseconds);

  // Asks the child to end, as Ctrl-C or SIGTERM do.
  void Terminate();

  // Ends the child the hard way.
  void Kill();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace platform
