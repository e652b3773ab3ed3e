#include "support/Process.h"

#include <stdexcept>

#include "support/System.h"

Process::Process(const std::filesystem::path& program, const Options& options) {
  PrepareForChildren();
  platform::ChildOptions child;
  child.command = {program.string()};
  child.command.insert(child.command.end(), options.arguments.begin(), options.arguments.end());
  child.environment = options.environment;
  child.piped = true;
  child.errorsPiped = true;
  if (const uint32_t error = child_.Start(child); error != 0) {
    throw std::runtime_error("can't start " + program.string() + ": " + std::to_string(error));
  }
  outputReader_ = std::thread([this] { ReadOutput(); });
  errorsReader_ = std::thread([this] { ReadErrors(); });
}

Process::~Process() {
  Kill();
  outputReader_.join();
  errorsReader_.join();
}

void Process::ReadOutput() {
  for (;;) {
    const std::string part = child_.ReadOutput();
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(mutex_);
    output_ += part;
    for (size_t end; (end = output_.find('\n', lineBegin_)) != std::string::npos;) {
      std::string text = output_.substr(lineBegin_, end - lineBegin_);
      lineBegin_ = end + 1;
      while (!text.empty() && text.back() == '\r')
        text.pop_back();
      if (!text.empty()) lines_.push_back({now, text, lines_.size()});
    }
    if (stopReading_) child_.CloseOutput();
    outputEnded_ = stopReading_ || part.empty();
    changed_.notify_all();
    if (outputEnded_) return;
  }
}

void Process::ReadErrors() {
  for (std::string part; !(part = child_.ReadErrors()).empty();) {
    std::lock_guard lock(mutex_);
    errors_ += part;
  }
  std::lock_guard lock(mutex_);
  errorsEnded_ = true;
  changed_.notify_all();
}

void Process::StopReading() {
  std::lock_guard lock(mutex_);
  stopReading_ = true;
}

std::optional<Process::Line> Process::WaitLine(std::string_view part, size_t from,
                                               Clock::duration patience) {
  std::unique_lock lock(mutex_);
  std::optional<Line> found;
  changed_.wait_for(lock, patience, [&] {
    for (; from < lines_.size() && !found; ++from) {
      if (lines_[from].text.find(part) != std::string::npos) found = lines_[from];
    }
    return found || outputEnded_;
  });
  return found;
}

std::optional<int> Process::WaitExit(Clock::duration patience) {
  const auto deadline = Clock::now() + patience;
  const auto status = child_.Wait(static_cast<uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(patience).count()));
  std::unique_lock lock(mutex_);
  changed_.wait_until(lock, deadline, [&] { return outputEnded_ && errorsEnded_; });
  return status;
}

std::vector<Process::Line> Process::Lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::string Process::Output() const {
  std::lock_guard lock(mutex_);
  return output_;
}

std::string Process::ErrorOutput() const {
  std::lock_guard lock(mutex_);
  return errors_;
}
