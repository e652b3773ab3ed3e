// The configuration of the program: one JSON file beside the executable, taken in at the start and
// written back with its defaults filled in. Value classes without lock: each user works on a copy
// of its own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "emulator/Models.h"
#include "json/Value.h"
#include "runtime/ErrInfo.h"

namespace Network {

// One emulated unit.
struct UnitSettings {
  std::wstring UnitType{kUnitTypeQZ610};  // a name of Models.h; any other is a unit without audio
  std::wstring UnitId = L"emulator1";
  int32_t BasePort = 8000;  // the unit's first UDP port; handed out by EmuSettings, not in the file
  uint32_t SampleFreq = 48000;  // Hz
  int32_t Mode = 0;             // test signal, 0 to 4
  double Speed = 1.0;           // multiplier of the unit's clock; 1.0 is real time

  // Adds the unit's keys to `out`.
  ErrInfo Serialize(JSON::Value& out) const;

  // Takes the keys that `in` has; the other fields keep their values. On a failure, whose text
  // names the key, some fields may have changed.
  ErrInfo Deserialize(const JSON::Value& in);

  const Model& GetModel() const { return FindModel(UnitType); }
  int32_t GetInputCount() const { return GetModel().Inputs; }
  int32_t GetOutputCount() const { return GetModel().Outputs; }
};

// The program.
struct EmuSettings {
  std::wstring AddrStr;           // a.b.c.d, what all receiving sockets bind to; else they're deaf
  int32_t BasePort = 8000;        // first UDP port of the first unit
  int32_t BroadcastPort = 15001;  // UDP port of discovery
  std::vector<UnitSettings> units;

  // The keys of the text that was taken in last which no setting has, such as
  // units[1].BasePort; ToString leaves them out.
  std::vector<std::wstring> UnknownKeys;

  ErrInfo Serialize(JSON::Value& out) const;

  // Like UnitSettings::Deserialize. `units` is replaced: afterwards there is at least one, and each
  // has its BasePort.
  ErrInfo Deserialize(const JSON::Value& in);

  // One line of compact JSON; empty if there is no such text.
  std::wstring ToString() const;

  // What the user should know of settings that were taken in and yet hardly do what was meant: a
  // line for the log each.
  std::vector<std::wstring> Remarks() const;

  // All fields keep their values on a failure; one of the text names line and column. Neither
  // throws.
  ErrInfo FromString(const std::wstring& text);
  ErrInfo FromFile(std::wstring path);

  // Replaces the file in one step, so that a crash leaves the old one or the new one. Leaves it
  // alone when it holds this text already, and fails without touching it when a Speed has no
  // text that FromFile could take in again, such as an infinite one.
  ErrInfo ToFile(std::wstring path) const;

 private:
  void FindUnknownKeys(const JSON::Value& in);
};

}  // namespace Network
