#include "UnitNames.h"

#include <chrono>

#include "Printable.h"
#include "StateFiles.h"

namespace ctl {

using wire::Json;

namespace {

constexpr auto kAskFor = std::chrono::milliseconds(300);
constexpr int64_t kRememberedFor = 10;  // seconds

int64_t Now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

// A file of another time or another question, or none at all, says nothing.
std::vector<std::string> Remembered(const std::wstring& file, const Json& asked) {
  try {
    const Json all = Json::parse(ReadStateFile(file));
    const int64_t age = Now() - all.at("time").get<int64_t>();
    if (all.at("asked") == asked && age >= 0 && age < kRememberedFor) {
      return all.at("names").get<std::vector<std::string>>();
    }
  } catch (const std::exception&) {
    // As if it weren't there.
  }
  return {};
}

}  // namespace

std::vector<std::string> UnitNames(Session& session) {
  const std::vector<wire::Endpoint> to = session.DiscoverAt();
  Json asked = Json::array();
  for (const wire::Endpoint& endpoint : to)
    asked.push_back(endpoint.ToText());
  const std::wstring folder = StateFolder();
  const std::wstring file = folder + L"units.json";
  std::vector<std::string> names;
  if (!folder.empty()) names = Remembered(file, asked);
  if (!names.empty()) return names;

  for (const wire::Unit& unit : session.Find(to, kAskFor)) {
    if (!unit.id.empty() && Printable(unit.id) == unit.id) names.push_back(unit.id);
  }
  if (!folder.empty() && !names.empty()) {
    MakeStateFolder();
    const Json all{{"time", Now()}, {"asked", asked}, {"names", names}};
    WriteStateFile(file, all.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n");
  }
  return names;
}

}  // namespace ctl
