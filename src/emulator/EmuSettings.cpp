#include "emulator/EmuSettings.h"

#include <cmath>
#include <exception>
#include <stdexcept>

#include "json/Parser.h"
#include "json/ParsingBuilder.h"
#include "json/TextFault.h"
#include "platform/text.h"
#include "runtime/Format.h"
#include "runtime/textfiles.h"
#include "sockets/NetAddr.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\AudioCardEmu";
constexpr wchar_t kLeftAlone[] = L" is left as it is";

// Containers inside one another in a settings text. Settings need three; more than this is no
// settings file, and is refused before it takes memory.
constexpr size_t kMaxDepth = 100;

// Hands the member to `take` if it is there. A failure names the key: the words of the
// JSON library alone would leave the user to search the file.
template <typename Take>
void TakeKey(const JSON::Value& in, const wchar_t* key, Take take) {
  const JSON::Value* value = in.Find(key);
  if (!value) return;
  try {
    take(*value);
  } catch (const JSON::Exception& e) {
    throw JSON::Exception((WideToUtf8(key) + ": " + e.what()).c_str());
  }
}

void TakeInt(const JSON::Value& in, const wchar_t* key, int32_t& field) {
  TakeKey(in, key, [&](const JSON::Value& value) { field = value.AsInt(); });
}

void TakeText(const JSON::Value& in, const wchar_t* key, std::wstring& field) {
  TakeKey(in, key, [&](const JSON::Value& value) { field = value.AsWString(); });
}

std::wstring InFile(const std::wstring& path) {
  return L": file \"" + path + L"\"";
}

// Some numbers have no text that the parser takes as the same: the infinite ones, NaN, and those
// from 100000 to 999999, which end in a bare point.
bool HasReadableText(double number) {
  if (!std::isfinite(number)) return false;
  try {
    JSON::Value value;
    value.SetDouble(number);
    JSON::Value again;
    JSON::ParsingBuilder builder(&again);
    JSON::Parser parser(&builder);
    // Only after the blank does the parser know that the number has ended.
    return JSON::ParseText(parser, value.ToWString() + L" ");
  } catch (const std::exception&) {
    return false;
  }
}

bool FileHolds(const std::wstring& path, const std::string& bytes) {
  std::string present;
  const ErrInfo err = fs::ReadWholeFile(path.c_str(), present);
  err.Forget();  // a file that isn't there yet is no failure
  return err.IsOk() && present == bytes;
}

// Why `text` can't be the settings, and where: "key string expected in line 1, column 15". Empty
// when it is one JSON value and nothing else. A brace too many in the middle ends the value early:
// what stands after it would be gone with the rewrite, so it is a fault like any other.
std::wstring FaultOf(const std::wstring& text) {
  const std::optional<JSON::TextFault> fault = JSON::FindTextFault(text, kMaxDepth);
  if (!fault) return {};
  if (text.find_first_not_of(L" \t\r\n") == std::wstring::npos) return L"the text is empty";
  const wchar_t* hint =
      text[0] == 0xFEFF ? L" (a byte order mark: save as UTF-8 without one)" : L"";
  return Format(L"%s in line %d, column %d%s", platform::Utf8ToWideLossy(fault->what), fault->line,
                fault->column, hint);
}

ErrInfo ParseError(const std::wstring& why) {
  return ERR_HERE("Network::EmuSettings::FromString").SetText(L"Parse error: " + why);
}

// Adds the keys of the object `in` that `known` lacks, each after `path`.
void AddUnknownKeys(const JSON::Value& in, const JSON::Value& known, const std::wstring& path,
                    std::vector<std::wstring>& unknown) {
  for (const std::wstring& key : in.Keys())
    if (!known.Find(key)) unknown.push_back(path + key);
}

constexpr int64_t kMaxPort = 65535;

bool IsPort(int64_t port) {
  return port >= 1 && port <= kMaxPort;
}

}  // namespace

ErrInfo UnitSettings::Serialize(JSON::Value& out) const {
  ErrInfo err = ERR_HERE("Network::UnitSettings::Serialize");
  try {
    out.ItemForWrite(L"UnitType").SetString(UnitType);
    out.ItemForWrite(L"UnitId").SetString(UnitId);
    // Signed, as it is read: a wrong -1 in the file stays the -1 that the user wrote.
    out.ItemForWrite(L"SampleFreq").SetInt(static_cast<int32_t>(SampleFreq));
    out.ItemForWrite(L"Mode").SetInt(Mode);
    out.ItemForWrite(L"Speed").SetDouble(Speed);
  } catch (const std::exception& e) {
    err.SetText(e.what());
  }
  return err;
}

ErrInfo UnitSettings::Deserialize(const JSON::Value& in) {
  ErrInfo err = ERR_HERE("Network::UnitSettings::Deserialize");
  try {
    TakeText(in, L"UnitType", UnitType);
    TakeText(in, L"UnitId", UnitId);
    int32_t freq = static_cast<int32_t>(SampleFreq);
    TakeInt(in, L"SampleFreq", freq);
    SampleFreq = static_cast<uint32_t>(freq);
    TakeInt(in, L"Mode", Mode);
    TakeKey(in, L"Speed", [&](const JSON::Value& value) { Speed = value.AsDouble(); });
  } catch (const std::exception& e) {
    err.SetText(e.what());
  }
  return err;
}

ErrInfo EmuSettings::Serialize(JSON::Value& out) const {
  ErrInfo err = ERR_HERE("Network::EmuSettings::Serialize");
  try {
    out.ItemForWrite(L"AddrStr").SetString(AddrStr);
    out.ItemForWrite(L"BasePort").SetInt(BasePort);
    out.ItemForWrite(L"BroadcastPort").SetInt(BroadcastPort);
    for (size_t i = 0; i < units.size(); ++i) {
      units[i].Serialize(out.ItemForWrite(L"units").AtForWrite(i));
    }
  } catch (const std::exception& e) {
    err.SetText(e.what());
  }
  return err;
}

ErrInfo EmuSettings::Deserialize(const JSON::Value& in) {
  ErrInfo err = ERR_HERE("Network::EmuSettings::Deserialize");
  try {
    TakeText(in, L"AddrStr", AddrStr);
    TakeInt(in, L"BasePort", BasePort);
    TakeInt(in, L"BroadcastPort", BroadcastPort);

    units.clear();
    UnknownKeys.clear();
    const JSON::Value* list = in.Find(L"units");
    uint64_t count = 0;
    TakeKey(in, L"units", [&](const JSON::Value& value) { count = value.Size(); });
    for (uint64_t i = 0; i < count; ++i) {
      UnitSettings unit;
      ErrInfo unitErr = unit.Deserialize(list->At(i));
      if (!unitErr.IsOk()) {
        unitErr.SetText(Format(L"units[%d]: %s", i, unitErr.Text()));
        return unitErr;
      }
      units.push_back(unit);
    }
    FindUnknownKeys(in);
  } catch (const std::exception& e) {
    err.SetText(e.what());
    return err;
  }
  if (units.empty()) units.emplace_back();

  int32_t port = BasePort;
  for (UnitSettings& unit : units) {
    unit.BasePort = port;
    port = static_cast<int32_t>(NextUnitPort(port, unit.GetModel()));  // wraps
  }
  return err;
}

// A key is known if these settings would write it.
void EmuSettings::FindUnknownKeys(const JSON::Value& in) {
  JSON::Value known;
  Serialize(known).Log();
  AddUnknownKeys(in, known, L"", UnknownKeys);
  for (size_t i = 0; i < units.size(); ++i) {
    AddUnknownKeys(in.Item(L"units").At(i), known.Item(L"units").At(i), Format(L"units[%d].", i),
                   UnknownKeys);
  }
}

std::vector<std::wstring> EmuSettings::Remarks() const {
  std::vector<std::wstring> remarks;
  const auto add = [&](std::wstring remark) { remarks.push_back(L"SETTINGS: " + remark); };

  if (!UnknownKeys.empty()) {
    std::wstring keys;
    for (const std::wstring& key : UnknownKeys)
      keys += (keys.empty() ? L"" : L", ") + key;
    add(L"keys that mean nothing here are left out of the file: " + keys);
  }
  if (!AddrStr.empty() && !NetAddr().SetFromTextAndPort(AddrStr, 0)) {
    add(
        Format(L"AddrStr \"%s\" is no IPv4 address, so nothing will be heard; set it to an "
               L"interface's address, or to 0.0.0.0 for all",
               AddrStr));
  }
  if (!IsPort(BroadcastPort)) {
    add(Format(L"BroadcastPort %d isn't within 1 to 65535; its lowest 16 bits are used",
               BroadcastPort));
  }
  for (size_t i = 0; i < units.size(); ++i) {
    const UnitSettings& unit = units[i];
    const std::wstring name = Format(L"units[%d] (%s): ", i, unit.UnitId);
    const int32_t outputs = unit.GetOutputCount();
    const int64_t last = outputs > 0 ? RtpPort(unit.BasePort, outputs - 1) : unit.BasePort;
    if (!IsPort(unit.BasePort) || !IsPort(last)) {
      add(name +
          Format(L"ports %d to %d aren't all within 1 to 65535, and their lowest 16 bits are "
                 L"used; set BasePort lower",
                 unit.BasePort, last));
    }
    if (unit.Mode < 0 || unit.Mode > 4) {
      add(name + Format(L"Mode %d is none of 0 to 4 and acts as 0", unit.Mode));
    }
    if (!(unit.Speed > 0)) add(name + L"Speed isn't above 0, so the unit's clock stands still");
  }
  return remarks;
}

std::wstring EmuSettings::ToString() const {
  JSON::Value root;
  if (!Serialize(root).IsOk()) return {};
  try {
    return root.ToWString();
  } catch (const std::exception&) {
    return {};
  }
}

ErrInfo EmuSettings::FromString(const std::wstring& text) {
  ErrInfo err = ERR_HERE("Network::EmuSettings::FromString");
  try {
    JSON::Value root;
    JSON::ParsingBuilder builder(&root);
    JSON::Parser parser(&builder);
    if (!JSON::ParseText(parser, text)) return err.SetText(L"Parse error");
    if (const std::wstring fault = FaultOf(text); !fault.empty()) return ParseError(fault);

    EmuSettings next = *this;
    ErrInfo taken = next.Deserialize(root);
    if (taken.IsOk()) *this = next;
    return taken;
  } catch (const std::exception& e) {
    return err.SetText(std::string("Parse error: ").append(e.what()).c_str());
  }
}

ErrInfo EmuSettings::FromFile(std::wstring path) {
  std::wstring text;
  try {
    ErrInfo err = fs::ReadWholeFile(path.c_str(), text);
    if (!err.IsOk()) return err;
  } catch (const std::exception& e) {
    // Bytes that are no UTF-8, or a file for which there is no memory.
    const bool noText = dynamic_cast<const std::range_error*>(&e) != nullptr;
    return ERR_HERE("Network::EmuSettings::FromFile")
        .SetText(platform::Utf8ToWideLossy(e.what()) + (noText ? L", not UTF-8" : L"") +
                 InFile(path) + kLeftAlone);
  }
  const std::wstring fault = FaultOf(text);
  ErrInfo err = fault.empty() ? FromString(text) : ParseError(fault);
  if (!err.IsOk()) err.SetText(err.Text() + InFile(path) + kLeftAlone);
  return err;
}

ErrInfo EmuSettings::ToFile(std::wstring path) const {
  ErrInfo err = ERR_HERE("Network::EmuSettings::ToFile");
  const std::wstring text = ToString();
  if (text.empty()) return err.SetText(L"Can not serialize settings");

  // The next start would refuse the file that this one wrote, and the user's text would be gone.
  for (size_t i = 0; i < units.size(); ++i) {
    if (HasReadableText(units[i].Speed)) continue;
    return err.SetText(Format(L"units[%d]: Speed has no text that could be read again", i) +
                       InFile(path) + kLeftAlone);
  }

  try {
    const std::string bytes = WideToUtf8(text);
    if (FileHolds(path, bytes)) return err;
    return fs::ReplaceWholeFile(path.c_str(), bytes.data(), bytes.size());
  } catch (const std::exception& e) {
    return err.SetText(platform::Utf8ToWideLossy(e.what()) + InFile(path) + kLeftAlone);
  }
}

}  // namespace Network
