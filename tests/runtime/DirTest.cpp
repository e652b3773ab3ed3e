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
  const Dir listing(dir.Wide(), L".*\\.log", Dir::kFiles);
  EXPECT_EQ(listing.error, static_cast<int32_t>(platform::kNoMoreFiles));
  std::wstring found;
  for (const auto& [path, description] : *listing.files)
    found += L' ' + path.substr((dir.Wide() + GetPathSeparator()).size());
  EXPECT_EQ(found, L" a.log B.LOG");
  EXPECT_EQ(listing.files->begin()->second.size, 3u);
  EXPECT_EQ(Dir(dir.Wide(), L".*", Dir::kDirectories | Dir::kDots).files->size(), 3u);
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
