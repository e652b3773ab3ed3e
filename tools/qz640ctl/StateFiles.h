// The folder where this user's qz640ctl keeps what outlives a run. No state, any thread.
#pragma once

#include <string>

namespace ctl {

// Ends in a separator; empty if the system has no place for it. It may not be there yet.
std::wstring StateFolder();

// Makes the folder and those above it. What can't be made shows when a file in it can't.
void MakeStateFolder();

// Empty where it can't be read. Another process may be writing it.
std::string ReadStateFile(const std::wstring& path);

// What stands in it after that is `bytes`, which only this user can read. False where it can't be
// had.
bool WriteStateFile(const std::wstring& path, const std::string& bytes);

}  // namespace ctl
