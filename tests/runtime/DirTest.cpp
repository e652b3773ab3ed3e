#include "runtime/Dir.h"

#include <gtest/gtest.h>

#include "platform/errors.h"
#include "runtime/Paths.h"
#include "support/TempDir.h"

using fs::Dir;

TEST(DirTest, FlagsChooseTheKindAndThePatternHasToMatchTheWholeName) {
  const TempDir dir;
  dir.Write("a.log", "123");
  dir.Write("B.LOG", "");
  dir.Write("a.log.old", "");
  std::filesystem::create_directory(dir.File("d.log"));
  const struct {
    const wchar_t* pattern;
    uint32_t flags;
    std::vector<std::wstring> names;
  } cases[] = {
      {L".*\\.log", Dir::kFiles, {L"a.log", L"B.LOG"}},
      {L".*\\.log", Dir::kDirectories, {L"d.log"}},
      {L".*",
       Dir::kFiles | Dir::kDirectories | Dir::kDots,
       {L".", L"..", L"a.log", L"a.log.old", L"B.LOG", L"d.log"}},
  };
  for (const auto& c : cases) {
    const Dir listing(dir.Wide(), c.pattern, c.flags);
    EXPECT_EQ(listing.error, static_cast<int32_t>(platform::kNoMoreFiles));
    std::vector<std::wstring> paths;
    for (const auto& [path, description] : *listing.files)
      paths.push_back(path);
    std::vector<std::wstring> expected;
    for (const std::wstring& name : c.names)
      expected.push_back(dir.Wide() + GetPathSeparator() + name);
    EXPECT_EQ(paths, expected);
  }
  EXPECT_EQ(Dir(dir.Wide(), L"a\\.log", Dir::kFiles).files->begin()->second.size, 3u);
  EXPECT_EQ(Dir(dir.Wide("missing"), L".*", Dir::kFiles).error,
            static_cast<int32_t>(platform::kPathNotFound));
}

TEST(DirTest, NamesOfTheWorkingDirectoryAndOfTheRootAreNotMixedUp) {
  const TempDir dir;
  dir.Write("only here", "");
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir.Path());
  const std::wstring separator(1, GetPathSeparator());
  for (const wchar_t* here : {L".", L"x/..", L""}) {
    const Dir listing(here, L"only here", Dir::kFiles);
    ASSERT_EQ(listing.files->size(), 1u);
    EXPECT_EQ(listing.files->begin()->first, L"." + separator + L"only here");
  }
  EXPECT_TRUE(Dir(separator, L"only here", Dir::kFiles).files->empty());
  std::filesystem::current_path(before);
}
