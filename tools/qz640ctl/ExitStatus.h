// How a command of qz640ctl ends.
#pragma once

#include <string>

namespace ctl {

enum ExitStatus : int {
  kDone = 0,
  kRefused = 1,   // the unit refused, or a check failed
  kUsage = 2,     // the command line can't be taken
  kNoAnswer = 3,  // nobody answered
  kNoPort = 4     // a port or address can't be had
};

// Ends a command: its status, and a sentence that says what happened, to what, and what to do.
struct Failure {
  ExitStatus status;
  std::string text;  // UTF-8
};

}  // namespace ctl
