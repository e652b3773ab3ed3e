#include "json/Parser.h"

#include <algorithm>
#include <cmath>

#include "json/Value.h"

namespace JSON {

namespace {

// What a character is to the grammar.
enum CharClass : uint8_t {
  kEnd,      // U+0000, which also stands for the end of the text
  kControl,  // the other control characters
  kTab,
  kLineFeed,
  kReturn,
  kSpace,
  kQuote,
  kColon,
  kSlash,
  kBackslash,
  kComma,
  kPoint,
  kPlus,
  kMinus,
  kArrayOpen,
  kArrayClose,
  kObjectOpen,
  kObjectClose,
  kZero,
  kDigit,     // 1 to 9
  kUpperHex,  // A to F
  kLetter,    // the other letters, lower-case a to f included
  kOther,     // the rest of ASCII
  kBeyondAscii
};

struct ClassTable {
  uint8_t of[128] = {};

  constexpr ClassTable() {
    for (int c = 0; c < 128; ++c)
      of[c] = Classify(static_cast<char>(c));
  }

  static constexpr uint8_t Classify(char c) {
    switch (c) {
      case '\0':
        return kEnd;
      case '\t':
        return kTab;
      case '\n':
        return kLineFeed;
      case '\r':
        return kReturn;
      case ' ':
        return kSpace;
      case '"':
        return kQuote;
      case ':':
        return kColon;
      case '/':
        return kSlash;
      case '\\':
        return kBackslash;
      case ',':
        return kComma;
      case '.':
        return kPoint;
      case '+':
        return kPlus;
      case '-':
        return kMinus;
      case '[':
        return kArrayOpen;
      case ']':
        return kArrayClose;
      case '{':
        return kObjectOpen;
      case '}':
        return kObjectClose;
      case '0':
        return kZero;
      default:
        break;
    }
    if (c < ' ') return kControl;
    if (c >= '1' && c <= '9') return kDigit;
    if (c >= 'A' && c <= 'F') return kUpperHex;
    if ((c >= 'G' && c <= 'Z') || (c >= 'a' && c <= 'z')) return kLetter;
    return kOther;
  }
};

constexpr ClassTable kClasses;

bool IsSpace(int charClass) {
  return charClass >= kTab && charClass <= kSpace;
}
bool IsDigit(int charClass) {
  return charClass == kZero || charClass == kDigit;
}

// What InString hands on as it is and a builder stores as one code unit.
bool IsPlain(uint32_t c) {
  return c >= ' ' && c < 0x10000 && c != '"' && c != '\\';
}

constexpr uint64_t kMaxInteger = 9223372036854775807;
constexpr uint64_t kMaxIntegerTenth = 922337203685477580;

const char* const kErrorTexts[] = {
    "no error",
    "value expected",
    "invalid end stream chars",
    "mismatch or unclosed square brackets",
    "comma or right square bracket expected",
    "mismatch or unclosed curly braces",
    "key string expected",
    "colon separator expected",
    "comma or right curly brace expected",
    "invalid character in string",
    "invalid escape sequence in string",
    "number digit expected",
    "integer digits overflow",
    "fractional digits overflow",
    "exponent digits overflow",
    "wrong number syntax",
    "invalid comma character",
    "wrong literal character",
    "misplaced extra brace or bracket",
    "unclosed string",
    "unclosed/missing brace or bracket",
};

// The codes of the texts above.
enum ErrorCode {
  kValueExpected = 1,
  kInvalidEnd,
  kSquareMismatch,
  kArrayCommaExpected,
  kCurlyMismatch,
  kKeyExpected,
  kColonExpected,
  kObjectCommaExpected,
  kBadStringChar,
  kBadEscape,
  kDigitExpected,
  kIntegerOverflow,
  kFractionOverflow,
  kExponentOverflow,
  kBadNumber,
  kBadComma,
  kBadLiteral,
  kExtraBracket,
  kUnclosedString,
  kUnclosedContainer
};

}  // namespace

const char* ErrorText(int code) {
  if (code < 0 || code >= static_cast<int>(std::size(kErrorTexts))) {
    return "unidentified parser error";
  }
  return kErrorTexts[code];
}

bool ParseText(IParser& parser, const std::wstring& text) {
  for (const wchar_t unit : text) {
    if (!parser.ParseChar(static_cast<uint32_t>(unit))) return false;
    if (parser.IsComplete()) break;
  }
  return parser.IsComplete();
}

bool ParseText(Parser& parser, const std::wstring& text) {
  std::wstring_view rest = text;
  while (!rest.empty()) {
    rest.remove_prefix(parser.TakePlain(rest));
    if (rest.empty() || !parser.ParseChar(static_cast<uint32_t>(rest.front()))) return false;
    if (parser.IsComplete()) return true;
    rest.remove_prefix(1);
  }
  return parser.IsComplete();
}

void IParserCallback::OnKeyChars(std::wstring_view chars) {
  for (const wchar_t unit : chars)
    OnKeyChar(static_cast<uint32_t>(unit));
}

void IParserCallback::OnStringChars(std::wstring_view chars) {
  for (const wchar_t unit : chars)
    OnStringChar(static_cast<uint32_t>(unit));
}

Parser::Parser(IParserCallback* callback) : callback_(callback) {
  stack_.reserve(32);
}

void Parser::Reset() {
  state_ = &Parser::ExpectValue;
  counter_ = 0;
  escapeValue_ = 0;
  inKey_ = false;
  failed_ = false;
  error_ = 0;
  stack_.clear();
  ClearNumber();
  Emit(&IParserCallback::OnReset);
}

bool Parser::ParseChar(uint32_t c) {
  const int charClass = c < 128 ? int{kClasses.of[c]} : int{kBeyondAscii};
  (this->*state_)(charClass, c);
  return !failed_;
}

size_t Parser::TakePlain(std::wstring_view text) {
  if (state_ != &Parser::InString || failed_) return 0;
  size_t count = 0;
  while (count < text.size() && IsPlain(static_cast<uint32_t>(text[count])))
    ++count;
  if (count != 0) {
    Emit(inKey_ ? &IParserCallback::OnKeyChars : &IParserCallback::OnStringChars,
         text.substr(0, count));
  }
  return count;
}

void Parser::Finish() {
  ParseChar(0);
}

void Parser::Fail(int code) {
  failed_ = true;
  error_ = static_cast<uint32_t>(code);
  Emit(&IParserCallback::OnError, code);
}

void Parser::CountValue() {
  if (!stack_.empty()) ++stack_.back().count;
}

void Parser::ValueDone() {
  CountValue();
  if (stack_.empty()) {
    state_ = &Parser::ExpectEnd;
  } else {
    state_ = stack_.back().kind == Kind::Object ? &Parser::ObjectAfter : &Parser::ArrayAfter;
  }
}

bool Parser::CloseContainer(Kind kind) {
  if (stack_.empty()) {
    Fail(kExtraBracket);
  } else if (stack_.back().kind == kind) {
    stack_.pop_back();
    ValueDone();
  } else {
    Fail(stack_.back().kind == Kind::Object ? kCurlyMismatch : kSquareMismatch);
  }
  return !failed_;
}

void Parser::CloseArray() {
  if (CloseContainer(Kind::Array)) Emit(&IParserCallback::OnArrayEnd);
}

void Parser::CloseObject() {
  if (CloseContainer(Kind::Object)) Emit(&IParserCallback::OnObjectEnd);
}

void Parser::ExpectValue(int charClass, uint32_t c) {
  if (IsSpace(charClass)) return;
  switch (charClass) {
    case kQuote:
      inKey_ = false;
      state_ = &Parser::InString;
      Emit(&IParserCallback::OnStringBegin);
      return;
    case kMinus:
      ClearNumber();
      negative_ = true;
      state_ = &Parser::NumberSign;
      return;
    case kArrayOpen:
      stack_.push_back({Kind::Array, 0});
      state_ = &Parser::ArrayNext;
      Emit(&IParserCallback::OnArrayBegin);
      return;
    case kObjectOpen:
      stack_.push_back({Kind::Object, 0});
      state_ = &Parser::ObjectNext;
      Emit(&IParserCallback::OnObjectBegin);
      return;
    case kZero:
      ClearNumber();
      state_ = &Parser::NumberAfterInteger;
      return;
    case kDigit:
      ClearNumber();
      integerPart_ = c - '0';
      state_ = &Parser::NumberInteger;
      return;
    default:
      break;
  }
  counter_ = 1;
  if (c == 'f') {
    state_ = &Parser::LiteralFalse;
  } else if (c == 'n') {
    state_ = &Parser::LiteralNull;
  } else if (c == 't') {
    state_ = &Parser::LiteralTrue;
  } else {
    Fail(kValueExpected);
  }
}

void Parser::ExpectEnd(int charClass, uint32_t) {
  if (charClass != kEnd && !IsSpace(charClass)) Fail(kInvalidEnd);
}

void Parser::ArrayNext(int charClass, uint32_t c) {
  if (IsSpace(charClass)) return;
  if (charClass == kArrayClose && !stack_.empty() && stack_.back().count == 0) {
    CloseArray();
  } else {
    ExpectValue(charClass, c);
  }
}

void Parser::ArrayAfter(int charClass, uint32_t) {
  if (IsSpace(charClass)) return;
  if (charClass == kComma) {
    state_ = &Parser::ArrayNext;
    Emit(&IParserCallback::OnArrayNext);
  } else if (charClass == kArrayClose) {
    CloseArray();
  } else {
    Fail(kArrayCommaExpected);
  }
}

void Parser::ObjectNext(int charClass, uint32_t) {
  if (IsSpace(charClass)) return;
  if (charClass == kQuote) {
    inKey_ = true;
    state_ = &Parser::InString;
    Emit(&IParserCallback::OnKeyBegin);
  } else if (charClass == kObjectClose && !stack_.empty() && stack_.back().count == 0) {
    CloseObject();
  } else {
    Fail(kKeyExpected);
  }
}

void Parser::ObjectColon(int charClass, uint32_t) {
  if (IsSpace(charClass)) return;
  if (charClass == kColon) {
    state_ = &Parser::ExpectValue;
  } else {
    Fail(kColonExpected);
  }
}

void Parser::ObjectAfter(int charClass, uint32_t) {
  if (IsSpace(charClass)) return;
  if (charClass == kComma) {
    state_ = &Parser::ObjectNext;
    Emit(&IParserCallback::OnObjectNext);
  } else if (charClass == kObjectClose) {
    CloseObject();
  } else {
    Fail(kObjectCommaExpected);
  }
}

void Parser::EmitChar(uint32_t c) {
  Emit(inKey_ ? &IParserCallback::OnKeyChar : &IParserCallback::OnStringChar, c);
}

void Parser::InString(int charClass, uint32_t c) {
  if (charClass == kEnd) {
    Fail(kUnclosedString);
  } else if (charClass < kSpace) {
    Fail(kBadStringChar);
  } else if (charClass == kBackslash) {
    escapeValue_ = 0;
    state_ = &Parser::StringEscape;
  } else if (charClass != kQuote) {
    EmitChar(c);
  } else if (inKey_) {
    inKey_ = false;
    state_ = &Parser::ObjectColon;
    Emit(&IParserCallback::OnKeyEnd);
  } else {
    ValueDone();
    Emit(&IParserCallback::OnStringEnd);
  }
}

void Parser::EmitEscape(uint32_t c) {
  escapeValue_ = c;
  state_ = &Parser::InString;
  EmitChar(c);
}

void Parser::StringEscape(int, uint32_t c) {
  switch (c) {
    case '"':
    case '/':
    case '\\':
      EmitEscape(c);
      break;
    case 'b':
      EmitEscape(8);
      break;
    case 'f':
      EmitEscape(12);
      break;
    case 'n':
      EmitEscape(10);
      break;
    case 'r':
      EmitEscape(13);
      break;
    case 't':
      EmitEscape(9);
      break;
    case 'u':
      escapeValue_ = 0;
      counter_ = 0;
      state_ = &Parser::StringUnicode;
      break;
    default:
      Fail(kBadEscape);
  }
}

void Parser::StringUnicode(int charClass, uint32_t c) {
  if (!IsDigit(charClass) && charClass != kUpperHex) {
    Fail(kBadEscape);
    return;
  }
  escapeValue_ = escapeValue_ * 16 + (charClass == kUpperHex ? c - 'A' + 10 : c - '0');
  if (++counter_ == 4) EmitEscape(escapeValue_);
}

void Parser::ClearNumber() {
  integerPart_ = fractionPart_ = exponent_ = 0;
  fractionDigits_ = exponentDigits_ = 0;
  negative_ = exponentNegative_ = false;
}

bool Parser::AccumulateDigit(uint64_t& target, bool allowOneMore, uint32_t c) {
  const auto digit = static_cast<int64_t>(c - '0');
  if (target > kMaxIntegerTenth) return false;
  target *= 10;
  const int64_t room = static_cast<int64_t>(kMaxInteger - target);
  if (room < digit && (!allowOneMore || room + 1 < digit)) return false;
  target += static_cast<uint64_t>(digit);
  return true;
}

void Parser::NumberSign(int charClass, uint32_t c) {
  if (charClass == kZero) {
    state_ = &Parser::NumberAfterInteger;
  } else if (charClass == kDigit) {
    integerPart_ = c - '0';
    state_ = &Parser::NumberInteger;
  } else {
    Fail(kDigitExpected);
  }
}

void Parser::NumberInteger(int charClass, uint32_t c) {
  if (!IsDigit(charClass)) {
    NumberAfterInteger(charClass, c);
  } else if (!AccumulateDigit(integerPart_, negative_, c)) {
    Fail(kIntegerOverflow);
  }
}

void Parser::NumberAfterInteger(int charClass, uint32_t c) {
  if (charClass == kPoint) {
    state_ = &Parser::NumberFraction;
  } else if (c == 'e' || c == 'E') {
    state_ = &Parser::NumberExponentStart;
  } else {
    EndNumber(charClass);
  }
}

void Parser::NumberFraction(int charClass, uint32_t c) {
  if (IsDigit(charClass)) {
    if (AccumulateDigit(fractionPart_, false, c)) {
      ++fractionDigits_;
    } else {
      Fail(kFractionOverflow);
    }
    return;
  }
  if (fractionDigits_ == 0) Fail(kDigitExpected);
  if (c == 'e' || c == 'E') {
    state_ = &Parser::NumberExponentStart;
  } else {
    EndNumber(charClass);
  }
}

void Parser::NumberExponentStart(int charClass, uint32_t c) {
  if (charClass != kPlus && charClass != kMinus) {
    NumberExponent(charClass, c);
    return;
  }
  exponentNegative_ = charClass == kMinus;
  state_ = &Parser::NumberExponent;
}

void Parser::NumberExponent(int charClass, uint32_t c) {
  if (IsDigit(charClass)) {
    state_ = &Parser::NumberExponent;
    if (AccumulateDigit(exponent_, false, c)) {
      ++exponentDigits_;
    } else {
      Fail(kExponentOverflow);
    }
    return;
  }
  if (exponentDigits_ == 0) Fail(kDigitExpected);
  EndNumber(charClass);
}

void Parser::EndNumber(int charClass) {
  switch (charClass) {
    case kEnd:
      ValueDone();
      DeliverNumber();
      if (!stack_.empty()) Fail(kUnclosedContainer);
      break;
    case kTab:
    case kLineFeed:
    case kReturn:
    case kSpace:
      ValueDone();
      DeliverNumber();
      break;
    case kComma:
      CountValue();
      DeliverNumber();
      CommaBehindNumber();
      break;
    case kArrayClose:
      CountValue();
      DeliverNumber();
      CloseArray();
      break;
    case kObjectClose:
      CountValue();
      DeliverNumber();
      CloseObject();
      break;
    default:
      Fail(kBadNumber);
  }
}

void Parser::CommaBehindNumber() {
  if (stack_.empty()) {
    Fail(kBadComma);
  } else if (stack_.back().kind == Kind::Object) {
    state_ = &Parser::ObjectNext;
    Emit(&IParserCallback::OnObjectNext);
  } else {
    state_ = &Parser::ArrayNext;
    Emit(&IParserCallback::OnArrayNext);
  }
}

void Parser::DeliverNumber() {
  if (fractionDigits_ == 0 && exponentDigits_ == 0) {
    // Through unsigned: the lowest integer has no positive counterpart.
    const uint64_t value = negative_ ? 0 - integerPart_ : integerPart_;
    Emit(&IParserCallback::OnInteger, static_cast<int64_t>(value));
    return;
  }
  double mantissa = static_cast<double>(integerPart_);
  // Beyond this the power is 0 or infinity anyway, and the subtraction below can't overflow.
  constexpr uint64_t kFarBeyondDouble = 100'000;
  auto exponent = static_cast<int64_t>(std::min(exponent_, kFarBeyondDouble));
  if (exponentNegative_) exponent = -exponent;
  if (fractionDigits_ != 0) {
    mantissa = mantissa * std::pow(10.0, static_cast<double>(fractionDigits_)) +
               static_cast<double>(fractionPart_);
    exponent -= fractionDigits_;
  }
  if (exponent != 0) mantissa *= std::pow(10.0, static_cast<double>(exponent));
  if (negative_) mantissa = -mantissa;
  Emit(&IParserCallback::OnDouble, mantissa);
}

void Parser::Literal(const char* word, int kind, uint32_t c) {
  if (failed_) return;
  if (c != static_cast<uint32_t>(word[counter_++])) {
    Fail(kBadLiteral);
  } else if (word[counter_] == 0) {
    ValueDone();
    Emit(&IParserCallback::OnConstant, kind);
  }
}

void Parser::LiteralFalse(int, uint32_t c) {
  Literal("false", ConstFalse, c);
}
void Parser::LiteralTrue(int, uint32_t c) {
  Literal("true", ConstTrue, c);
}
void Parser::LiteralNull(int, uint32_t c) {
  Literal("null", ConstNull, c);
}

}  // namespace JSON
