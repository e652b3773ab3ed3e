// Files that a process holds for as long as it lives, so that others see whether it still does: the
// system lets go of them when it is killed, too.
#pragma once

#include <string>

#include "platform/file.h"

namespace ctl {

// Shares reading and not writing: one process at a time has the file open so, others get
// platform::kBusy.
platform::OpenOptions Alone(platform::Disposition disposition);

// Whether a process holds the file now.
bool IsHeld(const std::wstring& path);

}  // namespace ctl
