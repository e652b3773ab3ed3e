#include "OutputReader.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace ctl {

OutputReader::OutputReader(platform::Child& child, std::function<void(const std::string&)> show)
    : child_(child), show_(std::move(show)) {
  thread_ = std::thread([this] { Run(); });
}

OutputReader::~OutputReader() {
  thread_.join();
}

std::string OutputReader::WaitFor(const std::vector<std::string>& texts, uint32_t milliseconds) {
  std::unique_lock lock(mutex_);
  std::string found;
  changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] {
    for (const std::string& line : lines_) {
      const auto holds = [&](const std::string& text) {
        return line.find(text) != std::string::npos;
      };
      if (std::any_of(texts.begin(), texts.end(), holds)) {
        found = line;
        break;
      }
    }
    return !found.empty() || ended_;
  });
  return found;
}

bool OutputReader::WaitEnd(uint32_t milliseconds) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return ended_; });
}

std::string OutputReader::Tail() {
  std::lock_guard lock(mutex_);
  std::string tail;
  for (size_t i = lines_.size() - std::min(lines_.size(), kTail); i < lines_.size(); ++i)
    tail += (tail.empty() ? "" : " | ") + lines_[i];
  return tail;
}

void OutputReader::Forget() {
  std::lock_guard lock(mutex_);
  keep_ = false;
  while (lines_.size() > kTail)
    lines_.pop_front();
}

void OutputReader::Run() {
  std::string rest;
  for (std::string bytes = child_.ReadOutput(); !bytes.empty(); bytes = child_.ReadOutput()) {
    if (show_) show_(bytes);
    rest += bytes;
    std::lock_guard lock(mutex_);
    for (size_t end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
      const size_t text = rest.find_last_not_of("\r\n", end) + 1;  // 0 for an empty line
      if (text > 0) lines_.push_back(rest.substr(0, text));
      if (!keep_ && lines_.size() > kTail) lines_.pop_front();
      rest.erase(0, end + 1);
    }
    changed_.notify_all();
  }
  std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

}  // namespace ctl
