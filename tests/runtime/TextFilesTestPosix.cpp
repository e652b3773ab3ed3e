#include <gtest/gtest.h>
#include <sys/stat.h>

#include "runtime/textfiles.h"
#include "support/CapturedLog.h"
#include "support/TempDir.h"

// A pipe would keep the start waiting for a writer that never comes; a device has no end, and is
// no file that another could replace.
TEST(TextFilesPosix, WhatIsNoRegularFileFailsInsteadOfBlocking) {
  const TempDir dir;
  ASSERT_EQ(mkfifo(dir.File("pipe").c_str(), 0600), 0);
  std::string bytes;
  for (const std::wstring& path : {dir.Wide("pipe"), std::wstring(L"/dev/zero")}) {
    EXPECT_FALSE(fs::ReadWholeFile(path.c_str(), bytes).IsOk());
    EXPECT_NE(Log().TryTake(L"open error: file \"" + path + L'"'), L"");
  }
  EXPECT_FALSE(fs::ReplaceWholeFile(dir.Wide("pipe").c_str(), L"x").IsOk());
  EXPECT_NE(Log().TryTake(L"open error: file \"" + dir.Wide("pipe") + L'"'), L"");
  EXPECT_FALSE(fs::ReplaceWholeFile(L"/dev/full", L"x").IsOk());
  EXPECT_NE(Log().TryTake(L"ErrCode=1c ErrStr=write error: file \"/dev/full\""), L"");

  // Linux says that it has a page and gives some bytes.
  constexpr wchar_t kShort[] = L"/sys/devices/system/cpu/online";
  if (!std::filesystem::exists(kShort)) return;
  EXPECT_FALSE(fs::ReadWholeFile(kShort, bytes).IsOk());
  EXPECT_NE(Log().TryTake(std::wstring(L"read error: file \"") + kShort), L"");
}

TEST(TextFilesPosix, ReplacingKeepsTheLinkAndThePermissions) {
  using std::filesystem::perms;
  const TempDir dir;
  const perms mode = perms::owner_read | perms::owner_write | perms::group_read;
  std::filesystem::create_directory(dir.File("d"));
  dir.Write("d/target", "old");
  std::filesystem::permissions(dir.File("d/target"), mode);
  std::filesystem::create_symlink("d/target", dir.File("link"));
  std::filesystem::create_hard_link(dir.File("d/target"), dir.File("d/before"));

  EXPECT_TRUE(fs::ReplaceWholeFile(dir.Wide("link").c_str(), L"new").IsOk());
  EXPECT_EQ(dir.Read("d/target"), "new");
  EXPECT_EQ(dir.Read("d/before"), "old") << "replaced, not overwritten";
  EXPECT_TRUE(std::filesystem::is_symlink(dir.File("link")));
  EXPECT_EQ(std::filesystem::status(dir.File("d/target")).permissions(), mode);
}
