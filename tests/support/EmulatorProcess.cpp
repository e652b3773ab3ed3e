#include "support/EmulatorProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include "wire/Message.h"

namespace {

namespace files = std::filesystem;

// Date, time and thread in front of each line.
constexpr size_t kPrefixLength = 37;

files::path MakeFolder() {
  static std::atomic<int> number{0};
  const files::path folder =
      files::temp_directory_path() /
      ("qz640emu-test-" + std::to_string(OwnProcessId()) + "-" + std::to_string(number++));
  files::remove_all(folder);
  files::create_directories(folder / "tmp");
  return folder;
}

// A link if that can be had, as the executables of the sanitizers are large. Not a symbolic one:
// the emulator would look for its settings beside the original.
files::path ExecutableIn(const files::path& folder) {
  const files::path original = QZ_EMULATOR;
  const files::path own = folder / original.filename();
  if (files::exists(own)) return own;
  std::error_code error;
  files::create_hard_link(original, own, error);
  if (error) files::copy_file(original, own);
  return own;
}

std::string Quoted(const std::string& text) {
  return wire::ToText(text);
}

std::string TextOf(const std::string& line) {
  return line.size() > kPrefixLength ? line.substr(kPrefixLength) : line;
}

}  // namespace

wire::Loop& TestLoop() {
  static wire::Loop loop;
  return loop;
}

std::string SettingsText(const std::string& address, int basePort, int broadcastPort,
                         const std::vector<UnitSpec>& units) {
  std::string text = R"({"AddrStr":)" + Quoted(address) + R"(,"BasePort":)" +
                     std::to_string(basePort) + R"(,"BroadcastPort":)" +
                     std::to_string(broadcastPort);
  std::string separator = R"(,"units":[)";
  for (const UnitSpec& unit : units) {
    text += separator + R"({"Mode":)" + std::to_string(unit.mode) + R"(,"SampleFreq":)" +
            std::to_string(unit.sampleFreq) + R"(,"Speed":)" + unit.speed + R"(,"UnitId":)" +
            Quoted(unit.id) + R"(,"UnitType":)" + Quoted(unit.type) + "}";
    separator = ",";
  }
  return text + (units.empty() ? "}" : "]}");
}

EmulatorProcess::EmulatorProcess() : folder_(MakeFolder()) {
  ExecutableIn(folder_);
}

EmulatorProcess::EmulatorProcess(const std::vector<UnitSpec>& units, int basePort,
                                 int broadcastPort)
    : EmulatorProcess() {
  basePort_ = basePort;
  broadcastPort_ = broadcastPort;
  WriteSettings(SettingsText(OwnAddress(), basePort, broadcastPort, units));
}

EmulatorProcess::~EmulatorProcess() {
  // A test that ends by an exception says nothing of what the emulator did meanwhile.
  if (running_ && std::uncaught_exceptions() != 0) {
    std::cerr << "The emulator wrote:\n" << child_->Output() << child_->ErrorOutput();
  }
  if (running_) Stop();
  std::error_code ignored;
  files::remove_all(folder_, ignored);
}

files::path EmulatorProcess::SettingsPath() const {
  return ExecutableIn(folder_).string() + ".json";
}

void EmulatorProcess::WriteSettings(const std::string& text) const {
  std::ofstream(SettingsPath(), std::ios::binary) << text;
}

std::string EmulatorProcess::ReadSettings() const {
  std::ostringstream text;
  text << std::ifstream(SettingsPath(), std::ios::binary).rdbuf();
  return text.str();
}

void EmulatorProcess::Start(Process::Options options) {
  Launch(ExecutableIn(folder_), std::move(options));
}

void EmulatorProcess::StartUnder(const std::string& commands) {
  Launch("/bin/sh",
         {.arguments = {"-c", commands + R"( && exec "$0")", ExecutableIn(folder_).string()}});
}

void EmulatorProcess::Launch(const files::path& program, Process::Options options) {
  searched_.clear();
  const std::string temporary = (folder_ / "tmp").string();
  for (const char* name : {"TMPDIR", "TMP", "TEMP"}) {
    options.environment.emplace_back(name, temporary);
  }
  child_ = std::make_unique<Process>(program, options);
  running_ = true;
}

void EmulatorProcess::StartAndWait() {
  Start();
  Line(" Start OK");
}

std::string EmulatorProcess::Line(const std::string& part) {
  auto next = std::find_if(searched_.begin(), searched_.end(),
                           [&](const auto& entry) { return entry.first == part; });
  if (next == searched_.end()) next = searched_.insert(searched_.end(), {part, 0});
  std::optional<Process::Line> found;
  const auto look = [&](Process::Clock::duration patience) {
    found = child_->WaitLine(part, next->second, patience);
    return found.has_value();
  };
  TestLoop().RunUntil([&] { return look({}) || child_->HasEnded(); }, kPatience);
  if (!found && !look(std::chrono::seconds(1))) {
    ADD_FAILURE() << "no line with \"" << part << "\" in:\n"
                  << child_->Output() << child_->ErrorOutput();
    return {};
  }
  next->second = found->number + 1;
  Allow(part);
  return TextOf(found->text);
}

std::vector<std::string> EmulatorProcess::LinesWith(const std::string& part) const {
  std::vector<std::string> texts;
  for (const Process::Line& line : child_->Lines()) {
    if (line.text.find(part) != std::string::npos) texts.push_back(TextOf(line.text));
  }
  return texts;
}

std::vector<files::path> EmulatorProcess::LogFiles() const {
  const files::path folder =
      folder_ / "tmp" / (files::path(QZ_EMULATOR).filename().string() + ".logs");
  std::vector<files::path> found;
  for (const auto& entry : files::directory_iterator(folder))
    found.push_back(entry.path());
  std::sort(found.begin(), found.end());
  return found;
}

void EmulatorProcess::Stop() {
  child_->Write("\n");
  ExpectOrderlyEnd();
}

void EmulatorProcess::ExpectOrderlyEnd() {
  TestLoop().RunUntil([this] { return child_->HasEnded(); }, kPatience);
  const std::optional<int> status = child_->WaitExit(std::chrono::seconds(5));
  if (!status) {
    ADD_FAILURE() << "the emulator doesn't end; so far it wrote:\n" << child_->Output();
    child_->Kill();
    running_ = false;
    return;
  }
  EXPECT_EQ(*status, 0);
  EXPECT_EQ(child_->ErrorOutput(), "");
  CheckLog();
  running_ = false;
}

void EmulatorProcess::CheckLog() const {
  // Date and time to the millisecond, the thread's number, the text.
  static const std::regex form(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} @ [0-9A-F]{8} @ )");
  for (const Process::Line& line : child_->Lines()) {
    EXPECT_TRUE(std::regex_match(line.text.substr(0, kPrefixLength), form)) << line.text;
    const bool failure = line.text.find(" Method=") != std::string::npos;
    const bool allowed = std::any_of(
        allowed_.begin(), allowed_.end(),
        [&](const std::string& part) { return line.text.find(part) != std::string::npos; });
    EXPECT_FALSE(failure && !allowed) << "unexpected failure in the log: " << line.text;
  }
}

wire::Endpoint EmulatorProcess::Control(int portOffset) const {
  return {OwnAddress(), static_cast<uint16_t>(basePort_ + portOffset)};
}

wire::Endpoint EmulatorProcess::Discovery() const {
  return {OwnAddress(), static_cast<uint16_t>(broadcastPort_)};
}
