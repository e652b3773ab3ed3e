// Any text through the JSON parser, the tree builder and the generator. Three things must agree: a
// reader of the dialect written a second time (Reader), a tree of the parser's plain events (Model)
// and the tree that the builder makes. What the generator writes must read back as an equal tree.
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "Harness.h"
#include "json/ParsingBuilder.h"
#include "platform/text.h"

using fuzz::Require;

namespace {

enum class Outcome { Complete, Incomplete, Wrong };

// Reads one value by recursive descent, and says only whether it is one.
class Reader {
 public:
  static Outcome Read(const std::wstring& text) {
    Reader reader{text};
    try {
      const bool number = reader.Value();
      // Only the character behind a number tells that it has ended.
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
  void Word(const char* word) {
    while (*word)
      Expect(static_cast<uint32_t>(*word++));
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

  // True for a number.
  bool Value() {
    SkipSpace();
    const uint32_t c = Next();
    switch (c) {
      case '"':
        String();
        return false;
      case '[':
        Members(']', false);
        return false;
      case '{':
        Members('}', true);
        return false;
      case 't':
        Word("rue");
        return false;
      case 'f':
        Word("alse");
        return false;
      case 'n':
        Word("ull");
        return false;
      case '-':
        Number(Next(), true);
        return true;
      default:
        Number(c, false);
        return true;
    }
  }

  void Members(uint32_t end, bool keys) {
    SkipSpace();
    if (Peek() == end) {
      ++pos_;
      return;
    }
    for (;;) {
      if (keys) {
        SkipSpace();
        Expect('"');
        String();
        SkipSpace();
        Expect(':');
      }
      Value();
      SkipSpace();
      const uint32_t c = Next();
      if (c == end) return;
      if (c != ',') throw Outcome::Wrong;
    }
  }

  void String() {
    for (;;) {
      uint32_t c = Next();
      if (c == '"') return;
      if (c < 0x20) throw Outcome::Wrong;
      if (c != '\\') continue;
      c = Next();
      if (c == 'u') {
        for (int i = 0; i < 4; ++i) {
          c = Next();
          if (!Digit(c) && (c < 'A' || c > 'F')) throw Outcome::Wrong;
        }
      } else if (std::string("\"\\/bfnrt").find(static_cast<char>(c)) == std::string::npos ||
                 c > 127) {
        throw Outcome::Wrong;
      }
    }
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

  void Number(uint32_t first, bool negative) {
    if (!Digit(first)) throw Outcome::Wrong;
    const std::string limit = "9223372036854775807";
    if (first != '0') {
      Digits(negative ? "9223372036854775808" : limit, std::string(1, static_cast<char>(first)));
    }
    if (Peek() == '.') {
      ++pos_;
      Digits(limit);
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++pos_;
      if (Peek() == '+' || Peek() == '-') ++pos_;
      Digits(limit);
    }
  }

  const std::wstring& text_;
  size_t pos_ = 0;
};

// A tree as the events tell it.
struct Node {
  JSON::Type type = JSON::Undefined;
  int constant = 0;
  int64_t integer = 0;
  double real = 0.0;
  std::wstring string;
  std::map<std::wstring, Node> members;
  std::vector<Node> elements;
};

class Model final : public JSON::IParserCallback {
 public:
  Node root;
  bool failed = false;

  void OnReset() override {}
  void OnError(int) override { failed = true; }
  void OnObjectBegin() override { Open(JSON::Object); }
  void OnObjectNext() override { Require(In(JSON::Object), "a member follows in an object"); }
  void OnObjectEnd() override { Close(JSON::Object); }
  void OnArrayBegin() override { Open(JSON::Array); }
  void OnArrayNext() override { Require(In(JSON::Array), "an element follows in an array"); }
  void OnArrayEnd() override { Close(JSON::Array); }
  void OnKeyBegin() override { key_.clear(); }
  void OnKeyChar(uint32_t c) override { key_ += static_cast<wchar_t>(c); }
  void OnKeyEnd() override {}
  void OnStringBegin() override { string_ = &Put(JSON::String); }
  void OnStringChar(uint32_t c) override { string_->string += static_cast<wchar_t>(c); }
  void OnStringEnd() override {}
  void OnConstant(int kind) override { Put(JSON::Constant).constant = kind; }
  void OnInteger(int64_t value) override { Put(JSON::Integer).integer = value; }
  void OnDouble(double value) override { Put(JSON::Double).real = value; }

 private:
  bool In(JSON::Type type) const { return !open_.empty() && open_.back()->type == type; }

  Node& Put(JSON::Type type) {
    Node* node = &root;
    if (In(JSON::Object)) {
      node = &(open_.back()->members[key_] = Node());
    } else if (In(JSON::Array)) {
      node = &open_.back()->elements.emplace_back();
    }
    node->type = type;
    return *node;
  }
  void Open(JSON::Type type) { open_.push_back(&Put(type)); }
  void Close(JSON::Type type) {
    Require(In(type), "a container closes as what it opened");
    open_.pop_back();
  }

  std::vector<Node*> open_;
  std::wstring key_;
  Node* string_ = nullptr;
};

// Six digits of a double go through text. Near the lower end of the range fewer do.
bool Near(double a, double b) {
  const double highest = std::numeric_limits<double>::max();
  a = std::isnan(a) ? 0.0 : std::clamp(a, -highest, highest);
  return std::abs(a - b) <= std::max(std::abs(a) * 1e-5, 1e-300);
}

// From 100000 to 999999 a double is written with a bare point, which the dialect can't read again.
bool HasBarePoint(const Node& node) {
  if (node.type == JSON::Double) {
    JSON::Value value;
    value.SetDouble(node.real);
    return value.ToWString().back() == L'.';
  }
  return std::any_of(node.elements.begin(), node.elements.end(), HasBarePoint) ||
         std::any_of(node.members.begin(), node.members.end(),
                     [](const auto& member) { return HasBarePoint(member.second); });
}

// `exact`: doubles are the same to the bit, not only after a way through text.
void RequireEqual(const Node& node, const JSON::Value& value, bool exact) {
  Require(value.GetType() == node.type, "kinds agree");
  switch (node.type) {
    case JSON::Constant: {
      static const wchar_t* const texts[] = {L"", L"null", L"false", L"true"};
      Require(value.ToWString() == texts[node.constant], "constants agree");
      break;
    }
    case JSON::Integer: {
      JSON::Value integer;
      integer.SetInt64(node.integer);
      Require(value.ToWString() == integer.ToWString(), "integers agree");
      break;
    }
    case JSON::Double: {
      const double real = value.AsDouble();
      const bool same = real == node.real || (std::isnan(real) && std::isnan(node.real));
      Require(exact ? same : Near(node.real, real), "doubles agree");
      break;
    }
    case JSON::String:
      Require(value.AsWString() == node.string, "strings agree");
      break;
    case JSON::Object:
      for (const auto& [key, member] : node.members)
        RequireEqual(member, value.Item(key), exact);
      break;
    case JSON::Array:
      Require(value.Size() == node.elements.size(), "sizes agree");
      for (size_t i = 0; i < node.elements.size(); ++i)
        RequireEqual(node.elements[i], value.At(i), exact);
      break;
    default:
      Require(false, "every node of a complete tree has a kind");
  }
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

// A parser whose callback lets it go on behind an error must survive whatever else comes.
void FeedToTheEnd(const std::wstring& text) {
  JSON::Parser parser(nullptr);
  for (const wchar_t unit : text)
    parser.ParseChar(static_cast<uint32_t>(unit));
  parser.Finish();
  Require(parser.HasError() == (parser.GetError() != 0), "an error has a code");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The readers of this file recurse, other than the parser.
  if (size > 4096) return 0;
  const std::wstring text = platform::Utf8ToWideLossy({reinterpret_cast<const char*>(data), size});
  FeedToTheEnd(text);

  JSON::Value value;
  const Outcome outcome = Build(text, value);
  Require(outcome == Reader::Read(text), "the parser and the second reader agree");
  if (outcome != Outcome::Complete) return 0;

  Model model;
  JSON::Parser parser(&model);
  Require(JSON::ParseText(parser, text) && !model.failed, "the parser does the same again");
  RequireEqual(model.root, value, true);

  if (HasBarePoint(model.root)) return 0;

  // The blank ends a number at the root.
  const std::wstring generated = value.ToWString();
  JSON::Value again;
  Require(Build(generated + L' ', again) == Outcome::Complete, "what was written can be read");
  RequireEqual(model.root, again, false);
  return 0;
}
