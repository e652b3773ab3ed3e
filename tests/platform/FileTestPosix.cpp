// What only a system with POSIX files can show.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/errors.h"
#include "platform/file.h"
#include "support/TempDir.h"

namespace {

using platform::Disposition;
using platform::FileHandle;
using platform::OpenOptions;

class FilePosix : public testing::Test {
 protected:
  uint32_t Open(const std::string& name, const OpenOptions& options) {
    FileHandle file = platform::kNoFile;
    const uint32_t error = platform::FileOpen(dir_.Wide(name).c_str(), options, &file, nullptr);
    if (error == 0) platform::FileClose(file);
    return error;
  }

  mode_t Mode(const std::string& name) {
    struct stat info {};
    EXPECT_EQ(lstat(dir_.File(name).c_str(), &info), 0);
    return info.st_mode & 07777;
  }

  const OpenOptions reading_{.read = true};
  const OpenOptions creating_{.write = true, .disposition = Disposition::CreateAlways};
  TempDir dir_;
};

}  // namespace

// A settings file that is a pipe would hang the start for ever.
TEST_F(FilePosix, APipeIsNeverOpened) {
  ASSERT_EQ(mkfifo(dir_.File("pipe").c_str(), 0600), 0);
  EXPECT_EQ(Open("pipe", reading_), platform::kInvalidArgument);
  EXPECT_NE(Open("pipe", creating_), 0u);
}

TEST_F(FilePosix, APathThatIsNoTextFails) {
  const wchar_t lone[] = {0xD800, 0};
  EXPECT_EQ(platform::PathRemove(lone), platform::kNoTranslation);
}

TEST_F(FilePosix, DevicesAreWrittenButNotRead) {
  FileHandle file = platform::kNoFile;
  EXPECT_EQ(platform::FileOpen(L"/dev/zero", reading_, &file, nullptr), platform::kInvalidArgument);
  ASSERT_EQ(platform::FileOpen(L"/dev/full", creating_, &file, nullptr), 0u);
  uint32_t done = 1;
  EXPECT_EQ(platform::FileWrite(file, "x", 1, &done), static_cast<uint32_t>(ENOSPC));
  EXPECT_EQ(done, 0u);
  platform::FileClose(file);
}

TEST_F(FilePosix, AnOwnersFileIsNeitherReadableForOthersNorReachedThroughALink) {
  OpenOptions own = creating_;
  own.ownerOnly = true;
  EXPECT_EQ(Open("own", own), 0u);
  EXPECT_EQ(Mode("own"), 0600u);

  dir_.Write("victim", "keep");
  std::filesystem::create_symlink("victim", dir_.File("link"));
  EXPECT_EQ(Open("link", own), static_cast<uint32_t>(ELOOP));
  EXPECT_EQ(dir_.Read("victim"), "keep");
  EXPECT_EQ(Open("link", creating_), 0u) << "otherwise links are followed";
  EXPECT_EQ(dir_.Read("victim"), "");
}

TEST_F(FilePosix, AnOwnDirectoryIsARealOneThatNobodyElseWrites) {
  ASSERT_EQ(platform::PathMakeDir(dir_.Wide("d").c_str()), 0u);
  EXPECT_EQ(Mode("d"), 0700u);
  EXPECT_EQ(platform::PathCheckOwnDir(dir_.Wide("d").c_str()), 0u);
  std::filesystem::create_directory_symlink("d", dir_.File("link"));
  EXPECT_NE(platform::PathCheckOwnDir(dir_.Wide("link").c_str()), 0u);
  ASSERT_EQ(chmod(dir_.File("d").c_str(), 0777), 0);
  EXPECT_NE(platform::PathCheckOwnDir(dir_.Wide("d").c_str()), 0u);
  EXPECT_EQ(platform::PathCheckOwnDir(dir_.Wide("missing").c_str()), platform::kPathNotFound);
}

// A copied directory may hold names from another system; they must not hide the rest.
TEST_F(FilePosix, AListingGoesOnBehindANameThatIsNoText) {
  const std::string bad = dir_.File("\xFF").string();
  close(open(bad.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  dir_.Write("good", "");
  dir_.Write("also", "");

  FileHandle listing = platform::kNoFile;
  platform::FileEntry entry;
  ASSERT_EQ(platform::ListOpen((dir_.Wide() + L"/*.*").c_str(), &listing, &entry), 0u);
  int untranslated = 0;
  int named = 1;
  for (;;) {
    const uint32_t error = platform::ListNext(listing, &entry);
    if (error == platform::kNoMoreFiles) break;
    ASSERT_TRUE(error == 0 || error == platform::kNoTranslation);
    ++(error == 0 ? named : untranslated);
  }
  platform::ListClose(listing);
  EXPECT_EQ(untranslated, 1);
  EXPECT_EQ(named, 4) << "with . and ..";
}

// The temporary directory and the home often stand on different volumes.
TEST_F(FilePosix, MovesAcrossVolumesByCopying) {
  const std::string other = "/dev/shm/qz-test-" + std::to_string(getpid());
  const std::wstring target = Utf8ToWide(other);
  struct stat here {};
  struct stat there {};
  stat(dir_.Path().c_str(), &here);
  if (stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev) {
    GTEST_SKIP() << "no second volume here";
  }
  dir_.Write("a", "content");
  ASSERT_EQ(chmod(dir_.File("a").c_str(), 0640), 0);
  EXPECT_EQ(platform::PathMove(dir_.Wide("a").c_str(), target.c_str(), {}),
            static_cast<uint32_t>(EXDEV));
  EXPECT_EQ(platform::PathMove(dir_.Wide("a").c_str(), target.c_str(), {.copy = true}), 0u);
  EXPECT_FALSE(dir_.Has("a"));
  struct stat info {};
  ASSERT_EQ(stat(other.c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 7);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
  dir_.Write("b", "");
  EXPECT_EQ(platform::PathMove(dir_.Wide("b").c_str(), target.c_str(), {.copy = true}),
            platform::kAlreadyExists);
  unlink(other.c_str());
}
