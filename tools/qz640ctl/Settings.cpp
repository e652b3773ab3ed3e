#include "Settings.h"

#include <fstream>
#include <iterator>
#include <limits>

#include "platform/paths.h"
#include "platform/text.h"
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

}  // namespace

Settings Settings::Read(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw BadSettings("it can't be read");
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
    throw BadSettings(error.what());
  }
  if (!object.is_object()) throw BadSettings("the text is no object");

  Settings settings;
  Take(object, "AddrStr", settings.addr);
  Take(object, "BasePort", settings.basePort);
  Take(object, "BroadcastPort", settings.broadcastPort);
  const Json units = object.value("units", Json::array());
  if (!units.is_array()) throw BadSettings("\"units\" must be an array");
  for (const Json& element : units) {
    if (!element.is_object()) throw BadSettings("\"units\" must hold objects");
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

std::filesystem::path EmulatorBeside() {
  const std::filesystem::path own = platform::WideToUtf8Lossy(platform::ModuleFile(nullptr));
  std::filesystem::path emulator = own.parent_path() / "qz640emu";
  return emulator += own.extension();
}

}  // namespace ctl
