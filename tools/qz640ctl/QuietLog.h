// The log of qz640ctl: the emulator's classes write to it as everywhere, and it goes nowhere unless
// asked for. No files.
#pragma once

namespace ctl {

// Called before any other object of the system is made. With `verbose` the lines go to standard
// error.
void UseQuietLog(bool verbose);

}  // namespace ctl
