// qz640ctl as its users meet it: the real program against the real emulator.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/EmulatorProcess.h"
#include "support/Process.h"
#include "support/System.h"
#include "wire/Link.h"

namespace wire {

struct Result {
  int status = -1;
  std::string out;
  std::string err;

  // The lines of standard output as JSON objects; throws where one is anything else.
  std::vector<Json> Objects() const {
    std::vector<Json> objects;
    for (size_t begin = 0; begin < out.size();) {
      const size_t end = std::min(out.find('\n', begin), out.size());
      objects.push_back(Json::parse(out.substr(begin, end - begin)));
      begin = end + 1;
    }
    return objects;
  }
};

inline Result ResultOf(Process& child) {
  TestLoop().RunUntil([&child] { return child.HasEnded(); }, kPatience);
  Result result;
  result.status = child.WaitExit(std::chrono::seconds(5)).value_or(-1);
  result.out = FromConsole(child.Output());
  result.err = FromConsole(child.ErrorOutput());
  return result;
}

// Runs qz640ctl to its end, with what `environment` adds.
inline Result Ctl(const std::vector<std::string>& arguments,
                  const std::vector<std::pair<std::string, std::string>>& environment = {}) {
  Process child(QZ_CTL, {.arguments = arguments, .environment = environment});
  child.CloseInput();
  return ResultOf(child);
}

// A file of the test's own, removed at the end.
class TestFile {
 public:
  explicit TestFile(const std::string& ending)
      : path_(std::filesystem::temp_directory_path() /
              ("ctl-" + std::to_string(OwnProcessId()) + ending)) {}
  ~TestFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  TestFile(const TestFile&) = delete;
  TestFile& operator=(const TestFile&) = delete;

  void Write(const std::string& bytes) const { std::ofstream(path_, std::ios::binary) << bytes; }
  std::string Text() const { return path_.string(); }
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// An emulator with a unit of each model and one of neither, and a way to name them to qz640ctl.
class CtlTest : public testing::Test {
 protected:
  CtlTest()
      : emulator_({{.id = "studio-a"},
                   {.type = "QZ820", .id = "tuner-b", .mode = 1},
                   {.type = "QZ999", .id = "odd-c"}}) {
    emulator_.StartAndWait();
  }
  ~CtlTest() override { emulator_.Stop(); }

  std::vector<std::string> WithTo(std::vector<std::string> arguments) const {
    arguments.insert(arguments.end(), {"--to", emulator_.Discovery().ToText()});
    return arguments;
  }
  Result Run(const std::vector<std::string>& arguments) const { return Ctl(WithTo(arguments)); }

  std::string Destination(const std::string& unit, size_t input) const {
    return Run({"inputs", unit, "--json"}).Objects().at(input)["destination"];
  }

  EmulatorProcess emulator_;
};

}  // namespace wire
