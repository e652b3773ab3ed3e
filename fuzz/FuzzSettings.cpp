// Any text as the settings. What is taken in is written out as a text that is taken in as the same
// settings; what is refused changes nothing.
#include <cmath>

#include "Harness.h"
#include "emulator/EmuSettings.h"
#include "platform/text.h"

using fuzz::Require;
using Network::EmuSettings;
using Network::UnitSettings;

namespace {

// Half of the double range is below what six digits can express; the rest keeps its text.
bool KeepsItsText(double speed) {
  return speed == 0.0 || std::fabs(speed) > 1e-290;
}

// Infinite numbers have none, and those of six digits before the point end in that point.
bool HasText(const EmuSettings& settings) {
  for (const UnitSettings& unit : settings.units) {
    const double size = std::fabs(unit.Speed);
    if (!std::isfinite(size) || (size > 99999 && size < 1000001)) return false;
  }
  return true;
}

void RequirePorts(const EmuSettings& settings) {
  Require(!settings.units.empty(), "there is a unit");
  uint32_t port = static_cast<uint32_t>(settings.BasePort);
  for (const UnitSettings& unit : settings.units) {
    Require(static_cast<uint32_t>(unit.BasePort) == port, "ports follow each other");
    const int32_t streams = unit.GetInputCount() + unit.GetOutputCount();
    port += 2 + 2 * static_cast<uint32_t>(streams);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  EmuSettings settings;
  const std::wstring before = settings.ToString();
  if (!settings.FromString(platform::Utf8ToWideLossy(bytes)).IsOk()) {
    Require(settings.ToString() == before, "a refused text changes nothing");
    return 0;
  }
  RequirePorts(settings);

  const std::wstring written = settings.ToString();
  Require(!written.empty(), "settings that were read have a text");
  EmuSettings again;
  const bool taken = again.FromString(written).IsOk();
  if (!HasText(settings)) return 0;  // ToFile refuses it
  Require(taken, "what is written is taken in");
  Require(again.units.size() == settings.units.size(), "no unit is lost");
  for (size_t i = 0; i < settings.units.size(); ++i) {
    if (!KeepsItsText(settings.units[i].Speed)) again.units[i].Speed = settings.units[i].Speed;
  }
  Require(again.ToString() == written, "the text stays as it is");
  return 0;
}
