// The files of proc(5) on Linux.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "soak/Machine.h"

namespace soak {

namespace {

// Fields of /proc/PID/stat behind the name, which may hold blanks itself: 0 is the state.
constexpr int kUserTime = 11;
constexpr int kSystemTime = 12;
constexpr int kThreads = 17;
constexpr int kResidentPages = 21;

}  // namespace

Use ReadUse(int process) {
  const std::string folder = "/proc/" + std::to_string(process);
  std::ifstream in(folder + "/stat");
  std::string text;
  std::getline(in, text, ')');
  double fields[kResidentPages + 1] = {};
  std::string state;
  in >> state;
  for (int i = 1; i <= kResidentPages; ++i)
    in >> fields[i];
  if (!in || state == "Z") throw std::runtime_error("the emulator has ended before its time");

  Use use;
  use.memoryMiB = fields[kResidentPages] * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
  use.threads = static_cast<int>(fields[kThreads]);
  use.cpuSeconds =
      (fields[kUserTime] + fields[kSystemTime]) / static_cast<double>(sysconf(_SC_CLK_TCK));
  const std::filesystem::directory_iterator descriptors(folder + "/fd");
  use.descriptors = static_cast<int>(std::distance(begin(descriptors), end(descriptors)));
  return use;
}

bool OutputIsTerminal() {
  return isatty(STDOUT_FILENO) == 1;
}

}  // namespace soak
