#include "wire/Explain.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <map>
#include <sstream>
#include <string_view>

namespace wire {

namespace {

constexpr size_t kMostTaken = 1432;

enum class Kind { Unsigned, Text, Numbers, List };

struct Key {
  const char* name;
  Kind kind;
  bool required = true;
};

// The messages and the keys that a unit reads of them.
const std::map<std::string, std::vector<Key>>& Messages() {
  static const std::map<std::string, std::vector<Key>> kMessages{
      {"ack", {{"ack_msg_id", Kind::Unsigned}}},
      {"attach",
       {{"leader_id", Kind::Unsigned},
        {"seg_count", Kind::Unsigned},
        {"seg_number", Kind::Unsigned}}},
      {"dev_find", {}},
      {"get_dev_info", {}},
      {"dev_info",
       {{"unit_id", Kind::Text},
        {"unit_type", Kind::Text},
        {"hardware", Kind::Unsigned},
        {"firmware", Kind::Unsigned},
        {"software", Kind::Unsigned},
        {"audio_protocol", Kind::Unsigned},
        {"control_protocol", Kind::Unsigned},
        {"rtp_port", Kind::Unsigned},
        {"inputs", Kind::Unsigned},
        {"outputs", Kind::Unsigned}}},
      {"get_state", {}},
      {"set_state", {{"device_freq", Kind::Unsigned}}},
      {"state", {{"device_freq", Kind::Unsigned}, {"input_freq", Kind::Unsigned}}},
      {"get_inputs", {}},
      {"set_inputs", {{"inputs", Kind::List, false}}},
      {"inputs", {{"inputs", Kind::List, false}}},
      {"get_fm_freq", {}},
      {"set_fm_freq", {{"freq", Kind::Numbers, false}}},
      {"fm_freq", {{"freq", Kind::Numbers, false}}},
      {"get_fm_quality", {}},
      {"fm_quality",
       {{"rssi", Kind::Numbers, false},
        {"snr", Kind::Numbers, false},
        {"multipath", Kind::Numbers, false},
        {"pilot", Kind::Numbers, false}}},
      {"error", {{"code", Kind::Unsigned}, {"txt", Kind::Text}, {"err_msg_id", Kind::Unsigned}}}};
  return kMessages;
}

// Why a value can't be read as an unsigned number; empty if it can.
std::string ObjectionToNumber(const std::string& key, const Json& value) {
  const std::string shown = "\"" + key + "\" is " + ToAscii(value);
  if (value.is_number_float()) return shown + ": a point or an exponent makes it no whole number";
  try {
    NumberAt({{key, value}}, key.c_str());
    return "";
  } catch (const BadMessage&) {
    return shown + "; it must be a whole number from 0 to 4294967295";
  }
}

std::string ObjectionTo(const Key& key, const Json& value) {
  const std::string shown = "\"" + std::string(key.name) + "\" is " + ToAscii(value);
  switch (key.kind) {
    case Kind::Unsigned:
      return ObjectionToNumber(key.name, value);
    case Kind::Text:
      return value.is_string() ? "" : shown + "; it must be a text";
    case Kind::List:
      return value.is_array() ? "" : shown + "; it must be a list";
    case Kind::Numbers:
      try {
        NumbersAt({{key.name, value}}, key.name);
        return "";
      } catch (const BadMessage& error) {
        return error.what();
      }
  }
  return "";
}

void RemarkOnInputs(const Json& inputs, std::vector<std::string>& remarks) {
  for (size_t i = 0; i < inputs.size(); ++i) {
    const Json& element = inputs[i];
    if (!element.is_string() || element == "" || element == "off") continue;
    const auto endpoint = Endpoint::Parse(element.get<std::string>());
    const std::string shown = ToAscii(element) + " for input " + std::to_string(i);
    if (!endpoint) {
      remarks.push_back(shown + " is no IPv4 address with a port: the input is switched off");
    } else if (endpoint->port == 0) {
      remarks.push_back(shown + " has no port: its packets go nowhere");
    }
  }
}

// A unit takes half of a surrogate pair, which the library doesn't. What the texts hold is no
// matter here.
void ReplaceSurrogateEscapes(std::string& text) {
  for (size_t i = 0; i + 5 < text.size(); ++i) {
    if (text[i] != '\\') continue;
    ++i;  // past an escaped backslash too
    const bool surrogate = text[i] == 'u' && text[i + 1] == 'D' && text[i + 2] >= '8';
    if (surrogate && std::isxdigit(static_cast<unsigned char>(text[i + 2])) != 0) {
      text.replace(i + 1, 2, "FF");
    }
  }
}

// A unit takes 1e400, as infinity, which the library doesn't. It is no whole number either way,
// which is all that is asked of it here.
std::string WithoutOverflow(std::string text) {
  bool inText = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') inText = !inText;
    if (inText && text[i] == '\\') ++i;
    if (inText || i == 0 || (text[i] | 0x20) != 'e' || text[i - 1] < '0' || text[i - 1] > '9')
      continue;
    const size_t begin = std::min(text.find_first_not_of("+0", i + 1), text.size());
    const size_t end = std::min(text.find_first_not_of("0123456789", begin), text.size());
    // With the 19 digits that may stand before it 10^280 is within a double.
    if (end - begin > 3 || (end - begin == 3 && text.compare(begin, 3, "280") > 0))
      text.replace(begin, end - begin, "280");
  }
  return text;
}

// The digits in a JSON object that no unit reads: in a number each run of digits (before the point,
// after it, of the exponent) has to fit in 64 bits, also under a key that the unit doesn't know.
// Empty where there are none.
std::string TooLongDigits(std::string_view object) {
  constexpr std::string_view kDigits = "0123456789";
  constexpr std::string_view kMost = "9223372036854775807";
  bool inText = false;
  for (size_t i = 0; i < object.size(); ++i) {
    if (object[i] == '"') inText = !inText;
    if (inText && object[i] == '\\') ++i;
    if (inText || kDigits.find(object[i]) == std::string_view::npos) continue;
    const size_t end = std::min(object.find_first_not_of(kDigits, i), object.size());
    std::string_view digits = object.substr(i, end - i);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    const bool fits =
        digits.size() < kMost.size() || (digits.size() == kMost.size() && digits <= kMost);
    // The lowest 64-bit integer is one farther from zero than the highest.
    const bool negative = i >= 2 && object[i - 1] == '-' && (object[i - 2] | 0x20) != 'e';
    if (!fits && !(negative && digits == "9223372036854775808")) return std::string(digits);
    i = end - 1;
  }
  return {};
}

// Where the object ends that the text begins with: what comes after it no unit reads.
size_t EndOfObject(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos || text[begin] != '{') return text.size();
  size_t open = 0;
  bool inText = false;
  for (size_t i = begin; i < text.size(); ++i) {
    if (text[i] == '"') inText = !inText;
    if (inText && text[i] == '\\') ++i;
    if (inText) continue;
    if (text[i] == '{') ++open;
    if (text[i] == '}' && --open == 0) return i + 1;
  }
  return text.size();
}

// Of the object alone. Nothing is asked any more once the message isn't known.
void ExplainObject(const Json& object, Explanation& result) {
  const auto id = object.find("msg_id");
  const std::string objection = id == object.end() ? "\"msg_id\", the message's number, is missing"
                                                   : ObjectionToNumber("msg_id", *id);
  if (objection.empty()) result.id = id->get<uint32_t>();
  if (!objection.empty()) result.refused.push_back(objection);

  const auto att = object.find("att");
  if (att != object.end()) {
    const std::string bad = ObjectionToNumber("att", *att);
    if (!bad.empty()) {
      result.refused.push_back(bad);
    } else if (att->get<uint32_t>() > kMostAttachment) {
      result.refused.push_back("\"att\" is " + ToAscii(*att) + "; the most is 1048576");
    }
  }

  const auto msg = object.find("msg");
  if (msg == object.end() || !msg->is_string()) {
    result.refused.push_back("\"msg\", the message's name, is missing or no text");
    return;
  }
  result.name = msg->get<std::string>();
  const auto known = Messages().find(result.name);
  if (known == Messages().end()) {
    result.refused.push_back("there is no message " + ToAscii(*msg));
    return;
  }
  for (const Key& key : known->second) {
    const auto value = object.find(key.name);
    if (value == object.end()) {
      if (key.required) result.refused.push_back("\"" + std::string(key.name) + "\" is missing");
      continue;
    }
    const std::string bad = ObjectionTo(key, *value);
    if (!bad.empty()) result.refused.push_back(bad);
  }
  if (result.name == "set_inputs" && result.refused.empty() && object.contains("inputs")) {
    RemarkOnInputs(object["inputs"], result.remarks);
  }
}

}  // namespace

std::string ToAscii(const Json& value) {
  return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

Explanation Explain(const Bytes& datagram) {
  Explanation result;
  if (datagram.size() > kMostTaken) {
    result.refused.push_back(std::to_string(datagram.size()) + " bytes; a unit takes 1432");
  }
  const auto zero = std::find(datagram.begin(), datagram.end(), uint8_t{0});
  if (zero == datagram.end()) {
    result.refused.push_back("no 0 byte after the JSON text (" + std::to_string(datagram.size()) +
                             " bytes)");
  }
  std::string text(datagram.begin(), zero);
  if (text.starts_with("\xEF\xBB\xBF")) {
    result.refused.push_back("a byte order mark before the JSON text");
    return result;
  }
  const size_t end = EndOfObject(text);
  const std::string rest = text.substr(end);
  text.resize(end);
  if (HasLowerCaseEscape(text)) result.refused.push_back("lower-case \\u digits");
  ReplaceSurrogateEscapes(text);
  Json object;
  std::istringstream stream(WithoutOverflow(text));
  try {
    stream >> object;
  } catch (const Json::exception& error) {
    // The library quotes what it has read last, which may be anything.
    const std::string reason = ToAscii(WhyNoJson(error));
    result.refused.push_back("no JSON: " + reason.substr(1, reason.size() - 2));
    return result;
  }
  if (!object.is_object()) {
    result.refused.push_back("the JSON text is no object");
    return result;
  }
  const std::string tooLong = TooLongDigits(text);
  if (!tooLong.empty()) result.refused.push_back(tooLong + " has more digits than a unit reads");
  try {
    Json(rest).dump();
  } catch (const Json::exception&) {
    result.refused.push_back("malformed UTF-8 after the object");
  }
  if (rest.find_first_not_of(" \t\r\n") != std::string::npos) {
    result.remarks.push_back("text after the object is ignored");
  }
  ExplainObject(object, result);
  const auto after = zero == datagram.end() ? 0 : datagram.end() - zero - 1;
  if (after > 0 && !object.contains("att")) {
    result.remarks.push_back(std::to_string(after) +
                             " bytes after the 0 byte are ignored: there is no \"att\"");
  }
  return result;
}

}  // namespace wire
