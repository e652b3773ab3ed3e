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

// The container's first child is made before it is known whether the container is empty; Leave
// takes it away again.
void ParsingBuilder::Enter(std::vector<Value>& children) {
  stack_.push_back(current_);
  children.emplace_back();
  current_ = &children.back();
}

void ParsingBuilder::Leave() {
  if (stack_.empty()) throw Exception("stack exhausted");
  const bool untouched = current_->type_ == Undefined;
  current_ = stack_.back();
  stack_.pop_back();
  std::vector<Value>& children =
      current_->type_ == Object ? current_->members_ : current_->elements_;
  if (untouched && children.size() == 1) children.clear();
}

void ParsingBuilder::OnObjectBegin() {
  Assign(Object);
  Enter(current_->members_);
}

void ParsingBuilder::OnArrayBegin() {
  Assign(Array);
  Enter(current_->elements_);
}

void ParsingBuilder::OnObjectNext() {
  Value& top = Top(kOutsideObject);
  if (top.type_ != Object) throw Exception("internal error");
  top.members_.emplace_back();
  current_ = &top.members_.back();
}

void ParsingBuilder::OnArrayNext() {
  Value& top = Top(kOutsideArray);
  if (top.type_ != Array) throw Exception("internal error");
  top.elements_.emplace_back();
  current_ = &top.elements_.back();
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

void ParsingBuilder::OnKeyEnd() {
  Value& top = Top(kOutsideObject);
  if (top.type_ != Object || top.members_.empty()) throw Exception("internal error");
  // A key that comes twice reaches its later value.
  top.keys_[key_] = top.members_.size() - 1;
}

void ParsingBuilder::OnStringBegin() {
  Assign(String);
}
void ParsingBuilder::OnStringChar(uint32_t c) {
  AppendChar(current_->string_, c);
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
