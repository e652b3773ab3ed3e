#include "runtime/Paths.h"

#include <gtest/gtest.h>

TEST(NormalizePath, DotsGoWithinRootsDrivesAndShares) {
  const struct {
    PathStyle style;
    std::wstring path, expected;
  } cases[] = {
      {kWindowsPaths, L"C:/a/./b/../c", L"C:\\a\\c"},
      {kWindowsPaths, L"C:\\a\\..", L"C:\\"},
      {kWindowsPaths, L"//server/share/x/../../y", L"\\\\server\\share\\..\\y"},
      {kWindowsPaths, L"a\\\\..\\b", L"a\\b"},
      {kWindowsPaths, L"a\\..\\..\\..\\b", L"..\\..\\b"},
      {kPosixPaths, L"/tmp/x/../y/./z", L"/tmp/y/z"},
      {kPosixPaths, L"/../a", L"/../a"},
      {kPosixPaths, L"x/..", L""},
      {kPosixPaths, L"./a", L"a"},
      {kPosixPaths, L"a\\..\\b", L"a\\..\\b"},
      {kPosixPaths, L"a//../b/", L"a/b/"},
      {kPosixPaths, L"C:/../b", L"b"},
  };
  for (auto c : cases)
    EXPECT_EQ(NormalizePath(c.path, c.style), c.expected);
}

// The settings and the log are named after the program, and on Windows its file has an extension.
TEST(ModulePath, IsCutAtTheLastSeparatorAndTheLastDotOfTheName) {
  const auto cut = [](bool directory, bool extension) {
    return CutModulePath(L"C:\\dir.d\\prog.exe", directory, extension, kWindowsPaths);
  };
  EXPECT_EQ(cut(true, false), L"C:\\dir.d\\prog");
  EXPECT_EQ(cut(false, true), L"prog.exe");
  EXPECT_EQ(cut(false, false), L"prog");
  EXPECT_EQ(CutModulePath(L"C:\\dir.d\\prog", false, false, kWindowsPaths), L"prog");
  EXPECT_EQ(CutModulePath(L"/usr/.emu", false, false, kPosixPaths), L".emu");

  EXPECT_EQ(GetModulePath(false, false), L"runtime_tests");
  EXPECT_EQ(GetModulePath(true, true, &kPosixPaths), GetModulePath(true, true));
  int onTheStack = 0;
  EXPECT_EQ(GetModulePath(true, true, &onTheStack), L"") << "no module is there";
}

TEST(TrailingSeparator, IsAddedOnceAndRemovedOnce) {
  const std::wstring separator(1, GetPathSeparator());
  const auto add = [](std::wstring path) { return AddTrailingSeparator(path); };
  const auto remove = [](std::wstring path) { return RemoveTrailingSeparator(path); };
  EXPECT_EQ(add(L""), separator);
  EXPECT_EQ(add(L"x" + separator), L"x" + separator);
  EXPECT_EQ(remove(L"x" + separator + separator), L"x" + separator);
}
