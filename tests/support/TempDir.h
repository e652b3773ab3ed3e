// A directory of the test's own, which only its user may enter, removed at the end of the test with
// all that is in it.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <system_error>

#include "platform/text.h"

class TempDir {
 public:
  TempDir() {
    std::random_device random;
    do {
      path_ = std::filesystem::temp_directory_path() / ("qz-test-" + std::to_string(random()));
    } while (!std::filesystem::create_directory(path_));
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  // `name` is UTF-8.
  std::filesystem::path File(const std::string& name) const {
    return path_ / std::u8string(name.begin(), name.end());
  }

  // The same in UTF-8 and as the program's text.
  std::string Utf8() const { return Utf8Of(path_); }
  std::string Utf8(const std::string& name) const { return Utf8Of(File(name)); }
  std::wstring Wide() const { return Utf8ToWide(Utf8()); }
  std::wstring Wide(const std::string& name) const { return Utf8ToWide(Utf8(name)); }

  void Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(File(name), std::ios::binary) << bytes;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(File(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  size_t Count() const {  // entries
    const auto all = std::filesystem::directory_iterator(path_);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  }
  bool Has(const std::string& name) const { return std::filesystem::exists(File(name)); }

 private:
  static std::string Utf8Of(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
  }

  std::filesystem::path path_;
};
