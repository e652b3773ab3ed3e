#include "sockets/NetAddr.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/text.h"

using Network::NetAddr;

namespace {

NetAddr SomeAddr() {
  NetAddr addr;
  EXPECT_TRUE(addr.SetFromText(L"9.9.9.9:99"));
  return addr;
}

}  // namespace

TEST(NetAddr, GoesToTheSocketCallsAsItsBytes) {
  unsigned char bytes[16];
  NetAddr addr;
  std::memcpy(bytes, &addr, 16);
  uint16_t family = 0;
  std::memcpy(&family, bytes, 2);
  EXPECT_EQ(family, 2);
  EXPECT_EQ(std::memcmp(bytes + 2, "\0\0\xFF\xFF\xFF\xFF\0\0\0\0\0\0\0\0", 14), 0);

  ASSERT_TRUE(addr.SetFromText(L"1.2.3.4:5000"));
  std::memcpy(bytes, &addr, 16);
  EXPECT_EQ(std::memcmp(bytes + 2, "\x13\x88\x01\x02\x03\x04\0\0\0\0\0\0\0\0", 14), 0);
}

// Neither the old address nor a half-read new one is left by a text that is refused.
TEST(NetAddr, TakesFourDecimalPartsAndAPort) {
  const struct {
    std::wstring text;
    std::wstring printed;  // empty: refused
  } cases[] = {
      {L"1.2.3.4:0", L"1.2.3.4"},
      {L"0.0.0.0", L"0.0.0.0"},
      {L"255.255.255.254:65535", L"255.255.255.254:65535"},
      {L"", L""},
      {L"1.2.3.", L""},
      {L"1.2.3.4.5", L""},
      {L"1.2.3.256", L""},
      {L"01.2.3.4", L""},
      {L"1..3.4", L""},
      {L" 1.2.3.4", L""},
      {L"1.2.3.4:", L""},
      {L"-1.2.3.4", L""},
      {L"1.2.3.4:65536", L""},
      {L"1.2.3.4:80x", L""},
      {L"\u0661.2.3.4", L""},
      {{L"1.2.3.4:5\0:6", 11}, L""},
  };
  for (const auto& [text, printed] : cases) {
    SCOPED_TRACE(platform::WideToUtf8Lossy(text));
    NetAddr addr = SomeAddr();
    const bool taken = addr.SetFromText(text);
    EXPECT_EQ(taken ? addr.ToText() : L"", printed);
    EXPECT_TRUE(taken || addr == NetAddr());
  }
}

TEST(NetAddr, HoldsNoAllOnesAddress) {
  NetAddr addr = SomeAddr();
  EXPECT_FALSE(addr.SetFromText(L"255.255.255.255:5000"));
  EXPECT_FALSE(addr.IsDefined());
  EXPECT_EQ(addr.ToText(), L"255.255.255.255:5000");
}

TEST(NetAddr, TakesThePortFromTheArgument) {
  NetAddr addr = SomeAddr();
  EXPECT_TRUE(addr.SetFromTextAndPort(std::wstring(L"1.2.3.4 and more"), 7));
  EXPECT_EQ(addr.ToText(), L"1.2.3.4:7");
  EXPECT_FALSE(addr.SetFromTextAndPort(L"1.2.3.4.5", 6000));
  EXPECT_EQ(addr, NetAddr());
}
