// The emulator's settings file as its users know it: read for "doctor", written for "up".
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "wire/Models.h"

namespace ctl {

// A file that the emulator would not take in. The text says why.
struct BadSettings : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct UnitSettings {
  std::string type = "QZ610";
  std::string id = "emulator1";
  int32_t sampleFreq = 48000;
  int32_t mode = 0;
  double speed = 1.0;
  int64_t controlPort = 0;  // follows from the unit's place; not in the file

  wire::Model Model() const { return wire::FindModel(type); }
};

struct Settings {
  std::string addr;
  int32_t basePort = 8000;
  int32_t broadcastPort = 15001;
  std::vector<UnitSettings> units;
  std::vector<std::string> unknownKeys;  // of the text that was read: "units[0].UnitTyp"

  // What every key that is missing has; a file without units has one. Throws BadSettings.
  static Settings Read(const std::filesystem::path& path);

  // Gives each unit its control port.
  void HandOutPorts();

  std::string ToText() const;
};

// "2xQZ820,none:TEXT" into units emu-1, emu-2, emu-3. "none:" makes a unit of a model that nobody
// knows, without inputs and outputs. Throws Failure (kUsage).
std::vector<UnitSettings> ParseUnits(const std::string& text);

// "studio-a=QZ610" into that unit. Throws Failure (kUsage).
UnitSettings ParseNamedUnit(const std::string& text);

// "QZ610, QZ820"
std::string KnownModels();

}  // namespace ctl
