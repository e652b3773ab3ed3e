#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "support/CapturedLog.h"
#include "support/TempDir.h"
#include "textfiles.h"

// The start would wait for a writer that never comes.
TEST(TextFilesPosix, APipeFailsInsteadOfBlocking) {
  const TempDir dir;
  ASSERT_EQ(mkfifo(dir.File("pipe").c_str(), 0600), 0);
  std::string bytes;
  EXPECT_FALSE(fs::ReadWholeFile(dir.Wide("pipe").c_str(), bytes).IsOk());
  EXPECT_NE(Log().TryTake(L"open error: file \"" + dir.Wide("pipe") + L'"'), L"");
  EXPECT_FALSE(fs::ReplaceWholeFile(dir.Wide("pipe").c_str(), L"x").IsOk());
  EXPECT_NE(Log().TryTake(L"open error: file \"" + dir.Wide("pipe") + L'"'), L"");
}

TEST(TextFilesPosix, AFullDeviceIsAWriteErrorAndStaysADevice) {
  EXPECT_FALSE(fs::WriteWholeFile(L"/dev/full", "x").IsOk());
  EXPECT_NE(Log().TryTake(L"ErrCode=1c ErrStr=write error: file \"/dev/full\""), L"");
  EXPECT_FALSE(fs::ReplaceWholeFile(L"/dev/full", L"x").IsOk());
  EXPECT_NE(Log().TryTake(L"ErrCode=1c ErrStr=write error: file \"/dev/full\""), L"");
}

// A full disk in the middle of the rewrite must cost the new text and not the old one. A limit on
// the size of files stands for the disk.
TEST(TextFilesPosix, AWriteThatFailsHalfWayLeavesTheOldFile) {
  const TempDir dir;
  dir.Write("a", "the old text");
  signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{100, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const std::string text(1000, 'x');
  const bool written = fs::ReplaceWholeFile(dir.Wide("a").c_str(), text.data(), 1000).IsOk();
  setrlimit(RLIMIT_FSIZE, &before);

  EXPECT_FALSE(written);
  EXPECT_EQ(dir.Read("a"), "the old text");
  EXPECT_FALSE(dir.Has("a.new"));
  EXPECT_NE(Log().TryTake(L"ErrStr=write error: file \"" + dir.Wide("a") +
                          L"\" Method=fs::WriteWholeFile"),
            L"");
}

TEST(TextFilesPosix, ReplacingKeepsTheLinkAndThePermissions) {
  using std::filesystem::perms;
  const TempDir dir;
  const perms mode = perms::owner_read | perms::owner_write | perms::group_read;
  std::filesystem::create_directory(dir.File("d"));
  dir.Write("d/target", "old");
  std::filesystem::permissions(dir.File("d/target"), mode);
  std::filesystem::create_symlink("d/target", dir.File("link"));

  EXPECT_TRUE(fs::ReplaceWholeFile(dir.Wide("link").c_str(), L"new").IsOk());
  EXPECT_EQ(dir.Read("d/target"), "new");
  EXPECT_TRUE(std::filesystem::is_symlink(dir.File("link")));
  EXPECT_EQ(std::filesystem::status(dir.File("d/target")).permissions(), mode);
}
