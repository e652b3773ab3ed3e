#include "runtime/Paths.h"

#include <gtest/gtest.h>

namespace {

std::wstring Windows(std::wstring path) {
  return NormalizePath(path, kWindowsPaths);
}
std::wstring Posix(std::wstring path) {
  return NormalizePath(path, kPosixPaths);
}

}  // namespace

TEST(NormalizePath, ResolvesDotsInWindowsPaths) {
  EXPECT_EQ(Windows(L"C:/a/./b/../c"), L"C:\\a\\c");
  EXPECT_EQ(Windows(L"a\\..\\b"), L"b");
  EXPECT_EQ(Windows(L".\\a\\."), L"a");
  EXPECT_EQ(Windows(L"a\\b\\c\\..\\.."), L"a");
  EXPECT_EQ(Windows(L"a\\.b\\..c\\d."), L"a\\.b\\..c\\d.");
}

TEST(NormalizePath, LeavesTheRootAlone) {
  EXPECT_EQ(Windows(L"\\"), L"\\");
  EXPECT_EQ(Windows(L"\\a\\.."), L"\\");
  EXPECT_EQ(Windows(L"\\.\\a"), L"\\a");
  EXPECT_EQ(Windows(L"C:\\a\\.."), L"C:\\");
  EXPECT_EQ(Windows(L"C:\\a\\..\\b"), L"C:\\b");
  EXPECT_EQ(Windows(L"\\\\server\\share\\x\\..\\y"), L"\\\\server\\share\\y");
  EXPECT_EQ(Windows(L"//server/share/x/../../y"), L"\\\\server\\share\\..\\y");
  EXPECT_EQ(Windows(L"\\\\server\\.."), L"\\\\server\\..");
}

TEST(NormalizePath, KeepsWhatLeadsAboveTheStart) {
  EXPECT_EQ(Windows(L"..\\a"), L"..\\a");
  EXPECT_EQ(Windows(L"a\\..\\..\\..\\b"), L"..\\..\\b");
  EXPECT_EQ(Windows(L"..\\a\\..\\..\\b"), L"..\\..\\b");
  EXPECT_EQ(Posix(L"/../a"), L"/../a");
}

TEST(NormalizePath, CountsAnEmptySegmentAsOne) {
  EXPECT_EQ(Windows(L"a\\\\b"), L"a\\\\b");
  EXPECT_EQ(Windows(L"a\\\\..\\b"), L"a\\b");
  EXPECT_EQ(Posix(L"a//../b/"), L"a/b/");
}

TEST(NormalizePath, KnowsOnlyTheSlashOnPosix) {
  EXPECT_EQ(Posix(L"/tmp/x/../y/./z"), L"/tmp/y/z");
  EXPECT_EQ(Posix(L"/a/.."), L"/");
  EXPECT_EQ(Posix(L"a\\..\\b"), L"a\\..\\b");
  EXPECT_EQ(Posix(L"C:/../b"), L"b");
  EXPECT_EQ(Posix(L""), L"");
}

TEST(ModulePath, IsCutAtTheLastSeparatorAndTheLastDot) {
  const auto cut = [](bool directory, bool extension) {
    return CutModulePath(L"C:\\dir.d\\prog.exe", directory, extension, kWindowsPaths);
  };
  EXPECT_EQ(cut(true, true), L"C:\\dir.d\\prog.exe");
  EXPECT_EQ(cut(true, false), L"C:\\dir.d\\prog");
  EXPECT_EQ(cut(false, true), L"prog.exe");
  EXPECT_EQ(cut(false, false), L"prog");
  // A dot in a directory, or in front of the name, begins no extension.
  EXPECT_EQ(CutModulePath(L"C:\\dir.d\\prog", false, false, kWindowsPaths), L"prog");
  EXPECT_EQ(CutModulePath(L"/usr/.emu", false, false, kPosixPaths), L".emu");
}

TEST(ModulePath, NamesThisProgram) {
  const std::wstring full = GetModulePath(true, true);
  const std::wstring name = GetModulePath(false, true);
  EXPECT_EQ(GetModulePath(false, false), L"runtime_tests");
  EXPECT_TRUE(full.ends_with(GetPathSeparator() + name)) << "the name ends the full path";
}

TEST(TrailingSeparator, IsAddedOnceAndRemovedOnce) {
  const std::wstring separator(1, GetPathSeparator());
  const auto add = [](std::wstring path) { return AddTrailingSeparator(path); };
  const auto remove = [](std::wstring path) { return RemoveTrailingSeparator(path); };
  const std::wstring nul(1, L'\0');

  EXPECT_EQ(add(L""), separator);
  EXPECT_EQ(add(L"x"), L"x" + separator);
  EXPECT_EQ(add(L"x" + separator), L"x" + separator);
  EXPECT_EQ(add(L"x" + nul), L"x" + separator);
  EXPECT_EQ(add(nul), L"");

  EXPECT_EQ(remove(L"x" + separator + nul), L"x");
  EXPECT_EQ(remove(L"x" + separator + separator), L"x" + separator);
  EXPECT_EQ(remove(L"x"), L"x");
  EXPECT_EQ(remove(L""), L"");
}

TEST(TempDir, EndsInASeparator) {
  const std::wstring dir = GetTempDir();
  ASSERT_FALSE(dir.empty());
  EXPECT_EQ(dir.back(), GetPathSeparator());
}
