// The emulator's life: order of its steps, and what a failure does to them.
#include "emulator/Emulator.h"

#include <gtest/gtest.h>

#include "emulator/Doubles.h"
#include "emulator/SettingsFile.h"
#include "support/CapturedLog.h"

namespace Network {
namespace {

using Story = std::vector<std::string>;

class EmulatorTest : public testing::Test {
 protected:
  void Make(const char* settings) {
    file_.Write(settings);
    EmulatorParts parts = bench_.EmulatorParts();
    parts.SettingsPath = file_.Path();
    emulator_ = std::make_unique<Emulator>(parts);
    bench_.TakeStory();
  }

  // The lines of the story with `part` in them.
  static Story Only(const Story& story, const std::string& part) {
    Story found;
    for (const std::string& line : story) {
      if (line.find(part) != std::string::npos) found.push_back(line);
    }
    return found;
  }

  Bench bench_;
  SettingsFile file_;
  std::unique_ptr<Emulator> emulator_;
};

constexpr char kTwoUnits[] = R"({"AddrStr":"127.0.0.5","BroadcastPort":16000,)"
                             R"("units":[{"UnitId":"a"},{"UnitId":"b","UnitType":"QZ820"}]})";

TEST_F(EmulatorTest, StartsAndEndsInOrder) {
  Make(kTwoUnits);
  ASSERT_TRUE(emulator_->Init().IsOk());
  EXPECT_EQ(Only(bench_.TakeStory(), "Init"),
            (Story{"a.RtpManager Init", "a.JsonUdpConnect Init", "b.RtpManager Init",
                   "b.JsonUdpConnect Init", "BroadcastCatcher Init"}));
  EXPECT_EQ(bench_.connect->info.BindAddr, Addr(L"127.0.0.5:8006"));
  const JsonUdpInfo& listener = bench_.listener->info;
  EXPECT_EQ(listener.BindAddr, Addr(L"127.0.0.5:16000"));
  EXPECT_FALSE(listener.Broadcast);
  EXPECT_EQ(listener.MaxPacketSize, 1432u);

  ASSERT_TRUE(emulator_->Start().IsOk());
  EXPECT_EQ(bench_.TakeStory(),
            (Story{"a.RtpManager Start", "a.SyncManager Start", "a.JsonUdpConnect Start",
                   "b.RtpManager Start", "b.SyncManager Start", "b.JsonUdpConnect Start",
                   "BroadcastCatcher Start"}));
  ASSERT_TRUE(emulator_->Stop().IsOk());
  EXPECT_EQ(bench_.TakeStory(),
            (Story{"a.SyncManager Stop", "a.RtpManager Stop", "b.SyncManager Stop",
                   "b.RtpManager Stop", "a.JsonUdpConnect Stop", "a.SyncManager gone",
                   "a.RtpManager gone", "a.JsonUdpConnect gone", "audio net gone",
                   "b.JsonUdpConnect Stop", "b.SyncManager gone", "b.RtpManager gone",
                   "b.JsonUdpConnect gone", "audio net gone"}));
  ASSERT_TRUE(emulator_->Stop().IsOk());
  EXPECT_EQ(bench_.TakeStory(), Story{});
  emulator_.reset();
  EXPECT_EQ(bench_.TakeStory(), (Story{"control net gone", "BroadcastCatcher gone"}));
}

TEST_F(EmulatorTest, UnitThatFailsInitEndsTheOthersAndTheListenerNeverComes) {
  Make(R"({"units":[{"UnitId":"a"},{"UnitId":"b","SampleFreq":96000},{"UnitId":"c"}]})");
  { EXPECT_FALSE(emulator_->Init().IsOk()); }
  EXPECT_NE(Log().TryTake(L"Sample freq 96000 is not supported"), L"");
  const Story story = bench_.TakeStory();
  EXPECT_EQ(Only(story, "gone").front(), "a.SyncManager gone");
  EXPECT_EQ(Only(story, "c."), Story{});
  EXPECT_EQ(Only(story, "BroadcastCatcher"), Story{});
  EXPECT_TRUE(emulator_->Stop().IsOk());
  EXPECT_EQ(bench_.TakeStory(), Story{});
}

// Whatever fails in Start, all units are gone behind it and the failure is the one that comes back.
TEST_F(EmulatorTest, FailedStartEndsAllUnits) {
  for (const char* failing : {"a.RtpManager Start", "b.SyncManager Start", "b.JsonUdpConnect Start",
                              "BroadcastCatcher Start"}) {
    Make(kTwoUnits);
    ASSERT_TRUE(emulator_->Init().IsOk());
    bench_.TakeStory();
    bench_.failing = failing;
    { EXPECT_FALSE(emulator_->Start().IsOk()) << failing; }
    EXPECT_NE(Log().TryTake(L"ErrStr=Start failed"), L"") << failing;
    const Story story = bench_.TakeStory();
    EXPECT_EQ(Only(story, "net gone").size(), 2u) << failing;
    EXPECT_EQ(Only(story, "BroadcastCatcher Stop"), Story{});
    EXPECT_TRUE(emulator_->Stop().IsOk());
    EXPECT_EQ(bench_.TakeStory(), Story{}) << failing;
  }
}

}  // namespace
}  // namespace Network
