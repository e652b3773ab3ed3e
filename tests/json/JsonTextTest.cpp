#include <gtest/gtest.h>

#include <limits>

#include "json/ParsingBuilder.h"

using namespace JSON;

namespace {

// The compact text of what `text` parses to; "incomplete" when it ends early, and the parser's
// words when it is wrong.
std::string RoundTrip(const std::wstring& text) {
  try {
    Value root;
    ParsingBuilder builder(&root);
    Parser parser(&builder);
    if (!ParseText(parser, text)) return "incomplete";
    const std::wstring out = root.ToWString();
    return std::string(out.begin(), out.end());
  } catch (const Exception& error) {
    return error.what();
  }
}

std::string DoubleText(double value) {
  Value node;
  node.SetDouble(value);
  const std::wstring text = node.ToWString();
  return std::string(text.begin(), text.end());
}

}  // namespace

TEST(JsonText, TextsGoThroughTheTreeOrSayWhatIsWrong) {
  const std::pair<const wchar_t*, const char*> table[] = {
      {L"", "incomplete"},
      {L"{}", "{}"},
      {L"[ ]", "[]"},
      {L"{\"b\":1,\"a\":[true,null,\"x\"]}", "{\"a\":[true,null,\"x\"],\"b\":1}"},
      {L"{\"a\":1,\"a\":2}", "{\"a\":2}"},
      {L"{\"a\":1} trailing", "{\"a\":1}"},
      {L"[1,]", "value expected"},
      {L"{\"a\":1,}", "key string expected"},
      {L"[1 2]", "comma or right square bracket expected"},
      {L"[1}", "mismatch or unclosed square brackets"},
      {L"{\"a\":1]", "mismatch or unclosed curly braces"},
      {L"[true}", "comma or right square bracket expected"},
      {L"01 ", "wrong number syntax"},
      {L"-x", "number digit expected"},
      {L"[1.,", "number digit expected"},
      {L"1e ", "number digit expected"},
      {L"123", "incomplete"},
      {L"123 ", "123"},
      {L"-0 ", "0"},
      {L"-0.0 ", "-0.00000"},
      {L"1e3 ", "1000.00"},
      {L"-9223372036854775808 ", "-9223372036854775808"},
      {L"9223372036854775808 ", "integer digits overflow"},
      {L"-9223372036854775809 ", "integer digits overflow"},
      {L"\"\\u001F\\/\"", "\"\\u001F\\/\""},
      {L"\"\\u00e9\"", "invalid escape sequence in string"},
      {L"\"\t\"", "invalid character in string"},
      {L"tru ", "wrong literal character"},
      {L"1]", "misplaced extra brace or bracket"},
      {L"1,", "invalid comma character"},
      // Far beyond what a double holds: no overflow on the way, and text that reads back.
      {L"[1.55e-9223372036854775807]", "[0.00000]"},
      {L"[1e999]", "[1.79769e+308]"},
      {L"[0e400]", "[0.00000]"},
  };
  for (const auto& [text, expected] : table) {
    EXPECT_EQ(RoundTrip(text), expected) << std::string(text, text + wcslen(text));
  }
}

TEST(JsonText, DoublesKeepSixDigitsAndThePoint) {
  const std::pair<double, const char*> table[] = {
      {1.0, "1.00000"},
      {0.5, "0.500000"},
      {0.0, "0.00000"},
      {48000.0, "48000.0"},
      {100.25, "100.250"},
      {1234567.0, "1.23457e+006"},
      {0.00001234, "1.23400e-005"},
      {0.0001234, "0.000123400"},
      {999999.5, "1.00000e+006"},
      {123456.0, "123456."},
      {-2.5, "-2.50000"},
      {std::numeric_limits<double>::infinity(), "1.79769e+308"}};
  for (const auto& [value, expected] : table)
    EXPECT_EQ(DoubleText(value), expected);
}

// Hundreds of thousands of brackets end in memory, not in a crash of the stack.
TEST(JsonText, DeepNestingIsTornDownWithoutRecursion) {
  Value root;
  ParsingBuilder builder(&root);
  Parser parser(&builder);
  EXPECT_FALSE(ParseText(parser, std::wstring(300'000, L'[')));
  root.Reset();
  EXPECT_EQ(root.GetType(), Undefined);
}
