#include "emulator/EmuSettings.h"

#include <cmath>
#include <exception>

#include "json/Parser.h"
#include "json/ParsingBuilder.h"
#include "platform/text.h"
#include "runtime/Format.h"
#include "runtime/textfiles.h"

namespace Network {

namespace {

constexpr char kSourceFile[] = "src\\AudioCardEmu";
constexpr wchar_t kLeftAlone[] = L" is left as it is";

// Hands the member to `take` if it is there. A failure tells which key it was: the words of the
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
    // Only the blank tells the parser that a number has ended.
    return JSON::ParseText(parser, value.ToWString() + L" ");
  } catch (const std::exception&) {
    return false;
  }
}

bool FileHolds(const std::wstring& path, const std::string& bytes) {
  std::string present;
  ErrInfo err = fs::ReadWholeFile(path.c_str(), present);
  const bool same = err.IsOk() && present == bytes;
  err = ERR_HERE("Network::EmuSettings::ToFile");  // a file that isn't there yet is no failure
  return same;
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
    return ERR_HERE("Network::EmuSettings::FromFile")
        .SetText(platform::Utf8ToWideLossy(e.what()) + L", not UTF-8" + InFile(path) + kLeftAlone);
  }
  ErrInfo err = FromString(text);
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
