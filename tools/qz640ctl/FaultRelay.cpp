#include "FaultRelay.h"

#include <fstream>
#include <iterator>

namespace ctl {

FaultRelay::FaultRelay(const UpOptions& options) : options_(options) {
  try {
    file_ = ReadFile();
    faults_ = Parse(file_);
  } catch (const wire::BadFault& error) {
    throw Failure{kUsage, error.what()};
  }
}

FaultRelay::~FaultRelay() {
  if (thread_) thread_->Do([this] { relay_.reset(); });
}

std::string FaultRelay::ReadFile() const {
  if (options_.faultFile.empty()) return {};
  std::ifstream file(options_.faultFile, std::ios::binary);
  if (!file) throw wire::BadFault(options_.faultFile + " can't be read");
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<wire::Fault> FaultRelay::Parse(const std::string& file) const {
  std::vector<wire::Fault> faults;
  for (const std::string& text : options_.faults)
    faults.push_back(wire::ParseFault(text));
  try {
    const std::vector<wire::Fault> more = wire::ParseFaultScript(file);
    faults.insert(faults.end(), more.begin(), more.end());
  } catch (const wire::BadFault& error) {
    throw wire::BadFault(options_.faultFile + ", " + error.what());
  }
  return faults;
}

void FaultRelay::Start(const wire::FaultyUnitsInfo& info) {
  for (const wire::FaultyUnit& unit : info.units)
    units_.push_back(unit.real);
  try {
    wire::CheckFaults(faults_, units_);
    thread_ = std::make_unique<wire::LoopThread>(loop_);
    thread_->Do([&] {
      relay_ = std::make_unique<wire::FaultyUnits>(loop_, info);
      relay_->SetFaults(faults_);
    });
  } catch (const wire::BadFault& error) {
    throw Failure{kUsage, error.what()};
  } catch (const wire::SocketError& error) {
    throw Failure{kNoPort, "no room for the faults' relay: " + std::string(error.what()) +
                               " (qz640ctl doctor says who has a port)"};
  }
}

// By what it holds, as a file's time is too coarse for two changes within a second.
void FaultRelay::Refresh(Output& out) {
  try {
    std::string file = ReadFile();
    if (file == file_) return;
    file_ = std::move(file);
    const std::vector<wire::Fault> faults = Parse(file_);
    wire::CheckFaults(faults, units_);
    thread_->Do([&] { relay_->SetFaults(faults); });
    complaint_.clear();
  } catch (const wire::BadFault& error) {
    if (complaint_ == error.what()) return;
    complaint_ = error.what();
    out.Error(complaint_ + "; the faults stay as they were");
  }
}

}  // namespace ctl
