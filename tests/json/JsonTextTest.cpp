#include <gtest/gtest.h>

#include <limits>

#include "json/ParsingBuilder.h"
#include "platform/text.h"

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
    return platform::WideToUtf8Lossy(root.ToWString());
  } catch (const Exception& error) {
    return error.what();
  }
}

}  // namespace

TEST(JsonText, TextsGoThroughTheTreeOrSayWhatIsWrong) {
  const std::pair<const wchar_t*, const char*> table[] = {
      {L"", "incomplete"},
      {L"{\"b\":1,\"a\":[true,null,\"x\"]}", "{\"a\":[true,null,\"x\"],\"b\":1}"},
      {L"{\"a\":1,\"a\":2}", "{\"a\":2}"},
      {L"123", "incomplete"},
      {L"-0.0 ", "-0.00000"},
      {L"1e3 ", "1000.00"},
      {L"-9223372036854775808 ", "-9223372036854775808"},
      {L"9223372036854775808 ", "integer digits overflow"},
      {L"-9223372036854775809 ", "integer digits overflow"},
      {L"\"\\u001F\\/\"", "\"\\u001F\\/\""},
      // Far beyond what a double holds: no overflow on the way, and text that reads back.
      {L"[1.55e-9223372036854775807]", "[0.00000]"},
      {L"[1e999]", "[1.79769e+308]"},
      {L"[0e400]", "[0.00000]"},
  };
  for (const auto& [text, expected] : table)
    EXPECT_EQ(RoundTrip(text), expected);
}

TEST(JsonText, DoublesKeepSixDigitsAndThePoint) {
  const std::pair<double, const char*> table[] = {
      {0.5, "0.500000"},
      {48000.0, "48000.0"},
      {1234567.0, "1.23457e+006"},
      {0.00001234, "1.23400e-005"},
      {0.0001234, "0.000123400"},
      {999999.5, "1.00000e+006"},
      {123456.0, "123456."},
      {-2.5, "-2.50000"},
      {std::numeric_limits<double>::infinity(), "1.79769e+308"}};
  for (const auto& [value, expected] : table) {
    Value node;
    node.SetDouble(value);
    EXPECT_EQ(platform::WideToUtf8Lossy(node.ToWString()), expected);
  }
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
