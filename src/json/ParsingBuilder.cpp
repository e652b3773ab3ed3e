#include "json/ParsingBuilder.h"

namespace JSON {

namespace {

void AppendChar(std::wstring& text, uint32_t c) {
  if (c >= 0x110000) throw Exception("illegal UTF-32 character");
  if (c >= 0x10000) {
    c -= 0x10000;
    text += static_cast<wchar_t>(0xD800 + (c >> 10));
    c = 0xDC00 + (c & 0x3FF);
  }
  text += static_cast<wchar_t>(c);
}

constexpr char kOutsideObject[] = "stack must not be empty within object";
constexpr char kOutsideArray[] = "stack must not be empty within array";

}  // namespace

ParsingBuilder::ParsingBuilder(Value* root) : current_(root) {
  if (current_) current_->Reset();
}

void ParsingBuilder::OnReset() {
  key_.clear();
  stack_.clear();
  if (current_) current_->Reset();
}

void ParsingBuilder::OnError(int code) {
  throw Exception(ErrorText(code));
}

void ParsingBuilder::Assign(Type type) {
  if (current_->type_ != Undefined) throw Exception("value already assigned");
  current_->type_ = type;
}

Value& ParsingBuilder::Top(const char* ifEmpty) {
  if (stack_.empty()) throw Exception(ifEmpty);
  return *stack_.back();
}

// The list of children starts with room for one and grows fast up to 16: texts that nest deeply
// have one child a level, and messages a dozen.
void ParsingBuilder::AddTo(std::vector<Value>& children) {
  const size_t count = children.size();
  if (count != 0 && count < 16 && count == children.capacity()) children.reserve(4 * count);
  current_ = &children.emplace_back();
}

// The container's first child is made before it is known whether the container is empty; Leave
// takes it away again.
void ParsingBuilder::OnObjectBegin() {
  Assign(Object);
  stack_.push_back(current_);
  AddTo(current_->members_);
}

void ParsingBuilder::OnArrayBegin() {
  Assign(Array);
  stack_.push_back(current_);
  AddTo(current_->elements_);
}

void ParsingBuilder::Leave() {
  if (stack_.empty()) throw Exception("stack exhausted");
  const bool untouched = current_->type_ == Undefined;
  current_ = stack_.back();
  stack_.pop_back();
  std::vector<Value>& children = current_->Children();
  if (untouched && children.size() == 1) children.clear();
  current_->keys_.Settle();
}

void ParsingBuilder::OnObjectNext() {
  Value& top = Top(kOutsideObject);
  if (top.type_ != Object) throw Exception("internal error");
  AddTo(top.members_);
}

void ParsingBuilder::OnArrayNext() {
  Value& top = Top(kOutsideArray);
  if (top.type_ != Array) throw Exception("internal error");
  AddTo(top.elements_);
}

void ParsingBuilder::OnObjectEnd() {
  Leave();
}
void ParsingBuilder::OnArrayEnd() {
  Leave();
}

void ParsingBuilder::OnKeyBegin() {
  key_.clear();
}
void ParsingBuilder::OnKeyChar(uint32_t c) {
  AppendChar(key_, c);
}

void ParsingBuilder::OnKeyChars(std::wstring_view chars) {
  key_.append(chars);
}

void ParsingBuilder::OnKeyEnd() {
  Value& top = Top(kOutsideObject);
  if (top.type_ != Object || top.members_.empty()) throw Exception("internal error");
  // Of a key that comes twice the later value is reached.
  top.keys_.Append(key_, top.members_.size() - 1);
}

void ParsingBuilder::OnStringBegin() {
  Assign(String);
}
void ParsingBuilder::OnStringChar(uint32_t c) {
  AppendChar(current_->string_, c);
}

void ParsingBuilder::OnStringChars(std::wstring_view chars) {
  current_->string_.append(chars);
}

void ParsingBuilder::OnConstant(int kind) {
  Assign(Constant);
  current_->constant_ = kind;
}

void ParsingBuilder::OnInteger(int64_t value) {
  Assign(Integer);
  current_->integer_ = value;
}

void ParsingBuilder::OnDouble(double value) {
  Assign(Double);
  current_->real_ = value;
}

}  // namespace JSON
