// Where the program and its temporary files stand in the system. Any thread.
#pragma once

#include <string>
#include <vector>

namespace platform {

// What stands between the names of a path: '/' or '\'.
wchar_t PathSeparator();

// The full path of the file of the program or library that `module`, an address, belongs to, null
// being the running program; empty if the system knows none. What isn't text in it becomes U+FFFD:
// this is called before anybody could catch an exception.
std::wstring ModuleFile(const void* module);

// The directory for temporary files, ending in a separator; empty if the system names none.
std::wstring TempDir();

// All that may be tried for temporary files, TempDir first; some may not be there.
std::vector<std::wstring> TempDirs();

// The program file that a bare name stands for, looked up as a shell does it: PATH. The name comes
// with its ending. Empty if there is none.
std::wstring FindProgram(const std::wstring& name);

// The directory where this user's programs keep what has to outlive a run, ending in a separator;
// it may not be there yet. Empty if the system names none.
std::wstring StateDir();

}  // namespace platform
