// Builds a tree from the events of a parser. Throws JSON::Exception with the parser's words on the
// first error of the text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "json/Parser.h"
#include "json/Value.h"

namespace JSON {

class ParsingBuilder : public IParserCallback {
 public:
  // Resets `root`, which isn't owned and must outlive the builder. Null: no events may come.
  explicit ParsingBuilder(Value* root);

  void OnReset() override;
  void OnError(int code) override;
  void OnObjectBegin() override;
  void OnObjectNext() override;
  void OnObjectEnd() override;
  void OnArrayBegin() override;
  void OnArrayNext() override;
  void OnArrayEnd() override;
  void OnKeyBegin() override;
  void OnKeyChar(uint32_t c) override;
  void OnKeyChars(std::wstring_view chars) override;
  void OnKeyEnd() override;
  void OnStringBegin() override;
  void OnStringChar(uint32_t c) override;
  void OnStringChars(std::wstring_view chars) override;
  void OnStringEnd() override {}
  void OnConstant(int kind) override;
  void OnInteger(int64_t value) override;
  void OnDouble(double value) override;

 private:
  void Assign(Type type);
  Value& Top(const char* ifEmpty);
  void AddTo(std::vector<Value>& children);
  void Leave();

  Value* current_;             // the node that the next value goes into
  std::vector<Value*> stack_;  // the open containers
  std::wstring key_;
};

}  // namespace JSON
