// The output of a child process, taken line by line on a thread of its own. Ends with the child's
// output: the child is stopped before this object goes.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/child.h"

namespace ctl {

class OutputReader {
 public:
  // `show`, which may be null, gets the bytes as they come, on that thread.
  OutputReader(platform::Child& child, std::function<void(const std::string&)> show);
  ~OutputReader();
  OutputReader(const OutputReader&) = delete;
  OutputReader& operator=(const OutputReader&) = delete;

  // Waits for a line with one of the texts; empty when the output ends or time is over.
  std::string WaitFor(const std::vector<std::string>& texts, uint32_t milliseconds);

  // False when time is over before the output has ended.
  bool WaitEnd(uint32_t milliseconds);

  // The latest lines, to show how the output ended; empty if there are none.
  std::string Tail();

  // Nobody waits for lines any more: all but the latest are forgotten.
  void Forget();

 private:
  static constexpr size_t kTail = 3;  // lines

  void Run();

  platform::Child& child_;
  const std::function<void(const std::string&)> show_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> lines_;
  bool keep_ = true;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace ctl
