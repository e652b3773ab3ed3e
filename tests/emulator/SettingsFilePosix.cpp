// A settings path that is no file but would block who opens it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "emulator/EmuSettings.h"
#include "emulator/SettingsFile.h"
#include "support/CapturedLog.h"

TEST(EmuSettings, PipeInPlaceOfTheFileIsAFailureAndStays) {
  SettingsFile file;
  ASSERT_EQ(mkfifo(file.NativePath().c_str(), 0600), 0);
  Log().Allow(file.Path());

  Network::EmuSettings settings;
  EXPECT_FALSE(settings.FromFile(file.Path()).IsOk());
  EXPECT_FALSE(settings.ToFile(file.Path()).IsOk());
  EXPECT_TRUE(std::filesystem::is_fifo(file.NativePath()));
}
