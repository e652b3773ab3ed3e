#include "json/Value.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

namespace JSON {

namespace {

// Room for 16 more entries, in steps of 16.
size_t RoomFor(uint64_t index) {
  if (index > std::numeric_limits<uint64_t>::max() - 16) throw std::length_error("array index");
  return static_cast<size_t>((index + 16) & ~uint64_t{15});
}

template <typename Members>
auto& MemberAt(Members& members, uint64_t index) {
  if (index >= members.size()) throw Exception("object not found in object{} for item access");
  return members[static_cast<size_t>(index)];
}

}  // namespace

Exception::Exception(const char* text) noexcept {
  const size_t length = std::min(std::strlen(text), sizeof(text_) - 1);
  std::memcpy(text_, text, length);
  text_[length] = 0;
}

// The children's own destructors would recurse once a level, and a text of brackets alone makes as
// many levels as it has characters. So children are taken out of their nodes first and destroyed in
// a loop, list by list. The lists that still wait are a chain: the first node of each keeps the
// list that comes after it, in the vector that its own kind leaves spare. So this needs no memory,
// which may be what ran out when a tree is dropped.
void Value::DropChildren() noexcept {
  std::vector<Value> waiting;
  const auto takeFrom = [&waiting](Value& node) {
    std::vector<Value>& children = node.Children();
    if (children.empty()) return;
    children.front().Spare() = std::move(waiting);
    waiting = std::move(children);
  };
  takeFrom(*this);
  while (!waiting.empty()) {
    std::vector<Value> doomed = std::move(waiting);
    waiting = std::move(doomed.front().Spare());
    for (Value& child : doomed)
      takeFrom(child);
  }
}

Value& Value::operator=(const Value& other) {
  Value copy(other);
  return *this = std::move(copy);
}

Value& Value::operator=(Value&& other) noexcept {
  // Through a third one: `other` may stand inside this tree.
  Value taken(std::move(other));
  DropChildren();
  type_ = taken.type_;
  constant_ = taken.constant_;
  string_ = std::move(taken.string_);
  keys_ = std::move(taken.keys_);
  members_ = std::move(taken.members_);
  elements_ = std::move(taken.elements_);
  real_ = taken.real_;
  integer_ = taken.integer_;
  return *this;
}

void Value::Reset() {
  *this = Value();
}

int32_t Value::AsInt() const {
  if (type_ != Integer) throw Exception("access 'int' value for object with another type");
  if (integer_ < std::numeric_limits<int32_t>::min() ||
      integer_ > std::numeric_limits<int32_t>::max()) {
    throw Exception("overflow 'signed int' value");
  }
  return static_cast<int32_t>(integer_);
}

uint32_t Value::AsUInt() const {
  if (type_ != Integer) throw Exception("access 'unsigned int' value for object with another type");
  if (integer_ < 0 || integer_ > std::numeric_limits<uint32_t>::max()) {
    throw Exception("overflow 'unsigned int' value");
  }
  return static_cast<uint32_t>(integer_);
}

double Value::AsDouble() const {
  if (type_ == Double) return real_;
  if (type_ == Integer) return static_cast<double>(integer_);
  throw Exception("access 'double' value for object with another type");
}

const std::wstring& Value::AsWString() const {
  if (type_ != String) throw Exception("access 'wstring' value for non-string object");
  return string_;
}

uint64_t Value::Size() const {
  if (type_ != Array) throw Exception("access array[] size for non-array object");
  return elements_.size();
}

const Value& Value::At(uint64_t index) const {
  if (type_ != Array) throw Exception("access array[] element for non-array object");
  if (index >= elements_.size()) {
    throw Exception("index out of array bounds in array[] element access");
  }
  return elements_[static_cast<size_t>(index)];
}

const Value* Value::FindMember(std::wstring_view key) const {
  if (type_ != Object) throw Exception("access object{} item for non-object object");
  const uint64_t* index = keys_.Find(key);
  return index ? &MemberAt(members_, *index) : nullptr;
}

const Value& Value::MemberOf(std::wstring_view key) const {
  const Value* item = FindMember(key);
  if (!item) throw Exception("key not found in object{} for item access");
  return *item;
}

const Value& Value::Item(const wchar_t* key) const {
  return MemberOf(key);
}
const Value& Value::Item(const std::wstring& key) const {
  return MemberOf(key);
}

const Value* Value::Find(const wchar_t* key) const {
  return FindMember(key);
}
const Value* Value::Find(const std::wstring& key) const {
  return FindMember(key);
}

std::vector<std::wstring> Value::Keys() const {
  if (type_ != Object) throw Exception("access object{} keys for non-object object");
  std::vector<std::wstring> keys;
  keys_.ForEach([&](std::wstring_view key, uint64_t) { keys.emplace_back(key); });
  return keys;
}

// A node that has the kind already keeps its other fields; any other kind is reset first.
void Value::BecomeScalar(Type type) {
  if (type_ == type) return;
  if (type_ != Undefined) Reset();
  type_ = type;
}

void Value::SetInt(int32_t value) {
  SetInt64(value);
}
void Value::SetUInt(uint32_t value) {
  SetInt64(value);
}

void Value::SetInt64(int64_t value) {
  BecomeScalar(Integer);
  integer_ = value;
}

void Value::SetDouble(double value) {
  BecomeScalar(Double);
  real_ = value;
}

void Value::SetString(const std::wstring& value) {
  if (type_ == Undefined || type_ == String) {
    string_ = value;
    type_ = String;
  } else {
    std::wstring copy = value;  // `value` may be text of this very tree
    BecomeScalar(String);
    string_ = std::move(copy);
  }
}

void Value::SetString(const wchar_t* value) {
  SetString(std::wstring(value));
}

Value& Value::AtForWrite(uint64_t index) {
  if (type_ == Undefined) type_ = Array;
  if (type_ != Array) throw Exception("access array[] element for non-array object");
  if (index >= elements_.size()) {
    const size_t room = RoomFor(index);
    if (room > elements_.capacity()) elements_.reserve(room);
    elements_.resize(static_cast<size_t>(index) + 1);
  }
  return elements_[static_cast<size_t>(index)];
}

Value& Value::MakeMember(std::wstring_view key) {
  if (type_ == Undefined) type_ = Object;
  if (type_ != Object) throw Exception("access object{} item for non-object object");
  if (const uint64_t* index = keys_.Find(key)) return MemberAt(members_, *index);
  const size_t count = members_.size();
  if (count < members_.capacity()) {
    keys_.Insert(key, count);
  } else {
    const std::wstring copy(key);  // `key` may be text of a member, which moves now
    members_.reserve(RoomFor(count));
    keys_.Insert(copy, count);
  }
  return members_.emplace_back();
}

Value& Value::ItemForWrite(const wchar_t* key) {
  return MakeMember(key);
}
Value& Value::ItemForWrite(const std::wstring& key) {
  return MakeMember(key);
}

}  // namespace JSON
