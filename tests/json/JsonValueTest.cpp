#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <utility>

#include "json/Value.h"

using namespace JSON;

namespace {

// What `access` throws; "nothing" when it throws nothing.
std::string Thrown(const std::function<void()>& access) {
  try {
    access();
  } catch (const Exception& error) {
    return error.what();
  }
  return "nothing";
}

Value MakeInteger(int64_t number) {
  Value value;
  value.SetInt64(number);
  return value;
}

// {"list":[1,"two"],"name":"x"}
Value MakeTree() {
  Value tree;
  tree.ItemForWrite(L"name").SetString(L"x");
  tree.ItemForWrite(L"list").AtForWrite(0).SetInt(1);
  tree.ItemForWrite(L"list").AtForWrite(1).SetString(L"two");
  return tree;
}

constexpr wchar_t kTreeText[] = L"{\"list\":[1,\"two\"],\"name\":\"x\"}";

}  // namespace

// Messages and settings come from outside: each accessor says which kind it missed.
TEST(JsonValue, AccessorsSayWhatKindTheyMissed) {
  const Value fresh;
  EXPECT_EQ(fresh.GetType(), 0);
  const std::pair<std::function<void()>, const char*> onFresh[] = {
      {[&] { fresh.AsInt(); }, "access 'int' value for object with another type"},
      {[&] { fresh.AsUInt(); }, "access 'unsigned int' value for object with another type"},
      {[&] { fresh.AsDouble(); }, "access 'double' value for object with another type"},
      {[&] { fresh.AsWString(); }, "access 'wstring' value for non-string object"},
      {[&] { fresh.Size(); }, "access array[] size for non-array object"},
      {[&] { fresh.At(0); }, "access array[] element for non-array object"},
      {[&] { fresh.Item(L"a"); }, "access object{} item for non-object object"},
      {[&] { fresh.Find(L"a"); }, "access object{} item for non-object object"},
      {[&] { fresh.ToWString(); }, "JSON value undefined: cannot generate text representation"},
  };
  for (const auto& [access, text] : onFresh)
    EXPECT_EQ(Thrown(access), text);

  const Value tree = MakeTree();
  const Value& list = tree.Item(L"list");
  EXPECT_EQ(Thrown([&] { list.At(2); }), "index out of array bounds in array[] element access");
  EXPECT_EQ(Thrown([&] { list.At(std::numeric_limits<uint64_t>::max()); }),
            "index out of array bounds in array[] element access");
  EXPECT_EQ(Thrown([&] { tree.Item(L"nam"); }), "key not found in object{} for item access");
  EXPECT_EQ(tree.Find(L"Name"), nullptr);
  EXPECT_EQ(tree.Find(std::wstring(L"name\0", 5)), nullptr);
  EXPECT_EQ(tree.Find(L"name"), &tree.Item(std::wstring(L"name")));
}

TEST(JsonValue, IntegersAreCheckedNeverCut) {
  EXPECT_EQ(MakeInteger(2147483647).AsInt(), 2147483647);
  EXPECT_EQ(MakeInteger(-2147483648LL).AsInt(), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(MakeInteger(4294967295).AsUInt(), 4294967295u);
  for (const int64_t number : {int64_t{2147483648}, int64_t{-2147483649}})
    EXPECT_EQ(Thrown([&] { MakeInteger(number).AsInt(); }), "overflow 'signed int' value");
  for (const int64_t number : {int64_t{4294967296}, int64_t{-1}})
    EXPECT_EQ(Thrown([&] { MakeInteger(number).AsUInt(); }), "overflow 'unsigned int' value");
  Value real;
  real.SetDouble(3.0);
  EXPECT_EQ(Thrown([&] { real.AsInt(); }), "access 'int' value for object with another type");
  EXPECT_EQ(MakeInteger(3).AsDouble(), 3.0);
}

TEST(JsonValue, WritingMakesContainersAndKeepsTheirKind) {
  Value array;
  array.AtForWrite(20).SetInt(5);
  EXPECT_EQ(array.Size(), 21u);
  // Room for 32: what was made stays where it is.
  const Value* twentieth = &array.At(20);
  array.AtForWrite(31);
  EXPECT_EQ(twentieth, &array.At(20));
  EXPECT_EQ(Thrown([&] { array.ItemForWrite(L"a"); }),
            "access object{} item for non-object object");

  // An index that no memory can hold leaves the array as it was.
  for (const uint64_t index : {uint64_t{1} << 62, std::numeric_limits<uint64_t>::max() - 15,
                               std::numeric_limits<uint64_t>::max()})
    EXPECT_THROW(array.AtForWrite(index), std::exception) << index;
  EXPECT_EQ(array.Size(), 32u);

  Value object = MakeTree();
  EXPECT_EQ(Thrown([&] { object.AtForWrite(0); }), "access array[] element for non-array object");
  EXPECT_EQ(object.ToWString(), kTreeText);
}

TEST(JsonValue, KeysComeOutByTheirCodeUnits) {
  Value object;
  for (const wchar_t* key :
       {L"b", L"input1", L"\u00e9", L"inputs", L"B", L"input", L"", L"\uffff", L"\xd83d\xde00"})
    object.ItemForWrite(key).SetInt(0);
  object.ItemForWrite(std::wstring(L"b\0", 2)).SetInt(1);
  EXPECT_EQ(object.ToWString(),
            L"{\"\":0,\"B\":0,\"b\":0,\"b\\u0000\":1,\"input\":0,\"input1\":0,\"inputs\":0,"
            L"\"\u00e9\":0,\"\xd83d\xde00\":0,\"\uffff\":0}");
  EXPECT_EQ(object.Find(L"input12"), nullptr);
}

// What is written into a tree may stand in that very tree.
TEST(JsonValue, ATreeTakesItsOwnParts) {
  Value tree = MakeTree();
  const Value& alias = tree;
  tree = alias;
  EXPECT_EQ(tree.ToWString(), kTreeText);

  Value copied = MakeTree();
  copied = copied.Item(L"list");
  EXPECT_EQ(copied.ToWString(), L"[1,\"two\"]");

  Value moved = MakeTree();
  moved = std::move(moved.ItemForWrite(L"list"));
  EXPECT_EQ(moved.ToWString(), L"[1,\"two\"]");

  Value text = MakeTree();
  text.SetString(text.Item(L"list").At(1).AsWString());
  EXPECT_EQ(text.AsWString(), L"two");

  // The key is a member's own text, short enough to stand inside the member, and the members move
  // when they grow.
  Value keyed;
  for (int i = 0; i < 16; ++i)
    keyed.ItemForWrite(std::to_wstring(i)).SetString(L"key");
  keyed.ItemForWrite(keyed.Item(L"3").AsWString()).SetInt(1);
  EXPECT_EQ(keyed.Item(L"key").AsInt(), 1);
  EXPECT_EQ(keyed.Item(L"3").AsWString(), L"key");
}

TEST(JsonValue, CopiesAreDeepAndMovesKeepTheNodesInPlace) {
  Value tree = MakeTree();
  Value copy = tree;
  copy.ItemForWrite(L"list").AtForWrite(0).SetInt(2);
  EXPECT_EQ(tree.ToWString(), kTreeText);
  EXPECT_EQ(copy.Item(L"list").At(0).AsInt(), 2);

  const Value* list = &tree.Item(L"list");
  const Value moved = std::move(tree);
  EXPECT_EQ(&moved.Item(L"list"), list);
}
