#include "runtime/Dir.h"

#include <gtest/gtest.h>

#include "platform/errors.h"
#include "runtime/Paths.h"
#include "support/TempDir.h"

namespace {

using fs::Dir;

class DirTest : public testing::Test {
 protected:
  // The names that a listing has, in its order.
  std::vector<std::wstring> Names(const std::wstring& pattern, uint32_t flags) {
    const Dir listing(dir_.Wide(), pattern, flags);
    EXPECT_EQ(listing.error, static_cast<int32_t>(platform::kNoMoreFiles));
    std::vector<std::wstring> names;
    for (const auto& [path, description] : *listing.files) {
      EXPECT_TRUE(path.starts_with(dir_.Wide() + GetPathSeparator()));
      names.push_back(path.substr(dir_.Wide().size() + 1));
    }
    return names;
  }

  TempDir dir_;
};

using Expected = std::vector<std::wstring>;

}  // namespace

TEST_F(DirTest, FlagsChooseTheKindAndThePatternHasToMatchTheWholeName) {
  dir_.Write("a.log", "123");
  dir_.Write("B.LOG", "");
  dir_.Write("a.log.old", "");
  std::filesystem::create_directory(dir_.File("d.log"));

  EXPECT_EQ(Names(L".*\\.log", Dir::kFiles), (Expected{L"a.log", L"B.LOG"}));
  EXPECT_EQ(Names(L".*\\.log", Dir::kDirectories), (Expected{L"d.log"}));
  EXPECT_EQ(Names(L".*", Dir::kDots), (Expected{L".", L".."}));
  EXPECT_EQ(Names(L".*", Dir::kFiles | Dir::kDirectories | Dir::kDots),
            (Expected{L".", L"..", L"a.log", L"a.log.old", L"B.LOG", L"d.log"}));

  const Dir listing(dir_.Wide(), L"a\\.log", Dir::kFiles);
  EXPECT_EQ(listing.files->begin()->second.size, 3u);
}

TEST_F(DirTest, NamesOfTheWorkingDirectoryAndOfTheRootAreNotMixedUp) {
  dir_.Write("only here", "");
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(dir_.Path());
  const std::wstring separator(1, GetPathSeparator());
  for (const wchar_t* here : {L".", L"x/..", L""}) {
    const Dir listing(here, L"only here", Dir::kFiles);
    ASSERT_EQ(listing.files->size(), 1u);
    EXPECT_EQ(listing.files->begin()->first, L"." + separator + L"only here");
  }
  const Dir root(separator, L"only here", Dir::kFiles);
  EXPECT_TRUE(root.files->empty());
  std::filesystem::current_path(before);
}

TEST_F(DirTest, AMissingDirectoryGivesAnEmptyListAndItsError) {
  const Dir listing(dir_.Wide("missing"), L".*", Dir::kFiles);
  EXPECT_TRUE(listing.files->empty());
  EXPECT_EQ(listing.error, static_cast<int32_t>(platform::kPathNotFound));
  EXPECT_THROW(Dir(dir_.Wide(), L"*", Dir::kFiles), std::regex_error);
}
