// What fuzz/FuzzJson can't see, which holds the dialect against a second reader: the words of what
// the parser reports, and the exact form of what is written.
#include <gtest/gtest.h>

#include <string>

#include "json/ParsingBuilder.h"
#include "json/TextFault.h"
#include "platform/text.h"

using namespace JSON;

namespace {

// The tree of `chars`, each given to the parser alone.
Value Build(const std::vector<uint32_t>& chars) {
  Value root;
  ParsingBuilder builder(&root);
  Parser parser(&builder);
  for (const uint32_t c : chars)
    parser.ParseChar(c);
  return root;
}

// The compact text of what `text` parses to; "incomplete" when it ends early, and the parser's
// words when it is wrong.
std::string RoundTrip(const std::wstring& text) {
  try {
    Value root;
    ParsingBuilder builder(&root);
    Parser parser(&builder);
    if (!ParseText(parser, text)) return "incomplete";
    return platform::WideToUtf8Lossy(root.ToWString());
  } catch (const Exception& error) {
    return error.what();
  }
}

}  // namespace

TEST(JsonParser, ResetForgetsEverythingOfTheTextBefore) {
  Parser parser(nullptr);
  EXPECT_FALSE(ParseText(parser, L"{\"a\":[-1.5e-3,\"\\u00x"));
  EXPECT_EQ(parser.GetError(), 10u);
  parser.Reset();
  EXPECT_EQ(parser.GetError(), 0u);
  // By way of the interface too: other parsers may stand there.
  EXPECT_TRUE(ParseText(static_cast<IParser&>(parser), L"[2,\"\\u0041\"]"));
}

// From a text come the two halves of a pair, from a caller of its own long characters too.
TEST(JsonParser, SurrogatesPassAndLongCharactersAreSplit) {
  EXPECT_EQ(Build({'"', 0x1F600, 0xDE00, 0x10FFFF, '"'}).AsWString(),
            L"\xd83d\xde00\xde00\xdbff\xdfff");
  EXPECT_THROW(Build({'"', 0x110000, '"'}), Exception);
  EXPECT_EQ(RoundTrip(L"{\"\\uD83D\xde00\":\"\\uD83D\\uDE00\"}"),
            "{\"\U0001F600\":\"\U0001F600\"}");
}

// A settings file that can't be read names the place, and text after its value is never overlooked.
TEST(JsonTextFault, NamesTheFirstCharacterThatDoesNotFit) {
  struct Row {
    const wchar_t* text;
    const char* what;
    uint64_t line, column;
  };
  const Row rows[] = {
      {L" \n\t\n", "value expected", 3, 1},
      {L"\f1", "value expected", 1, 1},
      {L"\xfeff{}", "value expected", 1, 1},
      {L"{\"a\":}", "value expected", 1, 6},
      {L"{}}", "invalid end stream chars", 1, 3},
      {L"{\"a\":1}\n\n  \"units\"", "invalid end stream chars", 3, 3},
      {L"[1}", "mismatch or unclosed square brackets", 1, 3},
      {L"[1 }", "comma or right square bracket expected", 1, 4},
      {L"{\"a\":1]", "mismatch or unclosed curly braces", 1, 7},
      {L"{\"a\":1 ]", "comma or right curly brace expected", 1, 8},
      {L"{", "key string expected", 1, 2},
      {L"{\"a\":1,}", "key string expected", 1, 8},
      {L"{\r\n  \"a\": 1,\r\n  \"b\" 2}", "colon separator expected", 3, 7},
      {L"\"\xd83d\xde00\x1f\"", "invalid character in string", 1, 3},
      {L"\"\\x\"", "invalid escape sequence in string", 1, 3},
      {L"\"\\u12e4\"", "invalid escape sequence in string", 1, 6},
      {L"[-]", "number digit expected", 1, 3},
      {L"1.", "number digit expected", 1, 3},
      {L"1e+", "number digit expected", 1, 4},
      {L"92233720368547758070 ", "integer digits overflow", 1, 20},
      {L"0.9223372036854775808 ", "fractional digits overflow", 1, 21},
      {L"1e9223372036854775808 ", "exponent digits overflow", 1, 21},
      {L"-01 ", "wrong number syntax", 1, 3},
      {L"1,", "invalid comma character", 1, 2},
      {L"[nul", "wrong literal character", 1, 5},
      {L"1}", "misplaced extra brace or bracket", 1, 2},
      {L"[\"ab", "unclosed string", 1, 5},
      {L"[1", "unclosed/missing brace or bracket", 1, 3},
      {L"[[[]]]", "too many containers inside one another", 1, 3},
  };
  for (const Row& row : rows) {
    const auto fault = FindTextFault(row.text, 2);
    ASSERT_TRUE(fault) << row.what;
    EXPECT_STREQ(fault->what, row.what);
    EXPECT_EQ(fault->line, row.line) << row.what;
    EXPECT_EQ(fault->column, row.column) << row.what;
  }
  EXPECT_TRUE(FindTextFault(std::wstring_view(L"{}\0}", 4), 2));
  EXPECT_FALSE(FindTextFault(L" \r\n{\"a\":[1,true]} \t\r\n", 2));
  EXPECT_FALSE(FindTextFault(L"123", 2));
}

TEST(JsonText, TextsGoThroughTheTreeOrSayWhatIsWrong) {
  const std::pair<const wchar_t*, const char*> table[] = {
      {L"", "incomplete"},
      {L"{\"b\":1,\"a\":[true,null,\"x\"]} more", "{\"a\":[true,null,\"x\"],\"b\":1}"},
      {L"{\"b\":0,\"a\":1,\"a\":2,\"b\":3,\"c\":[]}", "{\"a\":2,\"b\":3,\"c\":[]}"},
      {L"123", "incomplete"},
      {L"\"a\tb\"", "invalid character in string"},
      {L"-9223372036854775808 ", "-9223372036854775808"},
      {L"-9223372036854775809 ", "integer digits overflow"},
      {L"\"\\u001F\\/\"", "\"\\u001F\\/\""},
      {L"\"\\b\\t\\n\\f\\r\\\"\\\\\"", "\"\\b\\t\\n\\f\\r\\\"\\\\\""},
      // Six digits, and the point always shown.
      {L"-0.0 ", "-0.00000"},
      {L"1e3 ", "1000.00"},
      {L"1234567.0 ", "1.23457e+006"},
      {L"-0.00001234 ", "-1.23400e-005"},
      {L"0.0001234 ", "0.000123400"},
      {L"999999.5 ", "1.00000e+006"},
      {L"123456.0 ", "123456."},
      // Far beyond what a double holds: no overflow on the way, and text that reads back.
      {L"[1.55e-9223372036854775807]", "[0.00000]"},
      {L"[1e999]", "[1.79769e+308]"},
      {L"[0e400]", "[0.00000]"},
  };
  for (const auto& [text, expected] : table)
    EXPECT_EQ(RoundTrip(text), expected);
}

// Hundreds of thousands of levels, or of lists on one level, end in memory, not in a crash of the
// stack.
TEST(JsonText, LargeTreesAreTornDownWithoutRecursion) {
  for (const wchar_t* piece : {L"[{\"a\":", L"[1],"}) {
    std::wstring text = L"[";
    for (int i = 0; i < 300'000; ++i)
      text += piece;
    Value root;
    ParsingBuilder builder(&root);
    Parser parser(&builder);
    EXPECT_FALSE(ParseText(parser, text));
    root.Reset();
    EXPECT_EQ(root.GetType(), Undefined);
  }
}
