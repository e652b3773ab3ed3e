#include "Columns.h"
#include "Printable.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace ctl {
namespace {

TEST(Printable, NothingFromTheNetworkMovesTheTerminal) {
  const std::pair<std::string, std::string> texts[] = {
      {"evil\x1B[31m\nRED\x7F", "evil\\x1B[31m\\x0ARED\\x7F"},
      {"\xC2\x9B"
       "2J \xE2\x80\xAE"
       "abc\xE2\x81\xA6",
       "\\x9B2J \\u202Eabc\\u2066"},
      {"Grüße \U0001F3A7", "Grüße \U0001F3A7"},
      {"\xFC\xE2\x80", "\\xFC\\xE2\\x80"},
  };
  for (const auto& [raw, shown] : texts)
    EXPECT_EQ(Printable(raw), shown);
  EXPECT_EQ(PrintableCell(std::string(32, 'x')), std::string(32, 'x'));
  EXPECT_EQ(PrintableCell(std::string(33, 'x')), std::string(29, 'x') + "...");
}

TEST(Columns, CountAsTheyLook) {
  const struct {
    std::string text;
    size_t columns;
    std::string cut;  // to four columns
  } texts[] = {{"plain", 5, "plai"},
               {"\u6771\u4eac\u90fd", 6, "\u6771\u4eac"},
               {"a\u6771\u4eac", 5, "a\u6771"},
               {"e\u0301\u0323te\u200b", 3, "e\u0301\u0323te\u200b"},
               {"\U0001F3A7\uAC00\u1161", 4, "\U0001F3A7\uAC00\u1161"},
               {"\033[31m12345\033[0m6", 6, "\033[31m1234\033[0m"},
               {"\xFF\xE6\x9D", 3, "\xFF\xE6\x9D"}};
  for (const auto& row : texts) {
    EXPECT_EQ(Columns(row.text), row.columns) << row.text;
    EXPECT_EQ(CutToColumns(row.text, 4), row.cut);
  }
  std::string marks = "x";
  for (int i = 0; i < 1000; ++i)
    marks += "\u0301";
  EXPECT_LT(PrintableCell(marks).size(), 300U);
}

}  // namespace
}  // namespace ctl
