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

}  // namespace
}  // namespace ctl
