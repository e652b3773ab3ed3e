#include <gtest/gtest.h>
#include "runtime/ErrInfo.h"
#include "support/CapturedLog.h"
namespace {
constexpr char kSourceFile[] = "src\\Spine";
}
TEST(Spine, DroppedFailureIsLogged) {
  ERR_HERE("A::B").SetText(L"boom");
  EXPECT_NE(Log().TryTake(L" ErrStr=boom Method=A::B File=src\\Spine Line="), L"");
}
