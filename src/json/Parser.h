// Reads JSON text, one character at a time, and reports what it sees to a callback. Keeps no token
// and no text. A parser and its callback serve one document, on one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Parse {

// Takes a text one character at a time.
class IGenericCharParser {
 public:
  virtual ~IGenericCharParser() = default;

  virtual void Reset() = 0;
  virtual bool ParseChar(uint32_t c) = 0;  // false once an error was reported
  virtual void Finish() = 0;               // the end of the text
  virtual bool HasError() = 0;
  virtual bool IsComplete() = 0;  // a whole root value was read
};

}  // namespace Parse

namespace JSON {

// Receives the events of a parser, in the order of the text. Characters come with their escapes
// resolved.
class IParserCallback {
 public:
  virtual ~IParserCallback() = default;

  virtual void OnReset() = 0;
  virtual void OnError(int code) = 0;  // see ErrorText
  virtual void OnObjectBegin() = 0;
  virtual void OnObjectNext() = 0;  // a comma
  virtual void OnObjectEnd() = 0;
  virtual void OnArrayBegin() = 0;
  virtual void OnArrayNext() = 0;
  virtual void OnArrayEnd() = 0;
  virtual void OnKeyBegin() = 0;
  virtual void OnKeyChar(uint32_t c) = 0;
  virtual void OnKeyEnd() = 0;
  virtual void OnStringBegin() = 0;
  virtual void OnStringChar(uint32_t c) = 0;
  virtual void OnStringEnd() = 0;
  virtual void OnConstant(int kind) = 0;  // a ConstantKind
  virtual void OnInteger(int64_t value) = 0;
  virtual void OnDouble(double value) = 0;  // a number with a fraction or an exponent

  // Several characters below 0x10000 at once, the same as OnKeyChar or OnStringChar with each.
  virtual void OnKeyChars(std::wstring_view chars);
  virtual void OnStringChars(std::wstring_view chars);
};

class IParser : public Parse::IGenericCharParser {
 public:
  virtual void SetCallback(IParserCallback* callback) = 0;  // not owned; null skips all events
  virtual IParserCallback* GetCallback() = 0;
  virtual uint32_t GetError() = 0;  // the latest error, 0 for none
};

class Parser;

// Feeds `text` until a root value is complete; what follows it isn't looked at. False when
// the text ends before that or an error was reported. A root that is a number needs a character
// after it. Throws what the callback throws.
bool ParseText(IParser& parser, const std::wstring& text);
bool ParseText(Parser& parser, const std::wstring& text);  // the same, faster

// What an error code means, in English; never null.
const char* ErrorText(int code);

class Parser final : public IParser {
 public:
  explicit Parser(IParserCallback* callback);

  void Reset() override;
  bool ParseChar(uint32_t c) override;
  // Like ParseChar with each of the leading characters of `text` that stand for themselves in a key
  // or string; the result is how many they were, 0 everywhere else in a text.
  size_t TakePlain(std::wstring_view text);
  void Finish() override;
  bool HasError() override { return failed_; }
  bool IsComplete() override { return state_ == &Parser::ExpectEnd; }
  void SetCallback(IParserCallback* callback) override { callback_ = callback; }
  IParserCallback* GetCallback() override { return callback_; }
  uint32_t GetError() override { return error_; }
  size_t Depth() const { return stack_.size(); }  // open containers

 private:
  using State = void (Parser::*)(int charClass, uint32_t c);
  enum class Kind { Object, Array };

  // An open container and how many values it has completed.
  struct Frame {
    Kind kind;
    uint32_t count;
  };

  void ExpectValue(int charClass, uint32_t c);
  void ExpectEnd(int charClass, uint32_t c);
  void ArrayNext(int charClass, uint32_t c);
  void ArrayAfter(int charClass, uint32_t c);
  void ObjectNext(int charClass, uint32_t c);
  void ObjectColon(int charClass, uint32_t c);
  void ObjectAfter(int charClass, uint32_t c);
  void InString(int charClass, uint32_t c);
  void StringEscape(int charClass, uint32_t c);
  void StringUnicode(int charClass, uint32_t c);
  void NumberSign(int charClass, uint32_t c);
  void NumberInteger(int charClass, uint32_t c);
  void NumberAfterInteger(int charClass, uint32_t c);
  void NumberFraction(int charClass, uint32_t c);
  void NumberExponentStart(int charClass, uint32_t c);
  void NumberExponent(int charClass, uint32_t c);
  void LiteralFalse(int charClass, uint32_t c);
  void LiteralTrue(int charClass, uint32_t c);
  void LiteralNull(int charClass, uint32_t c);

  template <typename... Params, typename... Args>
  void Emit(void (IParserCallback::*event)(Params...), Args... args) {
    if (callback_) (callback_->*event)(args...);
  }

  void Fail(int code);
  void ValueDone();
  void CountValue();
  void CloseArray();
  void CloseObject();
  bool CloseContainer(Kind kind);
  void EmitChar(uint32_t c);
  void EmitEscape(uint32_t c);
  void Literal(const char* word, int kind, uint32_t c);
  void ClearNumber();
  bool AccumulateDigit(uint64_t& target, bool allowOneMore, uint32_t c);
  void EndNumber(int charClass);
  void CommaBehindNumber();
  void DeliverNumber();

  IParserCallback* callback_;
  State state_ = &Parser::ExpectValue;
  uint32_t counter_ = 0;  // next letter of a literal, or hex digits read of an escape
  std::vector<Frame> stack_;
  uint64_t integerPart_ = 0;
  uint64_t fractionPart_ = 0;
  uint64_t exponent_ = 0;
  uint32_t fractionDigits_ = 0;
  uint32_t exponentDigits_ = 0;
  bool negative_ = false;
  bool exponentNegative_ = false;
  uint32_t escapeValue_ = 0;
  bool inKey_ = false;
  bool failed_ = false;
  uint32_t error_ = 0;
};

}  // namespace JSON
