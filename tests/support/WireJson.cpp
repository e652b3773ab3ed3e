#include "support/WireJson.h"

#include <charconv>

namespace wire {

namespace {

class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  Json Document() {
    Json value = Value();
    Blanks();
    if (!rest_.empty()) Fail("text behind the value");
    return value;
  }

 private:
  [[noreturn]] void Fail(const std::string& what) const {
    throw std::runtime_error("JSON: " + what + " before: " + std::string(rest_.substr(0, 40)));
  }

  void Blanks() {
    while (!rest_.empty() && std::string_view(" \t\r\n").find(rest_[0]) != rest_.npos) {
      rest_.remove_prefix(1);
    }
  }

  bool Accept(std::string_view part) {
    if (!rest_.starts_with(part)) return false;
    rest_.remove_prefix(part.size());
    return true;
  }

  void Expect(std::string_view part) {
    if (!Accept(part)) Fail("missing " + std::string(part));
  }

  Json Value() {
    Blanks();
    if (rest_.empty()) Fail("no value");
    switch (rest_[0]) {
      case '{':
        return Object();
      case '[':
        return Array();
      case '"':
        return String();
      default:
        return Word();
    }
  }

  Json Word() {
    Json value;
    if (Accept("null")) return value;
    value.kind = Json::Kind::Bool;
    value.boolean = true;
    if (Accept("true")) return value;
    value.boolean = false;
    if (Accept("false")) return value;
    return Number();
  }

  size_t Digits(size_t at) const {
    size_t end = at;
    while (end < rest_.size() && rest_[end] >= '0' && rest_[end] <= '9')
      ++end;
    if (end == at) Fail("digit missing");
    return end;
  }

  Json Number() {
    const size_t begin = rest_.starts_with('-') ? 1 : 0;
    size_t end = Digits(begin);
    if (rest_[begin] == '0' && end > begin + 1) Fail("leading zero");
    Json value;
    value.kind = Json::Kind::Integer;
    if (end < rest_.size() && rest_[end] == '.') {
      value.kind = Json::Kind::Number;
      end = Digits(end + 1);
    }
    if (end < rest_.size() && (rest_[end] == 'e' || rest_[end] == 'E')) {
      value.kind = Json::Kind::Number;
      ++end;
      if (end < rest_.size() && (rest_[end] == '-' || rest_[end] == '+')) ++end;
      end = Digits(end);
    }
    const char* text = rest_.data();
    std::from_chars(text, text + end, value.number);
    if (value.kind == Json::Kind::Integer &&
        std::from_chars(text, text + end, value.integer).ec != std::errc()) {
      Fail("integer out of range");
    }
    rest_.remove_prefix(end);
    return value;
  }

  Json String() {
    Json value;
    value.kind = Json::Kind::String;
    Expect("\"");
    while (!Accept("\"")) {
      if (rest_.empty()) Fail("string without end");
      const char c = rest_[0];
      if (static_cast<unsigned char>(c) < 0x20) Fail("control character in a string");
      rest_.remove_prefix(1);
      if (c == '\\') {
        value.string += Escape();
      } else {
        value.string += c;
      }
    }
    return value;
  }

  std::string Escape() {
    if (rest_.empty()) Fail("escape without character");
    const char c = rest_[0];
    rest_.remove_prefix(1);
    constexpr std::string_view kNames = "\"\\/bfnrt";
    constexpr std::string_view kValues = "\"\\/\b\f\n\r\t";
    if (const size_t at = kNames.find(c); at != kNames.npos) return {kValues[at]};
    if (c != 'u') Fail("unknown escape");
    uint32_t code = Unit();
    if (code >= 0xD800 && code < 0xDC00) {
      Expect("\\u");
      code = 0x10000 + ((code - 0xD800) << 10) + (Unit() - 0xDC00);
    }
    return Utf8(code);
  }

  uint32_t Unit() {
    uint32_t code = 0;
    const char* text = rest_.data();
    if (rest_.size() < 4 || std::from_chars(text, text + 4, code, 16).ptr != text + 4) {
      Fail("four hexadecimal digits missing");
    }
    rest_.remove_prefix(4);
    return code;
  }

  static std::string Utf8(uint32_t code) {
    const auto byte = [](uint32_t value) { return static_cast<char>(value); };
    const auto tail = [&](int shift) { return byte(0x80 | ((code >> shift) & 0x3F)); };
    if (code < 0x80) return {byte(code)};
    if (code < 0x800) return {byte(0xC0 | code >> 6), tail(0)};
    if (code < 0x10000) return {byte(0xE0 | code >> 12), tail(6), tail(0)};
    return {byte(0xF0 | code >> 18), tail(12), tail(6), tail(0)};
  }

  Json Array() {
    Json value;
    value.kind = Json::Kind::Array;
    Expect("[");
    Blanks();
    if (Accept("]")) return value;
    do {
      value.array.push_back(Value());
      Blanks();
    } while (Accept(","));
    Expect("]");
    return value;
  }

  Json Object() {
    Json value;
    value.kind = Json::Kind::Object;
    Expect("{");
    Blanks();
    if (Accept("}")) return value;
    do {
      Blanks();
      const std::string key = String().string;
      Blanks();
      Expect(":");
      if (!value.object.emplace(key, Value()).second) Fail("key twice: " + key);
      value.keys.push_back(key);
      Blanks();
    } while (Accept(","));
    Expect("}");
    return value;
  }

  std::string_view rest_;
};

}  // namespace

Json Json::Parse(std::string_view text) {
  return Scanner(text).Document();
}

const Json& Json::operator[](const std::string& key) const {
  const auto found = object.find(key);
  if (found == object.end()) throw std::runtime_error("JSON: no key " + key);
  return found->second;
}

std::vector<int64_t> Json::Integers() const {
  if (kind != Kind::Array) throw std::runtime_error("JSON: no array");
  std::vector<int64_t> all;
  for (const Json& element : array) {
    if (element.kind != Kind::Integer) throw std::runtime_error("JSON: no integer");
    all.push_back(element.integer);
  }
  return all;
}

std::vector<std::string> Json::Strings() const {
  if (kind != Kind::Array) throw std::runtime_error("JSON: no array");
  std::vector<std::string> all;
  for (const Json& element : array) {
    if (element.kind != Kind::String) throw std::runtime_error("JSON: no string");
    all.push_back(element.string);
  }
  return all;
}

std::string Quoted(std::string_view text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

}  // namespace wire
