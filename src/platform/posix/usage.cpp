// The files of proc(5) on Linux.
#include "platform/usage.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace platform {

namespace {

// Fields of /proc/PID/stat after the name, which may hold blanks itself: 0 is the state.
constexpr int kUserTime = 11;
constexpr int kSystemTime = 12;
constexpr int kThreads = 17;
constexpr int kResidentPages = 21;

}  // namespace

std::optional<Usage> UsageOf(int processId) {
  const std::string folder = "/proc/" + std::to_string(processId);
  std::ifstream in(folder + "/stat");
  std::string text;
  std::getline(in, text, ')');
  double fields[kResidentPages + 1] = {};
  std::string state;
  in >> state;
  for (int i = 1; i <= kResidentPages; ++i)
    in >> fields[i];
  std::error_code error;
  const std::filesystem::directory_iterator handles(folder + "/fd", error);
  if (!in || state == "Z" || error) return std::nullopt;

  Usage usage;
  usage.residentBytes =
      static_cast<uint64_t>(fields[kResidentPages]) * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  usage.threads = static_cast<uint32_t>(fields[kThreads]);
  usage.handles = static_cast<uint32_t>(std::distance(begin(handles), end(handles)));
  usage.cpuSeconds =
      (fields[kUserTime] + fields[kSystemTime]) / static_cast<double>(sysconf(_SC_CLK_TCK));
  return usage;
}

}  // namespace platform
