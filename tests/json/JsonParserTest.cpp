#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "json/ParsingBuilder.h"
#include "platform/text.h"

using namespace JSON;

namespace {

// Writes down each event: { } [ ] and their commas, k and s in front of the characters of a key and
// a string, "." behind them, cK, iN, dN, and !N for an error. Never throws, so the parser goes on.
class Recorder : public IParserCallback {
 public:
  std::string events;

  void OnReset() override { events += 'R'; }
  void OnError(int code) override { events += '!' + std::to_string(code); }
  void OnObjectBegin() override { events += '{'; }
  void OnObjectNext() override { events += ";"; }
  void OnObjectEnd() override { events += '}'; }
  void OnArrayBegin() override { events += '['; }
  void OnArrayNext() override { events += ','; }
  void OnArrayEnd() override { events += ']'; }
  void OnKeyBegin() override { events += 'k'; }
  void OnKeyChar(uint32_t c) override { Add(c); }
  void OnKeyEnd() override { events += '.'; }
  void OnStringBegin() override { events += 's'; }
  void OnStringChar(uint32_t c) override { Add(c); }
  void OnStringEnd() override { events += '.'; }
  void OnConstant(int kind) override { events += 'c' + std::to_string(kind); }
  void OnInteger(int64_t value) override { events += 'i' + std::to_string(value); }
  void OnDouble(double value) override { events += 'd' + std::to_string(value); }

 private:
  void Add(uint32_t c) {
    if (c < 127 && c >= 32) {
      events += static_cast<char>(c);
    } else {
      events += '<' + std::to_string(c) + '>';
    }
  }
};

// The events of `text` fed whole, with its end, whatever the parser says on the way.
std::string Events(const std::string& text) {
  Recorder recorder;
  Parser parser(&recorder);
  for (const char c : text)
    parser.ParseChar(static_cast<uint8_t>(c));
  parser.Finish();
  EXPECT_EQ(parser.HasError(), recorder.events.find('!') != std::string::npos) << text;
  return recorder.events;
}

// The words of the first error when the whole text and its end are fed; "" for none.
std::string FirstError(const std::string& text) {
  const std::string events = Events(text);
  const size_t mark = events.find('!');
  return mark == std::string::npos ? "" : ErrorText(std::stoi(events.substr(mark + 1)));
}

std::wstring BuildString(const std::vector<uint32_t>& chars) {
  Value root;
  ParsingBuilder builder(&root);
  Parser parser(&builder);
  for (const uint32_t c : chars)
    parser.ParseChar(c);
  return root.AsWString();
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

TEST(JsonParser, EventsComeInTheOrderOfTheText) {
  const std::pair<const char*, const char*> table[] = {
      {" { } ", "{}"},
      {"{\"a\":1,\"b\":[true,false , null]}", "{ka.i1;kb.[c3,c2,c1]}"},
      {"[-5,[1.5],\"x\\n\\u00E9\"]", "[i-5,[d1.500000],sx<10><233>.]"},
      {"{\"\\u0000\":1e+3 }", "{k<0>.d1000.000000}"},
      // A number ends with what stands behind it, and is told before that.
      {"[[1],2]", "[[i1],i2]"},
      {"7", "i7"},
      {"-1E-1\n", "d-0.100000"},
      {"9223372036854775807 ", "i9223372036854775807"},
      {"0.9223372036854775807 ", "d0.922337"},
      {"\"\x7f\"", "s<127>."},
  };
  for (const auto& [text, events] : table)
    EXPECT_EQ(Events(text), events) << text;
}

TEST(JsonParser, EachErrorHasItsPlace) {
  const std::pair<const char*, const char*> table[] = {
      {"", "value expected"},
      {"+1", "value expected"},
      {"\f1", "value expected"},
      {"{} x", "invalid end stream chars"},
      {"[1}", "mismatch or unclosed square brackets"},
      {"[1 }", "comma or right square bracket expected"},
      {"{\"a\":1]", "mismatch or unclosed curly braces"},
      {"{\"a\":1 ]", "comma or right curly brace expected"},
      {"{a:1}", "key string expected"},
      {"{\"a\" 1}", "colon separator expected"},
      {"{\"a\":}", "value expected"},
      {"\"\x1f\"", "invalid character in string"},
      {"\"\\x\"", "invalid escape sequence in string"},
      {"\"\\u12G4\"", "invalid escape sequence in string"},
      {"[-]", "number digit expected"},
      {"1.", "number digit expected"},
      {"1e+", "number digit expected"},
      {"1e5-3 ", "wrong number syntax"},
      {"92233720368547758070 ", "integer digits overflow"},
      {"0.9223372036854775808 ", "fractional digits overflow"},
      {"1e9223372036854775808 ", "exponent digits overflow"},
      {"-01 ", "wrong number syntax"},
      {"1x", "wrong number syntax"},
      {"1,", "invalid comma character"},
      {"nul", "wrong literal character"},
      {"1}", "misplaced extra brace or bracket"},
      {"\"abc", "unclosed string"},
      {"[1", "unclosed/missing brace or bracket"},
  };
  for (const auto& [text, error] : table)
    EXPECT_EQ(FirstError(text), error) << text;
  EXPECT_STREQ(ErrorText(0), "no error");
  EXPECT_STREQ(ErrorText(-1), "unidentified parser error");
}

// A callback that returns from OnError sees the parser go on from the state that it was in, with
// every later character refused.
TEST(JsonParser, BehindAnErrorTheParserStaysInItsStateAndRefuses) {
  // The fraction lacks its digit, yet the comma still ends the number.
  EXPECT_EQ(Events("[1.,2]"), "[!11i1,i2");
  // Two errors for one character: the later one is kept.
  Recorder twice;
  Parser parser(&twice);
  for (const uint32_t c : {'1', '.', 'x'})
    parser.ParseChar(c);
  EXPECT_EQ(twice.events, "!11!15");
  EXPECT_EQ(parser.GetError(), 15u);
  EXPECT_FALSE(parser.ParseChar(' '));
  EXPECT_TRUE(parser.HasError());

  // A literal does nothing more.
  EXPECT_EQ(Events("[trxue,1]"), "[!17");
  // Closing a container reports no end once something has failed.
  EXPECT_EQ(Events("[1 2]"), "[i1!4");
}

TEST(JsonParser, ResetForgetsEverythingOfTheTextBefore) {
  Recorder recorder;
  Parser parser(&recorder);
  EXPECT_FALSE(ParseText(parser, L"{\"a\":[-1.5e-3,\"\\u00"));
  EXPECT_FALSE(ParseText(parser, L"x"));
  EXPECT_EQ(parser.GetError(), 10u);
  parser.Reset();
  EXPECT_FALSE(parser.HasError());
  EXPECT_EQ(parser.GetError(), 0u);
  recorder.events.clear();
  EXPECT_TRUE(ParseText(parser, L"[2,\"\\u0041\"]"));
  EXPECT_EQ(recorder.events, "[i2,sA.]");
}

// Wide characters come as they are: from a text as the two halves of a pair, from a caller of its
// own as one.
TEST(JsonParser, SurrogatesPassAndLongCharactersAreSplit) {
  const std::wstring pair = L"\xd83d\xde00";
  EXPECT_EQ(BuildString({'"', 0x1F600, '"'}), pair);
  EXPECT_EQ(BuildString({'"', 0xD83D, 0xDE00, '"'}), pair);
  EXPECT_EQ(BuildString({'"', 0xDE00, '"'}), L"\xde00");
  EXPECT_EQ(BuildString({'"', 0x10FFFF, '"'}), L"\xdbff\xdfff");
  EXPECT_THROW(BuildString({'"', 0x110000, '"'}), Exception);

  Value root;
  ParsingBuilder builder(&root);
  Parser parser(&builder);
  EXPECT_TRUE(ParseText(parser, L"{\"\\uD83D\\uDE00\":\"\\uD800\"}"));
  EXPECT_EQ(root.Item(pair).AsWString(), L"\xd800");
}

// The parser never sends these; another feeder must not corrupt the tree.
TEST(JsonParser, ABuilderRefusesEventsOutOfOrder) {
  using Feed = void (*)(IParserCallback&);
  const std::pair<Feed, const char*> table[] = {
      {[](auto& b) { b.OnArrayEnd(); }, "stack exhausted"},
      {[](auto& b) { b.OnObjectNext(); }, "stack must not be empty within object"},
      {[](auto& b) { b.OnArrayNext(); }, "stack must not be empty within array"},
      {[](auto& b) { b.OnArrayBegin(), b.OnObjectNext(); }, "internal error"},
      {[](auto& b) { b.OnInteger(1), b.OnStringBegin(); }, "value already assigned"},
      {[](auto& b) { b.OnError(21); }, "unidentified parser error"},
  };
  for (const auto& [feed, text] : table) {
    Value root;
    ParsingBuilder builder(&root);
    try {
      feed(builder);
      ADD_FAILURE() << text;
    } catch (const Exception& error) {
      EXPECT_STREQ(error.what(), text);
    }
  }
}

// A feeder that gives a key no value leaves a key that reaches nothing: told by every access.
TEST(JsonParser, AKeyWithoutAValueReachesNoMember) {
  Value root;
  ParsingBuilder builder(&root);
  builder.OnObjectBegin();
  builder.OnKeyBegin();
  builder.OnKeyEnd();
  builder.OnObjectEnd();
  EXPECT_THROW(root.Find(L""), Exception);
  EXPECT_THROW(root.ItemForWrite(L""), Exception);
  EXPECT_THROW(root.ToWString(), std::exception);
}

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
