#include "runtime/ErrInfo.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "support/CapturedLog.h"

namespace {

constexpr char kSourceFile[] = "src\\Sample";

ErrInfo Failure() {
  return ERR_HERE("Network::Sample::Fail").SetText(L"boom");
}

// How many reports of a failure have reached the log; takes them.
int Reports() {
  int count = 0;
  while (
      !Log().TryTake(L" ErrStr=boom Method=Network::Sample::Fail File=src\\Sample Line=").empty())
    ++count;
  return count;
}

TEST(ErrInfo, TextForms) {
  ErrInfo err("Network::Emulator::Init", "src\\Emulator", 17);
  const std::wstring place = L" Method=Network::Emulator::Init File=src\\Emulator Line=17";
  EXPECT_TRUE(err.IsOk());
  EXPECT_EQ(err.ToString(), L"");

  EXPECT_FALSE(err.SetText(std::wstring()).IsOk());
  EXPECT_EQ(err.ToString(), place);
  EXPECT_EQ(err.SetText("\xC3\x9F \xFF").ToString(), L" ErrStr=\u00df \uFFFD" + place);

  EXPECT_EQ(err.SetCode(0xFFABCDEF, L"bind").ToString(),
            L" ErrType=1 ErrCode=ffabcdef ErrStr=bind" + place);
  EXPECT_EQ(err.SetCode(0x2733, L"").ToString(), L" ErrType=1 ErrCode=2733" + place);
  EXPECT_EQ(err.SetText(L"again").ToString(), L" ErrStr=again" + place) << "it shows no code";
  EXPECT_EQ(err.Code(), 0x2733u) << "but keeps the one that it had";
  Log().Allow(L"Network::Emulator::Init");
}

TEST(ErrInfo, OfAllHoldersOneReports) {
  {
    const ErrInfo handedUp = Failure();
    EXPECT_EQ(Reports(), 0);
  }
  EXPECT_EQ(Reports(), 1);

  // The first copy takes the duty, later ones have none.
  auto first = std::make_unique<ErrInfo>(Failure());
  auto second = std::make_unique<ErrInfo>(*first);
  auto third = std::make_unique<ErrInfo>(*first);
  const ErrInfo& same = *second;
  *second = same;
  first.reset();
  third.reset();
  EXPECT_EQ(Reports(), 0);
  second.reset();
  EXPECT_EQ(Reports(), 1);

  {
    std::vector<ErrInfo> kept;
    for (int i = 0; i < 10; ++i)
      kept.push_back(Failure());  // growing copies what is there already
    EXPECT_EQ(Reports(), 0);
  }
  EXPECT_EQ(Reports(), 10);

  {
    ErrInfo err = Failure();
    err = ERR_HERE("A::B");
    EXPECT_TRUE(err.IsOk());
  }
  EXPECT_EQ(Reports(), 0) << "assignment drops the old failure";
}

}  // namespace
