// Captures what passes an interface, by libpcap. Where that is missing, as on Windows, files alone
// can be read.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "CaptureFile.h"

namespace ctl {

class Capture {
 public:
  // `interface` is a name as the system has it, or "any". UDP alone is captured. Throws Failure:
  // kUsage where there is no libpcap or no such interface, kNoPort where the user may not capture.
  explicit Capture(const std::string& interface);
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  uint32_t LinkType() const;

  // Hands on what has come, oldest first; where nothing has, waits some 20 ms. Throws Failure
  // (kRefused) when the interface has gone.
  void Take(const std::function<void(const CapturedFrame&)>& take);

  // Frames that came faster than they were taken.
  uint64_t Dropped();

 private:
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace ctl
