#include "wire/Message.h"

#include <algorithm>
#include <limits>
#include <set>
#include <string_view>

namespace wire {

namespace {

const Json& At(const Json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) throw BadMessage(std::string("\"") + key + "\" is missing");
  return *found;
}

// The library takes the last of several equal keys; who reads a unit's message otherwise would take
// the first.
Json ParseStrictly(std::string_view text) {
  std::vector<std::set<std::string>> open;  // the keys of each object that isn't closed yet
  const auto watch = [&open](int, Json::parse_event_t event, Json& parsed) {
    if (event == Json::parse_event_t::object_start) open.emplace_back();
    if (event == Json::parse_event_t::object_end) open.pop_back();
    if (event == Json::parse_event_t::key &&
        !open.back().insert(parsed.get<std::string>()).second) {
      throw BadMessage("the key " + parsed.dump() + " comes twice");
    }
    return true;
  };
  try {
    return Json::parse(text, watch);
  } catch (const Json::exception& error) {
    throw BadMessage("no JSON: " + WhyNoJson(error));
  }
}

}  // namespace

// The library puts a name and number of its own before the words, in brackets.
std::string WhyNoJson(const Json::exception& error) {
  const std::string words = error.what();
  const size_t bracket = words.find("] ");
  return words.starts_with('[') && bracket != std::string::npos ? words.substr(bracket + 2) : words;
}

uint32_t NumberAt(const Json& object, const char* key) {
  const Json& value = At(object, key);
  const bool whole =
      value.is_number_unsigned() || (value.is_number_integer() && value.get<int64_t>() >= 0);
  if (!whole || value.get<uint64_t>() > std::numeric_limits<uint32_t>::max()) {
    throw BadMessage(std::string("\"") + key + "\" is " + value.dump() +
                     "; it must be a whole number from 0 to 4294967295");
  }
  return value.get<uint32_t>();
}

std::string TextAt(const Json& object, const char* key) {
  const Json& value = At(object, key);
  if (!value.is_string()) throw BadMessage(std::string("\"") + key + "\" is no text");
  return value.get<std::string>();
}

const Json& ArrayAt(const Json& object, const char* key) {
  static const Json kEmpty = Json::array();
  const auto found = object.find(key);
  if (found == object.end()) return kEmpty;
  if (!found->is_array()) throw BadMessage(std::string("\"") + key + "\" is no array");
  return *found;
}

std::vector<int32_t> NumbersAt(const Json& object, const char* key) {
  std::vector<int32_t> numbers;
  for (const Json& value : ArrayAt(object, key)) {
    const bool fits = value.is_number_integer() &&
                      (!value.is_number_unsigned() || value.get<uint64_t>() <= 0x7FFFFFFF) &&
                      value.get<int64_t>() >= std::numeric_limits<int32_t>::min();
    if (!fits) {
      throw BadMessage(std::string("\"") + key + "\" holds " + value.dump() +
                       "; it must hold whole numbers of 32 bits");
    }
    numbers.push_back(value.get<int32_t>());
  }
  return numbers;
}

// The library writes its escapes in lower case, which units refuse.
std::string ToText(const Json& object) {
  std::string text = object.dump();
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] != '\\') continue;
    ++i;  // past an escaped backslash too
    if (text[i] != 'u') continue;
    for (size_t digit = i + 1; digit <= i + 4; ++digit) {
      if (text[digit] >= 'a') text[digit] = static_cast<char>(text[digit] - 'a' + 'A');
    }
  }
  return text;
}

bool HasLowerCaseEscape(std::string_view text) {
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] != '\\') continue;
    ++i;
    if (text[i] == 'u' && text.substr(i + 1, 4).find_first_of("abcdef") != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

Bytes Encode(const Json& object, const Bytes& attachment) {
  const std::string text = ToText(object);
  Bytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  bytes.insert(bytes.end(), attachment.begin(), attachment.end());
  return bytes;
}

Message Decode(const Bytes& bytes, const Endpoint& from, Clock::time_point time) {
  const auto zero = std::find(bytes.begin(), bytes.end(), uint8_t{0});
  if (zero == bytes.end()) throw BadMessage("no byte 0x00 after the JSON text");
  Message message;
  message.text.assign(bytes.begin(), zero);
  if (message.text.starts_with("\xEF\xBB\xBF")) throw BadMessage("a byte order mark");
  message.body = ParseStrictly(message.text);
  if (!message.body.is_object()) throw BadMessage("the JSON text is no object");
  message.type = TextAt(message.body, "msg");
  message.id = NumberAt(message.body, "msg_id");
  message.attachment.assign(zero + 1, bytes.end());
  const uint32_t announced = message.body.contains("att") ? NumberAt(message.body, "att") : 0;
  if (message.attachment.size() > announced) {
    throw BadMessage(std::to_string(message.attachment.size()) +
                     " bytes after the JSON text, \"att\" announces " + std::to_string(announced));
  }
  message.from = from;
  message.time = time;
  return message;
}

}  // namespace wire
