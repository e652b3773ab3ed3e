// A settings file in a directory of its own.
#pragma once

#include <string>

#include "support/TempDir.h"

class SettingsFile {
 public:
  std::filesystem::path NativePath() const { return dir_.File("emu.json"); }
  std::wstring Path() const { return dir_.Wide("emu.json"); }
  void Write(const std::string& bytes) const { dir_.Write("emu.json", bytes); }
  std::string Read() const { return dir_.Read("emu.json"); }

  // Number of entries beside the settings file: what a rewrite has left lying about.
  size_t Strays() const { return dir_.Count() - (dir_.Has("emu.json") ? 1 : 0); }

 private:
  TempDir dir_;
};
