// Where the emulator's program file stands.
#pragma once

#include <filesystem>
#include <string>

namespace ctl {

// The file itself, links followed: what stands beside a link isn't beside the program. `named` is
// what the user says; empty: beside this program, in ../libexec/qz640emu, or on the PATH. Throws
// Failure (kUsage) that says where it was looked for.
std::filesystem::path FindEmulator(const std::string& named);

}  // namespace ctl
