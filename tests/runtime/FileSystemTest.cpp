#include "runtime/FileSystem.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "platform/errors.h"
#include "platform/text.h"
#include "support/TempDir.h"

namespace {

class FileSystemTest : public testing::Test {
 protected:
  std::unique_ptr<fs::IFile> Open(const std::string& name, uint32_t mode) {
    return std::unique_ptr<fs::IFile>(fs_.Open(dir_.Wide(name).c_str(), mode, 0));
  }

  std::string ReadAll(fs::IFile& file) {
    char buffer[64];
    uint32_t done = 0;
    EXPECT_TRUE(file.Read(buffer, sizeof(buffer), &done));
    return {buffer, done};
  }

  void WriteText(fs::IFile& file, const std::string& text) {
    uint32_t done = 0;
    EXPECT_TRUE(file.Write(text.data(), static_cast<uint32_t>(text.size()), &done));
    EXPECT_EQ(done, text.size());
  }

  TempDir dir_;
  fs::implFS fs_;
};

}  // namespace

TEST_F(FileSystemTest, AccessModesDecideWhatHappensToTheFile) {
  // Without access nothing is tried, and the error of the operation before stays.
  EXPECT_FALSE(Open("missing", fs::kRead));
  EXPECT_FALSE(Open("missing", 0));
  EXPECT_EQ(fs_.GetLastError(), platform::kFileNotFound);
  EXPECT_FALSE(Open("missing", fs::kWrite | fs::kMustExist));
  EXPECT_EQ(fs_.GetLastError(), platform::kFileNotFound);
  EXPECT_FALSE(dir_.Has("missing"));

  dir_.Write("a", "0123456789");
  EXPECT_EQ(ReadAll(*Open("a", fs::kRead | fs::kTruncate | fs::kMustBeNew)), "0123456789")
      << "reading alone empties nothing, whatever the other bits say";
  EXPECT_FALSE(Open("a", fs::kWrite | fs::kMustBeNew));
  EXPECT_EQ(fs_.GetLastError(), platform::kFileExists);

  WriteText(*Open("a", fs::kWrite), "xy");
  EXPECT_EQ(dir_.Read("a"), "xy23456789");
  WriteText(*Open("a", fs::kWrite | fs::kMustExist | fs::kTruncate), "z");
  EXPECT_EQ(dir_.Read("a"), "z");
  Open("new", fs::kWrite | fs::kMustBeNew);
  EXPECT_TRUE(dir_.Has("new"));

  // A file that may be made tells whether it was there before.
  for (const uint32_t mode : {fs::kWrite, fs::kWrite | fs::kTruncate}) {
    EXPECT_EQ(Open("b" + std::to_string(mode), mode)->GetLastError(), 0u);
    EXPECT_EQ(Open("b" + std::to_string(mode), mode)->GetLastError(), platform::kAlreadyExists);
  }
  EXPECT_EQ(Open("a", fs::kWrite | fs::kMustExist)->GetLastError(), 0u);
}

TEST_F(FileSystemTest, ASecondWriterIsRefusedBeforeItHarmsTheFile) {
  const auto writer = Open("log", fs::kWrite | fs::kTruncate);
  WriteText(*writer, "first");
  EXPECT_FALSE(Open("log", fs::kWrite | fs::kTruncate));
  EXPECT_EQ(fs_.GetLastError(), platform::kBusy);
  EXPECT_EQ(ReadAll(*Open("log", fs::kRead | fs::kShareWrite)), "first");

  // Its bytes would go where nobody finds them.
  EXPECT_FALSE(fs_.Remove(dir_.Wide("log").c_str()));
  EXPECT_EQ(fs_.GetLastError(), platform::kBusy);
  writer->Close();
  EXPECT_TRUE(fs_.Remove(dir_.Wide("log").c_str()));
  EXPECT_FALSE(dir_.Has("log"));
}

TEST_F(FileSystemTest, PositionsSizesAndTheEnd) {
  const auto file = Open("a", fs::kRead | fs::kWrite);
  WriteText(*file, "0123456789");
  uint64_t position = 0;
  const auto tell = [&] {
    EXPECT_TRUE(file->Tell(&position));
    return position;
  };
  EXPECT_TRUE(file->Seek(-3, 2, &position));
  EXPECT_EQ(position, 7u);
  EXPECT_EQ(ReadAll(*file), "789");
  EXPECT_TRUE(file->Seek(2, 0) && file->Seek(2, 1));
  char buffer[2];
  uint32_t done = 0;
  EXPECT_TRUE(file->ReadAt(8, buffer, 2, &done, true));
  EXPECT_EQ(std::string(buffer, done), "89");
  EXPECT_EQ(tell(), 4u) << "the position was to be kept";
  EXPECT_TRUE(file->WriteAt(0, "ab", 2, &done, false));
  EXPECT_EQ(tell(), 2u) << "the position is after the bytes";
  EXPECT_TRUE(file->SetEnd() && file->Flush());
  EXPECT_EQ(dir_.Read("a"), "ab");
}

TEST_F(FileSystemTest, FailuresKeepTheErrorAndGiveAllOnes) {
  const auto file = Open("a", fs::kWrite);
  uint64_t value = 0;
  EXPECT_FALSE(file->Seek(-1, 0, &value));
  EXPECT_EQ(value, ~uint64_t{0});

  char byte = 0;
  uint32_t done = 77;
  EXPECT_FALSE(file->ReadAt(9, &byte, 1, &done, true)) << "it is open for writing alone";
  EXPECT_EQ(done, 0u);
  EXPECT_NE(file->GetLastError(), 0u) << "the way back must not hide the failure";
  EXPECT_TRUE(file->Tell(&value));
  EXPECT_EQ(value, 0u) << "the position was to be kept";

  file->Close();
  EXPECT_EQ(file->GetLastError(), 0u);
  EXPECT_FALSE(file->GetSize(&value));
  EXPECT_EQ(value, ~uint64_t{0});
  EXPECT_EQ(file->GetLastError(), platform::kInvalidHandle);
}

TEST_F(FileSystemTest, LocksExcludeAlsoWithinTheProcess) {
  constexpr uint32_t kBoth = fs::kRead | fs::kWrite | fs::kShareWrite;
  const auto one = Open("a", kBoth);
  const auto two = Open("a", kBoth);
  ASSERT_TRUE(one && two);
  EXPECT_FALSE(Open("a", fs::kWrite)) << "it doesn't share writing";
  EXPECT_TRUE(one->TryLock(false));
  EXPECT_TRUE(two->TryLock(false)) << "shared locks go together";
  EXPECT_FALSE(two->TryLock(true));
  EXPECT_EQ(two->GetLastError(), platform::kLocked);
  EXPECT_TRUE(two->Unlock());

  // Closing another handle of the file must not drop the lock of this one.
  EXPECT_TRUE(one->Unlock());
  EXPECT_TRUE(one->Lock(true));
  Open("a", kBoth)->Close();
  EXPECT_FALSE(two->TryLock(false));
  one->Close();
  EXPECT_TRUE(two->TryLock(true));
}

TEST_F(FileSystemTest, MoveReplacesOnlyWhenTold) {
  dir_.Write("a", "new");
  dir_.Write("b", "old");
  const auto move = [&](uint32_t flags) {
    return fs_.Move(dir_.Wide("a").c_str(), dir_.Wide("b").c_str(), flags) ? 0 : fs_.GetLastError();
  };
  EXPECT_EQ(move(fs::kMoveCopy), platform::kAlreadyExists);
  EXPECT_EQ(dir_.Read("b"), "old");
  EXPECT_EQ(move(fs::kMoveReplace | fs::kMoveFlush), 0u);
  EXPECT_EQ(dir_.Read("b"), "new");
  EXPECT_EQ(move(fs::kMoveReplace), platform::kFileNotFound);
}

TEST_F(FileSystemTest, DirectoriesAreMadeOneLevelAtATimeAndAreNoFiles) {
  EXPECT_TRUE(fs_.MakeDir(dir_.Wide("d").c_str()));
  EXPECT_FALSE(fs_.MakeDir(dir_.Wide("d").c_str()));
  EXPECT_EQ(fs_.GetLastError(), platform::kAlreadyExists);
  EXPECT_FALSE(fs_.MakeDir(dir_.Wide("x/y").c_str()));
  EXPECT_EQ(fs_.GetLastError(), platform::kPathNotFound);
  EXPECT_FALSE(Open("d", fs::kRead) || Open("d", fs::kWrite));
  EXPECT_FALSE(fs_.Remove(dir_.Wide("d").c_str()));
}

TEST_F(FileSystemTest, ReadOnlyIsTheAttributeThatEverySystemHas) {
  std::unique_ptr<fs::IFile> file(fs_.Open(dir_.Wide("a").c_str(), fs::kWrite, fs::kReadOnly));
  WriteText(*file, "the file that is made is still written");
  const auto isReadOnly = [&] {
    return (fs_.GetAttributes(dir_.Wide("a").c_str()) & platform::kAttributeReadOnly) != 0;
  };
  EXPECT_TRUE(isReadOnly());
  EXPECT_TRUE(fs_.SetAttributes(dir_.Wide("a").c_str(), platform::kAttributeNormal));
  EXPECT_FALSE(isReadOnly());
  EXPECT_TRUE(fs_.SetAttributes(dir_.Wide("a").c_str(), platform::kAttributeReadOnly));
  EXPECT_TRUE(isReadOnly());
  EXPECT_EQ(fs_.GetAttributes(dir_.Wide("missing").c_str()), fs::kNoAttributes);
}

TEST_F(FileSystemTest, NarrowPathsAreUtf8) {
  const std::string name = "\xC3\xA9\xF0\x9D\x84\x9E";
  {
    std::unique_ptr<fs::IFile> file(fs_.Open(dir_.Utf8(name).c_str(), fs::kWrite, 0));
    ASSERT_TRUE(file);
    WriteText(*file, "12345");
  }
  EXPECT_THROW(fs_.Remove("\xFF"), std::range_error);
  const wchar_t lone[] = {0xD800, 0};
  EXPECT_FALSE(fs_.Remove(lone)) << "a wide path fails without an exception";

  fs::FindRecord record;
  std::unique_ptr<fs::IFileFinder> finder(fs_.FindFirst(dir_.Utf8().c_str(), &record));
  ASSERT_TRUE(finder);
  EXPECT_STREQ(record.name, ".");
  EXPECT_EQ(record.attributes & fs::kDirectory, fs::kDirectory);
  EXPECT_TRUE(finder->FindNext(&record) && record.name == std::string(".."));
  EXPECT_TRUE(finder->FindNext(&record) && record.name == name);
  EXPECT_EQ(record.size, 5u);
  EXPECT_EQ(record.attributes & (fs::kDirectory | fs::kReadOnly | fs::kDevice), 0u);
  EXPECT_FALSE(finder->FindNext(&record));
  EXPECT_EQ(finder->GetLastError(), platform::kNoMoreFiles);
}

// A place that was left is used again, and the search for one goes round the table: the place that
// it starts from stays the first free one, unless the place just left lies shortly before it.
TEST(HandleTableTest, PlacesAreUsedAgainGoingRound) {
  fs::HandleTable table;
  std::unique_ptr<fs::OsFileHandle> handles[8];
  const auto enter = [&] {
    auto handle = std::make_unique<fs::OsFileHandle>(platform::kNoFile, &table);
    const uint64_t slot = handle->slot;
    handles[slot] = std::move(handle);
    return slot;
  };
  for (uint64_t i = 0; i < 8; ++i)
    EXPECT_EQ(enter(), i);
  const auto leave = [&](size_t slot) { handles[slot].reset(); };
  leave(2);
  leave(4);  // two places after 2
  EXPECT_EQ(enter(), 2u);
  leave(1);
  leave(7);  // two places before 1
  EXPECT_EQ(table.Used(), 5u);
  for (const uint64_t expected : {7, 1, 4})
    EXPECT_EQ(enter(), expected);
  EXPECT_EQ(table.Size(), 8u);
}
