#include <gtest/gtest.h>

#include "json/TextFault.h"

// A settings file that can't be read names the place, and text after its value is never overlooked.
TEST(JsonTextFault, NamesTheFirstCharacterThatDoesNotFit) {
  struct Row {
    const wchar_t* text;
    const char* what;
    uint64_t line, column;
  };
  const Row rows[] = {
      {L"", "value expected", 1, 1},
      {L" \n\t\n", "value expected", 3, 1},
      {L"{", "key string expected", 1, 2},
      {L"{\r\n  \"a\": 1,\r\n  \"b\" 2}", "colon separator expected", 3, 7},
      {L"{\"\xd83d\xde00\":x}", "value expected", 1, 6},
      {L"{}}", "invalid end stream chars", 1, 3},
      {L"{\"a\":1}\n\n  \"units\"", "invalid end stream chars", 3, 3},
      {L"\xfeff{}", "value expected", 1, 1},
      {L"[1", "unclosed/missing brace or bracket", 1, 3},
      {L"[\"ab", "unclosed string", 1, 5},
      {L"[nul", "wrong literal character", 1, 5},
      {L"[[[]]]", "too many containers inside one another", 1, 3},
  };
  for (const Row& row : rows) {
    const auto fault = JSON::FindTextFault(row.text, 2);
    ASSERT_TRUE(fault) << row.what;
    EXPECT_STREQ(fault->what, row.what);
    EXPECT_EQ(fault->line, row.line) << row.what;
    EXPECT_EQ(fault->column, row.column) << row.what;
  }
  EXPECT_TRUE(JSON::FindTextFault(std::wstring_view(L"{}\0}", 4), 2));
  EXPECT_FALSE(JSON::FindTextFault(L" \r\n{\"a\":[1,true]} \t\r\n", 2));
  EXPECT_FALSE(JSON::FindTextFault(L"123", 2));
}
