// Where the program and its temporary files stand in the system. Any thread.
#pragma once

#include <string>

namespace platform {

// What stands between the names of a path: '/' or '\'.
wchar_t PathSeparator();

// The full path of the running program's file; empty if the system doesn't tell it. What isn't
// text in it becomes U+FFFD: this is called before anybody could catch an exception.
std::wstring ModuleFile();

// The directory for temporary files, ending in a separator; empty if the system names none.
std::wstring TempDir();

}  // namespace platform
