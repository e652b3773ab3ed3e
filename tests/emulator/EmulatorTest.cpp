// The emulator's life: what runs in each of its stages, and what a failure leaves running.
#include "emulator/Emulator.h"

#include <gtest/gtest.h>

#include "emulator/FakeNets.h"
#include "support/TempDir.h"

namespace Network {
namespace {

const NetAddr kAsker = Addr(L"10.0.0.9:7000");
constexpr uint16_t kDiscovery = 16000;
constexpr uint16_t kFirst = 8000;  // control ports of the units
constexpr uint16_t kSecond = 8006;
constexpr uint16_t kThird = 8016;

constexpr char kThreeUnits[] =
    R"({"AddrStr":"127.0.0.5","BroadcastPort":16000,)"
    R"("units":[{"UnitId":"a"},{"UnitId":"b","UnitType":"QZ820"},{"UnitId":"c"}]})";

class EmulatorTest : public testing::Test {
 protected:
  void Make(const char* settings) {
    dir_.Write("emu.json", settings);
    emulator_ = std::make_unique<Emulator>(nets_.Factory(), dir_.Wide("emu.json"));
  }

  FakeNets nets_;
  TempDir dir_;
  std::unique_ptr<Emulator> emulator_;
};

TEST_F(EmulatorTest, HearsFromStartToItsEndAndItsUnitsUntilStop) {
  Make(kThreeUnits);
  ASSERT_TRUE(emulator_->Init().IsOk());
  for (const uint16_t port : {kFirst, kSecond, kThird, kDiscovery})
    EXPECT_FALSE(nets_.Bound(port)) << port;
  ASSERT_TRUE(emulator_->Start().IsOk());
  EXPECT_EQ(nets_.Bound(kSecond)->Info().BindAddr, Addr(L"127.0.0.5:8006"));
  const auto listener = nets_.Bound(kDiscovery);
  ASSERT_TRUE(listener);
  EXPECT_EQ(listener->Info().BindAddr, Addr(L"127.0.0.5:16000"));
  EXPECT_FALSE(listener->Info().Broadcast);
  EXPECT_EQ(listener->Info().MaxPacketSize, 1432u);

  // The units hear a broadcast in their order, so they number their answers in it.
  nets_.Tell(kDiscovery, JsonMsgDevFind(), kAsker);
  std::map<std::wstring, uint32_t> numbers;
  while (numbers.size() < 3) {
    const auto info = nets_.NextAnswer<JsonMsgDevInfo>(kFirst, kAsker);
    ASSERT_TRUE(info);
    numbers[info->unit_id] = info->msg_id;
  }
  EXPECT_LT(numbers[L"a"], numbers[L"b"]);
  EXPECT_LT(numbers[L"b"], numbers[L"c"]);

  ASSERT_TRUE(emulator_->Stop().IsOk());
  EXPECT_EQ(nets_.Open(), std::vector{listener});
  nets_.Tell(kDiscovery, JsonMsgDevFind(), kAsker);
  ASSERT_TRUE(emulator_->Stop().IsOk());
  emulator_.reset();
  EXPECT_TRUE(nets_.Open().empty());
}

// The user has to learn what the machine has no room for or a unit can't do, and that the start has
// failed.
TEST_F(EmulatorTest, AFailedInitNamesWhatFailedAndLeavesNothing) {
  const std::pair<size_t, const wchar_t*> table[] = {
      {0, L"control network"},
      {1, L"unit \"a\""},
      {2, L"unit \"b\""},
      {9, L"Sample freq 96000 is not supported"},
  };
  for (const auto& [room, words] : table) {
    nets_.made = 0;
    nets_.room = room;
    Make(R"({"units":[{"UnitId":"a"},{"UnitId":"b","SampleFreq":96000},{"UnitId":"c"}]})");
    {
      const ErrInfo err = emulator_->Init();
      EXPECT_FALSE(err.IsOk());
      EXPECT_EQ(err.Code(), room < 9 ? static_cast<uint32_t>(FakeNets::kNoRoom) : 0u);
    }
    EXPECT_NE(Log().TryTake(words), L"") << WideToUtf8(words);
    EXPECT_TRUE(nets_.Open().empty());
    EXPECT_TRUE(emulator_->Stop().IsOk());
  }
  EXPECT_EQ(nets_.made, 3u) << "the control network, and one for a and b";
}

// Whatever can't start, all units have gone when Start returns, and its failure is what it returns.
TEST_F(EmulatorTest, AFailedStartEndsAllUnits) {
  for (const uint16_t port : {kFirst, kThird, kDiscovery}) {
    nets_.failPort = port;
    Make(kThreeUnits);
    ASSERT_TRUE(emulator_->Init().IsOk());
    { EXPECT_EQ(emulator_->Start().Text(), L"open failed") << port; }
    EXPECT_NE(Log().TryTake(L"ErrStr=open failed"), L"");
    EXPECT_TRUE(nets_.Open().empty()) << port;
    EXPECT_TRUE(emulator_->Stop().IsOk());
  }
}

// Settings that are taken in and yet do nothing good would leave a user to search for hours.
TEST_F(EmulatorTest, OddSettingsAreToldOnce) {
  Make(R"({"AddrStr":"localhost","BasePort":65534,"BroadcastPort":-1,"Address":1,"units":[{},)"
       R"({"UnitId":"b","Mode":5,"BasePort":9000},{"UnitId":"c","UnitType":"","Speed":0}]})");
  ASSERT_TRUE(emulator_->Init().IsOk());
  const wchar_t* const expected[] = {
      L"left out of the file: Address, units[1].BasePort",
      L"AddrStr \"localhost\" is no IPv4 address",
      L"BroadcastPort -1 isn't within",
      L"units[0] (emulator1): ports 65534 to 65536 aren't all within",
      L"units[1] (b): ports 65540 to 65542 aren't all within",
      L"units[1] (b): Mode 5 is none of",
      L"units[2] (c): ports 65546 to 65546 aren't all within",
      L"units[2] (c): Speed isn't above 0",
  };
  for (const wchar_t* words : expected)
    EXPECT_EQ(Log().Count(words), 1u) << WideToUtf8(words);
  EXPECT_EQ(Log().Count(L"SETTINGS: "), std::size(expected));
}

}  // namespace
}  // namespace Network
