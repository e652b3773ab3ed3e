#include "HeldFile.h"

#include <chrono>
#include <thread>

#include "platform/errors.h"

namespace ctl {

platform::OpenOptions Alone(platform::Disposition disposition) {
  platform::OpenOptions options;
  options.write = true;
  options.disposition = disposition;
  options.ownerOnly = true;
  return options;
}

// Another process that looks just now holds the file for a moment too: one look isn't enough.
bool IsHeld(const std::wstring& path) {
  for (int look = 0; look < 3; ++look) {
    if (look > 0) std::this_thread::sleep_for(std::chrono::milliseconds(3));
    platform::FileHandle file = platform::kNoFile;
    const uint32_t error = platform::FileOpen(
        path.c_str(), Alone(platform::Disposition::OpenExisting), &file, nullptr);
    if (error == 0) platform::FileClose(file);
    if (error != platform::kBusy) return false;
  }
  return true;
}

}  // namespace ctl
