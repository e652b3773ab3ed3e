// Any text through the JSON parser, the tree builder and the generator. A reader of the dialect
// written a second time must agree on whether the text is one, and on its tree. What the generator
// writes must read back as the same text.
#include <algorithm>
#include <cmath>
#include <cwchar>
#include <map>

#include "Harness.h"
#include "json/ParsingBuilder.h"
#include "platform/text.h"

using fuzz::Require;

namespace {

enum class Outcome { Complete, Incomplete, Wrong };

struct Node {
  JSON::Type type = JSON::Undefined;
  std::wstring text;  // of a string, a constant or an integer
  double real = 0.0;
  std::map<std::wstring, Node> members;
  std::vector<Node> elements;
};

// Reads one value by recursive descent.
class Reader {
 public:
  static Outcome Read(const std::wstring& text, Node& root) {
    Reader reader{text};
    try {
      root = reader.Value();
      const bool number = root.type == JSON::Integer || root.type == JSON::Double;
      // Only the character after a number shows that it has ended.
      if (number && !reader.Space(reader.Next())) return Outcome::Wrong;
      return Outcome::Complete;
    } catch (Outcome outcome) {
      return outcome;
    }
  }

 private:
  explicit Reader(const std::wstring& text) : text_(text) {}

  uint32_t Peek() const {
    if (pos_ == text_.size()) throw Outcome::Incomplete;
    return static_cast<uint32_t>(text_[pos_]);
  }
  uint32_t Next() {
    const uint32_t c = Peek();
    ++pos_;
    return c;
  }
  void Expect(uint32_t c) {
    if (Next() != c) throw Outcome::Wrong;
  }
  static bool Digit(uint32_t c) { return c >= '0' && c <= '9'; }
  // U+0000 stands for the end of the text: it ends a number at the root.
  static bool Space(uint32_t c) {
    return c == 0 || c == ' ' || c == '\t' || c == '\n' || c == '\r';
  }
  void SkipSpace() {
    while (Peek() != 0 && Space(Peek()))
      ++pos_;
  }

  Node Value() {
    SkipSpace();
    Node node;
    const uint32_t c = Next();
    switch (c) {
      case '"':
        node.type = JSON::String;
        node.text = String();
        break;
      case '[':
        node.type = JSON::Array;
        Members(node, ']');
        break;
      case '{':
        node.type = JSON::Object;
        Members(node, '}');
        break;
      case 't':
      case 'f':
      case 'n':
        node.type = JSON::Constant;
        node.text = c == 't' ? L"true" : c == 'f' ? L"false" : L"null";
        for (size_t i = 1; i < node.text.size(); ++i)
          Expect(static_cast<uint32_t>(node.text[i]));
        break;
      default:
        Number(node, c);
    }
    return node;
  }

  void Members(Node& node, uint32_t end) {
    SkipSpace();
    if (Peek() == end) {
      ++pos_;
      return;
    }
    for (;;) {
      if (node.type == JSON::Object) {
        SkipSpace();
        Expect('"');
        const std::wstring key = String();
        SkipSpace();
        Expect(':');
        node.members[key] = Value();
      } else {
        node.elements.push_back(Value());
      }
      SkipSpace();
      const uint32_t c = Next();
      if (c == end) return;
      if (c != ',') throw Outcome::Wrong;
    }
  }

  std::wstring String() {
    std::wstring text;
    for (;;) {
      uint32_t c = Next();
      if (c == '"') return text;
      if (c < 0x20) throw Outcome::Wrong;
      if (c == '\\') c = Escaped();
      text += static_cast<wchar_t>(c);
    }
  }

  uint32_t Escaped() {
    const std::wstring letters = L"\"\\/bfnrt";
    const uint32_t c = Next();
    if (c != 'u') {
      const size_t at = letters.find(static_cast<wchar_t>(c));
      if (at == std::wstring::npos) throw Outcome::Wrong;
      return static_cast<uint32_t>(L"\"\\/\b\f\n\r\t"[at]);
    }
    uint32_t unit = 0;
    for (int i = 0; i < 4; ++i) {
      const uint32_t digit = Next();
      if (!Digit(digit) && (digit < 'A' || digit > 'F')) throw Outcome::Wrong;
      unit = unit * 16 + (Digit(digit) ? digit - '0' : digit - 'A' + 10);
    }
    return unit;
  }

  // Digits, at least one, none of which may lift their number above the limit.
  void Digits(const std::string& limit, std::string digits = {}) {
    while (Digit(Peek())) {
      digits += static_cast<char>(Next());
      const size_t zeros = std::min(digits.find_first_not_of('0'), digits.size());
      const std::string number = digits.substr(zeros);
      if (number.size() > limit.size() || (number.size() == limit.size() && number > limit)) {
        throw Outcome::Wrong;
      }
    }
    if (digits.empty()) throw Outcome::Wrong;
  }

  void Number(Node& node, uint32_t first) {
    const size_t begin = pos_ - 1;
    const bool negative = first == '-';
    if (negative) first = Next();
    if (!Digit(first)) throw Outcome::Wrong;
    const std::string limit = "9223372036854775807";
    if (first != '0') {
      Digits(negative ? "9223372036854775808" : limit, std::string(1, static_cast<char>(first)));
    }
    node.type = JSON::Integer;
    if (Peek() == '.') {
      node.type = JSON::Double;
      ++pos_;
      Digits(limit);
    }
    if (Peek() == 'e' || Peek() == 'E') {
      node.type = JSON::Double;
      ++pos_;
      if (Peek() == '+' || Peek() == '-') ++pos_;
      Digits(limit);
    }
    const std::wstring literal = text_.substr(begin, pos_ - begin);
    if (node.type == JSON::Integer) {
      node.text = std::to_wstring(std::stoll(literal));
    } else {
      node.real = std::wcstod(literal.c_str(), nullptr);
    }
  }

  const std::wstring& text_;
  size_t pos_ = 0;
};

void RequireEqual(const Node& node, const JSON::Value& value) {
  Require(value.GetType() == node.type, "kinds agree");
  if (node.type == JSON::Double) {
    // The parser's powers leave the range of a double earlier.
    const double real = value.AsDouble();
    const double tolerance = std::max(std::abs(node.real) * 1e-5, 1e-300);
    Require(!std::isfinite(real) || std::abs(node.real - real) <= tolerance, "doubles agree");
  } else if (node.type == JSON::String) {
    Require(value.AsWString() == node.text, "strings agree");
  } else if (node.type == JSON::Object) {
    for (const auto& [key, member] : node.members)
      RequireEqual(member, value.Item(key));
  } else if (node.type == JSON::Array) {
    Require(value.Size() == node.elements.size(), "sizes agree");
    for (size_t i = 0; i < node.elements.size(); ++i)
      RequireEqual(node.elements[i], value.At(i));
  } else {
    Require(value.ToWString() == node.text, "integers and constants agree");
  }
}

// Whether each double in the text can be read again as the same: from 100000 to 999999 it is
// written with a bare point, which the dialect can't read, and near the lower end of the range
// fewer than its six digits count.
bool ReadsBack(const std::wstring& text) {
  for (const wchar_t* sign : {L".,", L".]", L".}", L"e-29", L"e-3"})
    if (text.find(sign) != std::wstring::npos) return false;
  return text.back() != L'.';
}

Outcome Build(const std::wstring& text, JSON::Value& root) {
  JSON::ParsingBuilder builder(&root);
  JSON::Parser parser(&builder);
  try {
    return JSON::ParseText(parser, text) ? Outcome::Complete : Outcome::Incomplete;
  } catch (const JSON::Exception&) {
    return Outcome::Wrong;
  }
}

// A parser whose callback lets it go on after an error must survive whatever else comes.
void FeedToTheEnd(const std::wstring& text) {
  JSON::Parser parser(nullptr);
  for (const wchar_t unit : text)
    parser.ParseChar(static_cast<uint32_t>(unit));
  parser.Finish();
  Require(parser.HasError() == (parser.GetError() != 0), "an error has a code");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The reader of this file recurses, unlike the parser.
  if (size > 4096) return 0;
  const std::wstring text = platform::Utf8ToWideLossy({reinterpret_cast<const char*>(data), size});
  FeedToTheEnd(text);

  Node node;
  JSON::Value value;
  const Outcome outcome = Build(text, value);
  Require(outcome == Reader::Read(text, node), "the parser and the second reader agree");
  if (outcome != Outcome::Complete) return 0;
  RequireEqual(node, value);

  const std::wstring generated = value.ToWString();
  if (!ReadsBack(generated)) return 0;
  JSON::Value again;
  // The blank ends a number at the root.
  Require(Build(generated + L' ', again) == Outcome::Complete, "what was written can be read");
  Require(again.ToWString() == generated, "as what it was");
  return 0;
}
