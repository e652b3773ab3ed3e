// Misbehaving units for "up": the relay before the units on a thread of its own, and the faults
// that it is given, from the command line and from a file that may change meanwhile.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Commands.h"
#include "wire/FaultyUnits.h"

namespace ctl {

class FaultRelay {
 public:
  // What the command line asks for; throws Failure (kUsage) for what isn't understood.
  explicit FaultRelay(const UpOptions& options);
  ~FaultRelay();
  FaultRelay(const FaultRelay&) = delete;
  FaultRelay& operator=(const FaultRelay&) = delete;

  // Stands before the units from now on. Throws Failure.
  void Start(const wire::FaultyUnitsInfo& info);

  // Reads the file again. Where it can't be taken in, the faults stay as they were, and `out` gets
  // one line that says why.
  void Refresh(Output& out);

 private:
  std::string ReadFile() const;
  std::vector<wire::Fault> Parse(const std::string& file) const;

  const UpOptions& options_;
  std::string file_;       // as it was read last
  std::string complaint_;  // of the latest reading
  std::vector<wire::Fault> faults_;
  std::vector<wire::Unit> units_;
  wire::Loop loop_;
  std::unique_ptr<wire::LoopThread> thread_;
  std::unique_ptr<wire::FaultyUnits> relay_;  // of that thread
};

}  // namespace ctl
