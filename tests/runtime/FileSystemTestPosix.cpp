// What of the file layer can only be brought about on a system with POSIX files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "platform/clock.h"
#include "platform/errors.h"
#include "runtime/Dir.h"
#include "runtime/FileSystem.h"
#include "support/TempDir.h"

// A copied directory may hold names from another system; they must not hide the rest.
TEST(FileSystemPosix, AListingGoesOnAfterANameThatIsNoText) {
  const TempDir dir;
  for (const char* name : {"a", "\xFF", "b", "c\xC3", "d"})
    close(open(dir.File("").append(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  const fs::Dir listing(dir.Wide(), L".*", fs::Dir::kFiles);
  EXPECT_EQ(listing.files->size(), 3u);
  EXPECT_EQ(listing.error, static_cast<int32_t>(platform::kNoMoreFiles));
}

TEST(FileSystemPosix, TimesComeInTheirOrder) {
  const TempDir dir;
  dir.Write("a", "");
  const timespec times[] = {{1'000'000'000, 1}, {2'000'000'000, 2}};  // read, written
  ASSERT_EQ(utimensat(AT_FDCWD, dir.File("a").c_str(), times, 0), 0);
  fs::implFS files;
  const std::unique_ptr<fs::IFile> file(files.Open(dir.Wide("a").c_str(), fs::kRead, 0));
  fs::FileTime created, accessed, modified;
  ASSERT_TRUE(file->GetTimes(&created, &accessed, &modified));
  EXPECT_EQ(accessed.seconds, 1'000'000'000u);
  EXPECT_EQ(modified.seconds, 2'000'000'000u);
  EXPECT_EQ(file->GetModifyTime().nanoseconds, 2u);
  EXPECT_NEAR(created.seconds, static_cast<double>(platform::SystemClock().WallSeconds()), 100);
}

TEST(FileSystemPosix, ALockWaitsUntilItIsFree) {
  const TempDir dir;
  fs::implFS files;
  constexpr uint32_t kBoth = fs::kRead | fs::kWrite | fs::kShareWrite;
  const std::unique_ptr<fs::IFile> one(files.Open(dir.Wide("a").c_str(), kBoth, 0));
  const std::unique_ptr<fs::IFile> two(files.Open(dir.Wide("a").c_str(), kBoth, 0));
  EXPECT_TRUE(one->TryLock(false) && two->TryLock(false)) << "shared locks go together";
  EXPECT_TRUE(two->Unlock() && one->Unlock() && one->Lock(true));
  // Closing another handle of the file must not drop the lock of this one.
  files.Open(dir.Wide("a").c_str(), kBoth, 0)->Close();
  EXPECT_FALSE(two->TryLock(false));
  EXPECT_EQ(two->GetLastError(), platform::kLocked);
  std::atomic<bool> freed{false};
  std::atomic<bool> waits{false};
  bool waited = false;
  std::jthread waiter([&] {
    waits = true;
    waited = two->Lock(true) && freed;
  });
  while (!waits)
    std::this_thread::yield();
  platform::SystemClock().Sleep(20);  // a call that doesn't wait has come back by now
  freed = true;
  EXPECT_TRUE(one->Unlock());
  waiter.join();
  EXPECT_TRUE(waited);
}
