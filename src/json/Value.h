// A node of a JSON tree, and what the JSON library throws. A tree belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "json/KeyIndex.h"

namespace JSON {

// Holds its message inside and allocates nothing; a message is cut at 255 characters.
class Exception : public std::exception {
 public:
  explicit Exception(const char* text) noexcept;
  const char* what() const noexcept override { return text_; }

 private:
  char text_[256];
};

enum Type : int32_t { Undefined, Constant, Object, Array, Integer, Double, String };
enum ConstantKind : int32_t { ConstNull = 1, ConstFalse = 2, ConstTrue = 3 };

// A value class: copies are deep. References that the accessors return stay valid until the
// container next grows. The depth of a tree is limited by memory alone, so destroying one never
// recurses. All failures are thrown JSON::Exceptions that leave the node as it was.
class Value {
 public:
  Value() = default;
  Value(const Value&) = default;
  Value(Value&&) noexcept = default;
  Value& operator=(const Value&);
  Value& operator=(Value&&) noexcept;
  virtual ~Value() {
    if (!members_.empty() || !elements_.empty()) DropChildren();
  }

  int32_t GetType() const { return type_; }
  void Reset();  // back to Undefined

  int32_t AsInt() const;
  uint32_t AsUInt() const;
  double AsDouble() const;  // also of an Integer
  const std::wstring& AsWString() const;

  // Arrays alone.
  uint64_t Size() const;
  const Value& At(uint64_t index) const;

  // Objects alone. Item throws on a missing key, Find gives null.
  const Value& Item(const wchar_t* key) const;
  const Value& Item(const std::wstring& key) const;
  const Value* Find(const wchar_t* key) const;
  const Value* Find(const std::wstring& key) const;
  std::vector<std::wstring> Keys() const;  // in ascending order

  // A node of another kind is reset first.
  void SetInt(int32_t value);
  void SetUInt(uint32_t value);
  void SetInt64(int64_t value);
  void SetDouble(double value);
  void SetString(const std::wstring& value);
  void SetString(const wchar_t* value);

  // Make an Undefined node an Array or an Object, and the element or member if it is missing.
  Value& AtForWrite(uint64_t index);
  Value& ItemForWrite(const wchar_t* key);
  Value& ItemForWrite(const std::wstring& key);

  // Appends the compact text of the tree; throws when a node has no text form.
  std::wstring& GenerateText(std::wstring& out) const;
  std::wstring ToWString() const;

 private:
  friend class ParsingBuilder;

  std::vector<Value>& Children() { return type_ == Object ? members_ : elements_; }
  std::vector<Value>& Spare() { return type_ == Object ? elements_ : members_; }
  void DropChildren() noexcept;
  void BecomeScalar(Type type);
  const Value* FindMember(std::wstring_view key) const;
  const Value& MemberOf(std::wstring_view key) const;
  Value& MakeMember(std::wstring_view key);

  // A node uses those of its kind alone; the others are empty.
  int32_t type_ = Undefined;
  int32_t constant_ = 0;
  std::wstring string_;
  KeyIndex keys_;  // key to index into members_
  std::vector<Value> members_;
  std::vector<Value> elements_;
  double real_ = 0.0;
  int64_t integer_ = 0;
};

}  // namespace JSON
