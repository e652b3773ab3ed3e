#include "runtime/textfiles.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/errors.h"
#include "support/CapturedLog.h"
#include "support/TempDir.h"

namespace {

class TextFilesTest : public testing::Test {
 protected:
  std::wstring Path(const std::string& name) { return dir_.Wide(name); }

  TempDir dir_;
};

}  // namespace

TEST_F(TextFilesTest, TextGoesToDiskAsPlainUtf8AndComesBack) {
  const std::wstring path = Path("a");
  // One UTF-16 unit an element, as the program's text has it on every system.
  const std::wstring text = {0xFEFF, 'a', 0xE9, wchar_t(0xD834), wchar_t(0xDD1E)};
  EXPECT_TRUE(fs::WriteWholeFile(path.c_str(), text.c_str()).IsOk());
  EXPECT_EQ(dir_.Read("a"),
            "\xEF\xBB\xBF"
            "a\xC3\xA9\xF0\x9D\x84\x9E");
  std::wstring read;
  EXPECT_TRUE(fs::ReadWholeFile(path.c_str(), read).IsOk());
  EXPECT_EQ(read, text);
  EXPECT_TRUE(fs::WriteWholeFile(path.c_str(), "x\0\xC3", 3).IsOk());
  EXPECT_EQ(dir_.Read("a"), std::string("x\0\xC3", 3)) << "nothing of the longer one";
  EXPECT_THROW(fs::ReadWholeFile(path.c_str(), read), std::range_error);
}

// One write takes less than 4 GiB. The rest mustn't be missing without a word, nor the old text go.
TEST_F(TextFilesTest, WhatIsCutShortIsAFailure) {
  dir_.Write("a", "old");
  const std::wstring path = Path("a");
  const char text[] = "new text";
  constexpr size_t kFive = (size_t{1} << 32) + 5;  // of which the write moves 5
  EXPECT_FALSE(fs::ReplaceWholeFile(path.c_str(), text, kFive).IsOk());
  EXPECT_NE(Log().TryTake(L"write error: file \"" + path + L'"'), L"");
  EXPECT_EQ(dir_.Read("a"), "old");
}

TEST_F(TextFilesTest, FailuresNameTheErrorAndThePathAsGiven) {
  std::string bytes = "before";
  const std::wstring odd = dir_.Wide() + L"/./missing/x";
  const ErrInfo missing = fs::ReadWholeFile(odd.c_str(), bytes);
  EXPECT_EQ(missing.Code(), platform::kPathNotFound);
  EXPECT_EQ(bytes, "");
  EXPECT_NE(missing.ToString().find(L" ErrStr=open error: file \"" + odd +
                                    L"\" Method=fs::ReadWholeFile File=src\\textfiles Line="),
            std::wstring::npos);
  Log().Allow(L"Method=fs::ReadWholeFile");
  for (const std::wstring& path : {odd, dir_.Wide()}) {
    fs::ReplaceWholeFile(path.c_str(), L"new");
    EXPECT_NE(Log().TryTake(L"open error: file \"" + path + L"\" Method=fs::WriteWholeFile"), L"");
  }
}

TEST_F(TextFilesTest, ReplacingLeavesOneFileWithTheNewText) {
  const std::string longName(250, 'a');  // leaves no room for a longer name beside it
  for (const std::string& name : {std::string("a"), longName}) {
    dir_.Write(name + (name == "a" ? ".new" : ""), "the user's own, and longer");
    for (const wchar_t* text : {L"first \u00E9", L"second"})
      EXPECT_TRUE(fs::ReplaceWholeFile(Path(name).c_str(), text).IsOk());
    EXPECT_EQ(dir_.Read(name), "second");
  }
  EXPECT_EQ(dir_.Read("a.new"), "the user's own, and longer");
  EXPECT_EQ(dir_.Count(), 3u);
}
