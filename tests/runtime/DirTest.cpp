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
  const auto names = [&](const std::wstring& pattern, uint32_t flags) {
    const Dir listing(dir.Wide(), pattern, flags);
    EXPECT_EQ(listing.error, static_cast<int32_t>(platform::kNoMoreFiles));
    std::vector<std::wstring> found;
    for (const auto& [path, description] : *listing.files)
      found.push_back(path.substr((dir.Wide() + GetPathSeparator()).size()));
    return found;
  };
  using Names = std::vector<std::wstring>;
  EXPECT_EQ(names(L".*\\.log", Dir::kFiles), (Names{L"a.log", L"B.LOG"}));
  EXPECT_EQ(names(L".*", Dir::kDirectories | Dir::kDots), (Names{L".", L"..", L"d.log"}));
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
