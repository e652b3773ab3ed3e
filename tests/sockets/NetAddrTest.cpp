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

TEST(NetAddr, TakesFourDecimalPartsAndAPort) {
  const struct {
    const wchar_t* text;
    const wchar_t* printed;
    uint16_t port;
  } cases[] = {
      {L"1.2.3.4:0", L"1.2.3.4", 0},
      {L"0.0.0.0", L"0.0.0.0", 0},
      {L"255.255.255.254:65535", L"255.255.255.254:65535", 65535},
  };
  for (const auto& c : cases) {
    NetAddr addr = SomeAddr();
    EXPECT_TRUE(addr.SetFromText(c.text)) << platform::WideToUtf8Lossy(c.text);
    EXPECT_TRUE(addr.IsDefined());
    EXPECT_EQ(addr.Port(), c.port);
    EXPECT_EQ(addr.ToText(), c.printed);
  }
}

// Neither the old address nor a half-read new one is left.
TEST(NetAddr, BecomesUndefinedOnAnyOtherText) {
  const wchar_t* texts[] = {
      L"",         L"1.2.3.",        L"1.2.3.4.5",      L"1.2.3.256",   L"1.2.3.1000",
      L"01.2.3.4", L"1.2.3.00",      L"1..3.4",         L" 1.2.3.4",    L"1.2.3.4:",
      L"-1.2.3.4", L"1.2.3.4:65536", L"1.2.3.4:100000", L"1.2.3.4:80x", L"\u0661.2.3.4",
  };
  for (const wchar_t* text : texts) {
    NetAddr addr = SomeAddr();
    EXPECT_FALSE(addr.SetFromText(text)) << platform::WideToUtf8Lossy(text);
    EXPECT_EQ(addr, NetAddr()) << platform::WideToUtf8Lossy(text);
  }
  NetAddr addr = SomeAddr();
  EXPECT_FALSE(addr.SetFromText(nullptr));
  EXPECT_EQ(addr, NetAddr());
  addr = SomeAddr();
  EXPECT_FALSE(addr.SetFromText(std::wstring(L"1.2.3.4:5\0:6", 11)));
  EXPECT_EQ(addr, NetAddr());
}

TEST(NetAddr, HoldsNoAllOnesAddress) {
  NetAddr addr = SomeAddr();
  EXPECT_FALSE(addr.SetFromText(L"255.255.255.255:5000"));
  EXPECT_FALSE(addr.IsDefined());
  EXPECT_EQ(addr.Port(), 5000);
  EXPECT_EQ(addr.ToText(), L"255.255.255.255:5000");
  EXPECT_FALSE(addr.SetFromTextAndPort(L"255.255.255.255", 1));
  EXPECT_FALSE(addr.IsDefined());
}

TEST(NetAddr, TakesThePortFromTheArgument) {
  NetAddr addr = SomeAddr();
  EXPECT_TRUE(addr.SetFromTextAndPort(std::wstring(L"1.2.3.4 and more"), 7));
  EXPECT_EQ(addr.ToText(), L"1.2.3.4:7");
  EXPECT_TRUE(addr.SetFromTextAndPort(L"1.2.3.4", 0x10005));
  EXPECT_EQ(addr.Port(), 5);

  for (const wchar_t* text : {L"", L"1.2.3.4.5", L"1.2.3.400"}) {
    addr = SomeAddr();
    EXPECT_FALSE(addr.SetFromTextAndPort(text, 6000)) << platform::WideToUtf8Lossy(text);
    EXPECT_EQ(addr, NetAddr());
  }
}
