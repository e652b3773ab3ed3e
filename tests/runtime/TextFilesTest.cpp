#include "runtime/textfiles.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "platform/errors.h"
#include "runtime/IFS.h"
#include "support/CapturedLog.h"
#include "support/TempDir.h"

namespace {

class TextFilesTest : public testing::Test {
 protected:
  std::wstring Path(const std::string& name) { return dir_.Wide(name); }

  TempDir dir_;
};

// One UTF-16 unit an element, as the program's text has it on every system.
const std::wstring kClef = {static_cast<wchar_t>(0xD834), static_cast<wchar_t>(0xDD1E)};

}  // namespace

TEST_F(TextFilesTest, TextGoesToDiskAsPlainUtf8AndComesBack) {
  const std::wstring text = L"\uFEFFabc\u00E9" + kClef;
  EXPECT_TRUE(fs::WriteWholeFile(Path("a").c_str(), text.c_str()).IsOk());
  EXPECT_EQ(dir_.Read("a"),
            "\xEF\xBB\xBF"
            "abc\xC3\xA9\xF0\x9D\x84\x9E");
  std::wstring read;
  EXPECT_TRUE(fs::ReadWholeFile(Path("a").c_str(), read).IsOk());
  EXPECT_EQ(read, text);

  // A shorter text leaves nothing of the longer one; an empty one leaves an empty file.
  EXPECT_TRUE(fs::WriteWholeFile(Path("a").c_str(), L"x").IsOk());
  EXPECT_EQ(dir_.Read("a"), "x");
  EXPECT_TRUE(fs::WriteWholeFile(Path("a").c_str(), "", 0).IsOk());
  EXPECT_EQ(dir_.Read("a"), "");
  EXPECT_TRUE(fs::ReadWholeFile(Path("a").c_str(), read).IsOk());
  EXPECT_EQ(read, L"");
}

TEST_F(TextFilesTest, OnlyTheCountedFormWritesZeroBytes) {
  EXPECT_TRUE(fs::WriteWholeFile(Path("a").c_str(), "a\0b", 3).IsOk());
  EXPECT_EQ(dir_.Read("a"), std::string("a\0b", 3));
  EXPECT_TRUE(fs::WriteWholeFile(Path("a").c_str(), "a\0b").IsOk());
  EXPECT_EQ(dir_.Read("a"), "a");
}

TEST_F(TextFilesTest, FailuresTellTheErrorAndThePathAsGiven) {
  std::string bytes = "before";
  const std::wstring odd = dir_.Wide() + L"/./missing";
  const ErrInfo missing = fs::ReadWholeFile(odd.c_str(), bytes);
  EXPECT_EQ(missing.Code(), platform::kFileNotFound);
  EXPECT_EQ(bytes, "");
  const std::wstring text = missing.ToString();
  EXPECT_TRUE(text.starts_with(L" ErrType=1 ErrCode=2 ErrStr=open error: file \"" + odd +
                               L"\" Method=fs::ReadWholeFile File=src\\textfiles Line="))
      << dir_.Path();
  EXPECT_FALSE(fs::ReadWholeFile(dir_.Wide().c_str(), bytes).IsOk());
  EXPECT_NE(Log().TryTake(L"open error: file \"" + dir_.Wide() + L'"'), L"");

  fs::WriteWholeFile(Path("x/y").c_str(), "text");
  EXPECT_NE(Log().TryTake(L"\" Method=fs::WriteWholeFile File=src\\textfiles"), L"");
  Log().Allow(odd);
}

TEST_F(TextFilesTest, TextThatCannotBeConvertedThrows) {
  dir_.Write("a", "ok\xC3");
  std::wstring read;
  EXPECT_THROW(fs::ReadWholeFile(Path("a").c_str(), read), std::range_error);
  const wchar_t lone[] = {0xD800, 0};
  EXPECT_THROW(fs::WriteWholeFile(Path("b").c_str(), lone), std::range_error);
  EXPECT_FALSE(dir_.Has("b"));
}

TEST_F(TextFilesTest, AFileThatIsTooLargeFailsWithoutTakingTheMemory) {
  dir_.Write("a", "x");
  {
    const fs::FsRef fileSystem;
    const std::unique_ptr<fs::IFile> file(fileSystem.Get()->Open(Path("a").c_str(), fs::kWrite, 0));
    ASSERT_TRUE(file->Seek(int64_t{5} << 30, 0) && file->SetEnd());  // sparse
  }
  std::string bytes;
  EXPECT_FALSE(fs::ReadWholeFile(Path("a").c_str(), bytes).IsOk());
  EXPECT_NE(Log().TryTake(L"ErrStr=read error: file \""), L"");
  EXPECT_LT(bytes.capacity(), 1000u);
}

TEST_F(TextFilesTest, ReplacingLeavesOneFileWithTheNewText) {
  EXPECT_TRUE(fs::ReplaceWholeFile(Path("a").c_str(), L"first \u00E9").IsOk());
  EXPECT_EQ(dir_.Read("a"), "first \xC3\xA9");
  dir_.Write("a.new", "the user's own");
  EXPECT_TRUE(fs::ReplaceWholeFile(Path("a").c_str(), L"second").IsOk());
  EXPECT_EQ(dir_.Read("a"), "second");
  EXPECT_EQ(dir_.Read("a.new"), "the user's own");
  EXPECT_EQ(dir_.Count(), 2u);
}

TEST_F(TextFilesTest, ReplacingFallsBackToWritingWhereNoFileCanStandBeside) {
  const std::string longName(250, 'a');  // leaves no room for a name that is longer
  dir_.Write(longName, "the old text");
  EXPECT_TRUE(fs::ReplaceWholeFile(Path(longName).c_str(), L"new").IsOk());
  EXPECT_EQ(dir_.Read(longName), "new");

  fs::ReplaceWholeFile(Path("x/y").c_str(), L"new");
  EXPECT_NE(Log().TryTake(L"ErrStr=open error: file \"" + Path("x/y") + L'"'), L"");
  fs::ReplaceWholeFile(dir_.Wide().c_str(), L"new");
  EXPECT_NE(Log().TryTake(L"ErrStr=open error: file \"" + dir_.Wide() + L'"'), L"");
}
