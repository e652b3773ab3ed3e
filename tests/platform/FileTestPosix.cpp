// What only a system with POSIX files can show.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/errors.h"
#include "platform/file.h"
#include "support/TempDir.h"

namespace {

class FilePosix : public testing::Test {
 protected:
  TempDir dir_;
};

}  // namespace

TEST_F(FilePosix, APathThatIsNoTextFails) {
  const wchar_t lone[] = {0xD800, 0};
  EXPECT_EQ(platform::PathRemove(lone), platform::kNoTranslation);
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
