#include "Settings.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>
#include <limits>
#include <system_error>

#include "ExitStatus.h"
#include "wire/Message.h"

namespace ctl {

using wire::Json;

namespace {

void Take(const Json& object, const char* key, std::string& value) {
  const auto found = object.find(key);
  if (found == object.end()) return;
  if (!found->is_string()) throw BadSettings(std::string("\"") + key + "\" must be a text");
  value = found->get<std::string>();
}

void Take(const Json& object, const char* key, int32_t& value) {
  const auto found = object.find(key);
  if (found == object.end()) return;
  const double number = found->is_number_integer() ? found->get<double>() : 1e10;
  if (number < std::numeric_limits<int32_t>::min() ||
      number > std::numeric_limits<int32_t>::max()) {
    throw BadSettings(std::string("\"") + key + "\" must be a whole number of 32 bits");
  }
  value = found->get<int32_t>();
}

void Take(const Json& object, const char* key, double& value) {
  const auto found = object.find(key);
  if (found == object.end()) return;
  if (!found->is_number()) throw BadSettings(std::string("\"") + key + "\" must be a number");
  value = found->get<double>();
}

void AddUnknownKeys(const Json& object, std::initializer_list<std::string_view> known,
                    const std::string& path, std::vector<std::string>& unknown) {
  for (const auto& [key, value] : object.items()) {
    if (std::find(known.begin(), known.end(), key) == known.end()) unknown.push_back(path + key);
  }
}

}  // namespace

Settings Settings::Read(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw BadSettings("it can't be read: " + std::generic_category().message(errno));
  }
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  if (text.starts_with("\xEF\xBB\xBF"))
    throw BadSettings("a byte order mark stands before the text");
  if (wire::HasLowerCaseEscape(text)) {
    throw BadSettings("the hexadecimal digits of \\u escapes must be in upper case");
  }
  Json object;
  try {
    object = Json::parse(text);
  } catch (const Json::exception& error) {
    throw BadSettings(wire::WhyNoJson(error));
  }
  if (!object.is_object()) throw BadSettings("the text is no object");

  Settings settings;
  AddUnknownKeys(object, {"AddrStr", "BasePort", "BroadcastPort", "units"}, "",
                 settings.unknownKeys);
  Take(object, "AddrStr", settings.addr);
  Take(object, "BasePort", settings.basePort);
  Take(object, "BroadcastPort", settings.broadcastPort);
  const Json units = object.value("units", Json::array());
  if (!units.is_array()) throw BadSettings("\"units\" must be an array");
  for (const Json& element : units) {
    if (!element.is_object()) throw BadSettings("\"units\" must hold objects");
    AddUnknownKeys(element, {"UnitType", "UnitId", "SampleFreq", "Mode", "Speed"},
                   "units[" + std::to_string(settings.units.size()) + "].", settings.unknownKeys);
    UnitSettings unit;
    Take(element, "UnitType", unit.type);
    Take(element, "UnitId", unit.id);
    Take(element, "SampleFreq", unit.sampleFreq);
    Take(element, "Mode", unit.mode);
    Take(element, "Speed", unit.speed);
    settings.units.push_back(unit);
  }
  if (settings.units.empty()) settings.units.emplace_back();
  settings.HandOutPorts();
  return settings;
}

void Settings::HandOutPorts() {
  int64_t port = basePort;
  for (UnitSettings& unit : units) {
    unit.controlPort = port;
    port += unit.Model().Ports();
  }
}

std::string Settings::ToText() const {
  Json all = Json::array();
  for (const UnitSettings& unit : units) {
    all.push_back({{"UnitType", unit.type},
                   {"UnitId", unit.id},
                   {"SampleFreq", unit.sampleFreq},
                   {"Mode", unit.mode},
                   {"Speed", unit.speed}});
  }
  return wire::ToText({{"AddrStr", addr},
                       {"BasePort", basePort},
                       {"BroadcastPort", broadcastPort},
                       {"units", all}});
}

namespace {

// A model's name as it stands in the settings. A typing error would give a unit that takes part in
// nothing, and tests that fail for reasons that nobody guesses.
std::string ParseModel(const std::string& text, const std::string& whole) {
  constexpr std::string_view kNone = "none:";
  if (text.starts_with(kNone)) {
    const std::string type = text.substr(kNone.size());
    const wire::Model model = wire::FindModel(type);
    if (!type.empty() && model.inputs + model.outputs == 0) return type;
    throw Failure{kUsage,
                  "\"" + text + "\" must name what is no model; there are " + KnownModels()};
  }
  const wire::Model model = wire::FindModel(text);
  if (model.inputs + model.outputs > 0) return text;
  throw Failure{kUsage, "\"" + text + "\" in \"" + whole + "\" is no model; there are " +
                            KnownModels() +
                            ", as in 2xQZ820,QZ610 (none:" + (text.empty() ? "TEXT" : text) +
                            " makes a unit without inputs and outputs)"};
}

std::string WithoutBlanks(const std::string& text) {
  const size_t begin = text.find_first_not_of(' ');
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

}  // namespace

std::string KnownModels() {
  std::string names;
  for (const wire::Model& model : wire::kModels)
    names += (names.empty() ? "" : ", ") + std::string(model.name);
  return names;
}

std::vector<UnitSettings> ParseUnits(const std::string& text) {
  constexpr uint32_t kMost = 500;
  std::vector<UnitSettings> units;
  size_t begin = 0;
  while (begin <= text.size()) {
    const size_t end = std::min(text.find(',', begin), text.size());
    std::string type = WithoutBlanks(text.substr(begin, end - begin));
    uint32_t count = 1;
    const auto parsed = std::from_chars(type.data(), type.data() + type.size(), count);
    if (parsed.ptr != type.data() && parsed.ptr != type.data() + type.size() &&
        *parsed.ptr == 'x') {
      type.erase(0, static_cast<size_t>(parsed.ptr - type.data()) + 1);
      if (parsed.ec != std::errc()) count = 0;  // more than 32 bits hold
    } else {
      count = 1;  // a digit may begin a name, too
    }
    UnitSettings unit;
    unit.type = ParseModel(type, text);
    if (count == 0 || count > kMost - units.size()) {
      throw Failure{kUsage, "\"" + text + "\" must be 1 to " + std::to_string(kMost) + " units"};
    }
    for (; count > 0; --count) {
      unit.id = "emu-" + std::to_string(units.size() + 1);
      units.push_back(unit);
    }
    begin = end + 1;
  }
  return units;
}

UnitSettings ParseNamedUnit(const std::string& text) {
  const size_t equals = text.rfind('=');
  if (equals == std::string::npos || equals == 0) {
    throw Failure{kUsage, "\"" + text + "\" must read ID=MODEL, as in studio-a=QZ610"};
  }
  UnitSettings unit;
  unit.id = text.substr(0, equals);
  unit.type = ParseModel(text.substr(equals + 1), text);
  return unit;
}

}  // namespace ctl
