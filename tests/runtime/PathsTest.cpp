#include "runtime/Paths.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

std::wstring Windows(std::wstring path) {
  return NormalizePath(path, kWindowsPaths);
}
std::wstring Posix(std::wstring path) {
  return NormalizePath(path, kPosixPaths);
}

}  // namespace

// The plain cases are held to a model by FuzzNormalizePath; these are the ones that it leaves out.
TEST(NormalizePath, RootsDrivesSharesAndEmptySegments) {
  const std::pair<const wchar_t*, const wchar_t*> windows[] = {
      {L"C:/a/./b/../c", L"C:\\a\\c"},
      {L"a\\..\\..\\..\\b", L"..\\..\\b"},
      {L"\\a\\..", L"\\"},
      {L"C:\\a\\..", L"C:\\"},
      {L"C:\\a\\..\\b", L"C:\\b"},
      {L"//server/share/x/../../y", L"\\\\server\\share\\..\\y"},
      {L"a\\\\..\\b", L"a\\b"},
  };
  for (const auto& [path, expected] : windows)
    EXPECT_EQ(Windows(path), expected);
  const std::pair<const wchar_t*, const wchar_t*> posix[] = {
      {L"/tmp/x/../y/./z", L"/tmp/y/z"}, {L"/../a", L"/../a"}, {L"a//../b/", L"a/b/"},
      {L"a\\..\\b", L"a\\..\\b"},        {L"C:/../b", L"b"},
  };
  for (const auto& [path, expected] : posix)
    EXPECT_EQ(Posix(path), expected);
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
  EXPECT_EQ(GetModulePath(false, false), L"runtime_tests");
  EXPECT_TRUE(GetModulePath(true, true).ends_with(GetPathSeparator() + GetModulePath(false, true)));
  EXPECT_EQ(GetModulePath(true, true, &kPosixPaths), GetModulePath(true, true));
  int onTheStack = 0;
  EXPECT_EQ(GetModulePath(true, true, &onTheStack), L"") << "no module is there";
}

TEST(TrailingSeparator, IsAddedOnceAndRemovedOnce) {
  const std::wstring separator(1, GetPathSeparator());
  const auto add = [](std::wstring path) { return AddTrailingSeparator(path); };
  const auto remove = [](std::wstring path) { return RemoveTrailingSeparator(path); };
  const std::wstring nul(1, L'\0');

  EXPECT_EQ(add(L""), separator);
  EXPECT_EQ(add(L"x" + separator), L"x" + separator);
  EXPECT_EQ(add(L"x" + nul), L"x" + separator);
  EXPECT_EQ(add(nul), L"");

  EXPECT_EQ(remove(L"x" + separator + nul), L"x");
  EXPECT_EQ(remove(L"x" + separator + separator), L"x" + separator);
  EXPECT_EQ(remove(L""), L"");
}
