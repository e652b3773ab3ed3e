#include "runtime/ErrInfo.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "runtime/Environment.h"
#include "support/CapturedLog.h"

namespace {

constexpr char kSourceFile[] = "src\\Sample";

ErrInfo Failure() {
  return ERR_HERE("Network::Sample::Fail").SetText(L"boom");
}

ErrInfo Through(int levels) {
  return levels == 0 ? Failure() : Through(levels - 1);
}

// How many reports of a failure have reached the log; takes them.
int Reports() {
  int count = 0;
  while (!Log().TryTake(L"Method=Network::Sample::Fail").empty())
    ++count;
  return count;
}

TEST(ErrInfo, TextForms) {
  ErrInfo err("Network::Emulator::Init", "src\\Emulator", 17);
  const std::wstring place = L" Method=Network::Emulator::Init File=src\\Emulator Line=17";
  EXPECT_TRUE(err.IsOk());
  EXPECT_EQ(err.ToString(), L"");

  EXPECT_FALSE(err.SetText(L"Parse error").IsOk());
  EXPECT_EQ(err.ToString(), L" ErrStr=Parse error" + place);
  EXPECT_EQ(err.SetText(std::wstring()).ToString(), place);
  EXPECT_EQ(err.SetText("gr\xC3\xBC\xC3\x9F"
                        "e \xFF")
                .ToString(),
            L" ErrStr=gr\u00fc\u00dfe \uFFFD" + place);

  EXPECT_EQ(err.SetCode(0x2733, L"bind").ToString(),
            L" ErrType=1 ErrCode=2733 ErrStr=bind" + place);
  EXPECT_EQ(err.SetCode(0, std::wstring()).ToString(), L" ErrType=1 ErrCode=0" + place);
  EXPECT_EQ(err.SetCode(0xFFABCDEF, L"").ToString(), L" ErrType=1 ErrCode=ffabcdef" + place);
  EXPECT_EQ(err.SetText(L"again").ToString(), L" ErrStr=again" + place) << "it shows no code";
  EXPECT_EQ(err.Code(), 0xFFABCDEFu) << "but keeps the one that it had";
  Log().Allow(L"Network::Emulator::Init");
}

TEST(ErrInfo, OfAllHoldersOneReports) {
  {
    const ErrInfo handedUp = Through(5);
    EXPECT_FALSE(handedUp.IsOk());
    EXPECT_EQ(Reports(), 0);
  }
  EXPECT_EQ(Log().Lines().size(), 1u);
  EXPECT_TRUE(Log().Lines()[0].starts_with(
      L" ErrStr=boom Method=Network::Sample::Fail File=src\\Sample Line="));
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
    EXPECT_FALSE(kept.front().IsOk());
    EXPECT_EQ(Reports(), 0);
  }
  EXPECT_EQ(Reports(), 10);
}

TEST(ErrInfo, AssignmentDropsTheOldFailureUnreported) {
  {
    ErrInfo err = Failure();
    const ErrInfo other = ErrInfo("A::Other", kSourceFile, 1).SetText(L"new");
    err = other;
    EXPECT_EQ(err.ToString(), other.ToString());
    err = ERR_HERE("A::B");
    EXPECT_TRUE(err.IsOk());
  }
  EXPECT_TRUE(Log().Lines().empty());
}

class EnvironmentWithoutLog final : public IEnvironment {
 public:
  std::shared_ptr<IDebugLog> GetLog() override { return nullptr; }
};

TEST(ErrInfo, NothingIsLoggedInAnEnvironmentWithoutLog) {
  GetDebugLog();  // the environment of the tests exists, so that it can be given up
  const EnvironmentFactory before = SetEnvironmentFactory(
      []() -> std::unique_ptr<IEnvironment> { return std::make_unique<EnvironmentWithoutLog>(); });
  ReleaseEnvironment();
  EXPECT_EQ(GetDebugLog(), nullptr);
  Failure();
  SetEnvironmentFactory(before);
  ReleaseEnvironment();
  EXPECT_TRUE(Log().Lines().empty());
  Failure();
  EXPECT_EQ(Reports(), 1);
}

}  // namespace
