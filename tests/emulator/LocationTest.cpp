// The place of a failure reads the same on every system, whatever compiler built the program: those
// who read logs, and their scripts, look for these texts. One failure of each floor.
#include <gtest/gtest.h>

#include <utility>

#include "audio/IRtp.h"
#include "control/JsonUdpConnect.h"
#include "emulator/EmuSettings.h"
#include "runtime/textfiles.h"
#include "sockets/NetManager.h"
#include "sockets/UdpSock.h"
#include "support/CapturedLog.h"

namespace Network {
namespace {

TEST(Location, IsTheSameTextOnEverySystem) {
  NetManager net;
  JsonUdpConnect connect(L"unit", &net);
  EmuSettings settings;
  std::string bytes;
  const std::pair<ErrInfo, const wchar_t*> failures[] = {
      {fs::ReadWholeFile(L"no such file", bytes), L"fs::ReadWholeFile File=src\\textfiles"},
      {net.CreateUdpSock()->Send(nullptr, 0, NetAddr()),
       L"Network::UdpSock::Send File=src\\UdpSock"},
      {RtpManagerInfo().IsValid(), L"Network::RtpManagerInfo::IsValid File=src\\IRtp"},
      {connect.Send(nullptr, NetAddr()), L"Network::JsonUdpConnect::Send File=src\\JsonUdpConnect"},
      {settings.FromString(L"nonsense"),
       L"Network::EmuSettings::FromString File=src\\AudioCardEmu"},
  };
  for (const auto& [failure, place] : failures) {
    const std::wstring text = failure.ToString();
    Log().Allow(text);
    const size_t begin = text.find(L" Method=") + 8;
    EXPECT_EQ(text.substr(begin, text.find(L" Line=") - begin), place);
  }
}

}  // namespace
}  // namespace Network
