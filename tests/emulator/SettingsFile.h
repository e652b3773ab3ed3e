// A directory of the test's own with a settings file in it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/text.h"

class SettingsFile {
 public:
  SettingsFile() {
    // The address tells tests of one process apart, the time those of several.
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    const auto self = reinterpret_cast<uintptr_t>(this);
    directory_ = std::filesystem::temp_directory_path() /
                 ("qz-settings-" + std::to_string(now) + "-" + std::to_string(self));
    std::filesystem::create_directory(directory_);
  }
  ~SettingsFile() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  SettingsFile(const SettingsFile&) = delete;
  SettingsFile& operator=(const SettingsFile&) = delete;

  std::filesystem::path NativePath() const { return directory_ / "emu.json"; }
  std::wstring Path() const { return Utf8ToWide(NativePath().string()); }
  bool Exists() const { return std::filesystem::exists(NativePath()); }

  void Write(const std::string& bytes) const {
    std::ofstream(NativePath(), std::ios::binary) << bytes;
  }
  std::string Read() const {
    std::ifstream file(NativePath(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  // Number of entries beside the settings file: what a rewrite has left lying about.
  size_t Strays() const {
    const auto all = std::filesystem::directory_iterator(directory_);
    return static_cast<size_t>(std::distance(begin(all), end(all))) - (Exists() ? 1 : 0);
  }

 private:
  std::filesystem::path directory_;
};
