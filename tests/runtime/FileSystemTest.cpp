#include "runtime/FileSystem.h"

#include <gtest/gtest.h>

#include <map>
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
  using namespace fs;
  const struct {
    const char* name;  // "a" is there, and holds "0123456789"
    uint32_t mode;
    uint32_t error;       // of the failure; of a file that is open, whether it was there before
    const char* content;  // after "xy" was written
  } cases[] = {
      {"new", kRead, platform::kFileNotFound, nullptr},
      {"new", 0, platform::kFileNotFound, nullptr},  // nothing is tried: of the one before
      {"new", kWrite | kMustExist, platform::kFileNotFound, nullptr},
      {"a", kRead | kTruncate | kMustBeNew, 0, "0123456789"},  // reading alone empties nothing
      {"a", kWrite | kMustBeNew, platform::kFileExists, nullptr},
      {"a", kWrite, platform::kAlreadyExists, "xy23456789"},
      {"a", kWrite | kTruncate, platform::kAlreadyExists, "xy"},
      {"a", kWrite | kMustExist | kTruncate, 0, "xy"},
      {"new", kWrite, 0, "xy"},
      {"new3", kWrite | kMustBeNew, 0, "xy"},
  };
  for (const auto& c : cases) {
    dir_.Write("a", "0123456789");
    const auto file = Open(c.name, c.mode);
    EXPECT_EQ(file != nullptr, c.content != nullptr) << c.name << ", mode " << c.mode;
    EXPECT_EQ(file ? file->GetLastError() : fs_.GetLastError(), c.error) << c.mode;
    if (!file) continue;
    if (c.mode & kWrite) WriteText(*file, "xy");
    EXPECT_EQ(dir_.Read(c.name), c.content) << c.mode;
  }
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

TEST_F(FileSystemTest, PositionsMovesDirectoriesAndListings) {
  const std::string name = "\xC3\xA9\xF0\x9D\x84\x9E";  // narrow paths are UTF-8
  {
    const auto file = Open(name, fs::kWrite);
    WriteText(*file, "0123456789");
    uint64_t position = 0;
    uint32_t done = 77;
    EXPECT_TRUE(file->Seek(-3, 2));
    EXPECT_FALSE(file->ReadAt(9, &position, 1, &done, true)) << "it is open for writing alone";
    EXPECT_TRUE(done == 0 && file->GetLastError() != 0);
    EXPECT_TRUE(file->Tell(&position) && position == 7) << "the position was to be kept";
    EXPECT_TRUE(file->WriteAt(0, "ab", 2, &done, false) && file->SetEnd() && file->Flush());
  }
  dir_.Write("b", "old");
  const std::string target = dir_.Utf8("b");
  EXPECT_FALSE(fs_.Move(dir_.Utf8(name).c_str(), target.c_str(), fs::kMoveCopy));
  EXPECT_TRUE(fs_.Move(dir_.Utf8(name).c_str(), target.c_str(), fs::kMoveReplace));
  EXPECT_EQ(dir_.Read("b"), "ab");
  EXPECT_THROW(fs_.Remove("\xFF"), std::range_error);

  EXPECT_TRUE(fs_.MakeDir(dir_.Utf8(name).c_str()));
  EXPECT_FALSE(fs_.MakeDir(dir_.Utf8("x/y").c_str()));
  EXPECT_EQ(fs_.GetLastError(), platform::kPathNotFound);
  EXPECT_FALSE(Open(name, fs::kRead) || Open(name, fs::kWrite));

  fs::FindRecord record;
  EXPECT_TRUE(fs_.SetAttributes(target.c_str(), platform::kAttributeReadOnly));
  const std::unique_ptr<fs::IFileFinder> finder(fs_.FindFirst(dir_.Utf8().c_str(), &record));
  std::map<std::string, uint32_t> found;
  do {
    found[record.name] = record.attributes & (fs::kDirectory | fs::kReadOnly | fs::kDevice);
  } while (finder->FindNext(&record));
  EXPECT_EQ(finder->GetLastError(), platform::kNoMoreFiles);
  EXPECT_EQ(found.size(), 4u) << "with . and ..";
  EXPECT_EQ(found["b"], fs::kReadOnly);
  EXPECT_EQ(found[name], fs::kDirectory);
  fs_.SetAttributes(target.c_str(), platform::kAttributeNormal);  // so that it can be removed
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
  handles[2].reset();
  handles[4].reset();  // two places after 2
  EXPECT_EQ(enter(), 2u);
  handles[1].reset();
  handles[7].reset();  // two places before 1
  for (const uint64_t expected : {7u, 1u, 4u})
    EXPECT_EQ(enter(), expected);
  EXPECT_EQ(table.Size(), 8u);
}
