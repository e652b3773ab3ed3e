#include "support/Process.h"

#include <gtest/gtest.h>

#include "support/System.h"

namespace {

using std::chrono::milliseconds;

TEST(Process, TakesLinesAndGivesThemBackUntilTheEndOfItsInput) {
  Process child(QZ_ECHO_CHILD, {.environment = {{"QZ_ECHO", "variable"}}});
  ASSERT_TRUE(child.WaitLine("ready"));
  EXPECT_EQ(child.Lines()[0].text, "ready variable");

  child.Write("one\ntwo\none more\n");
  EXPECT_EQ(child.WaitLine("one")->number, 1u);
  EXPECT_EQ(child.WaitLine("one", 2)->text, "one more");
  EXPECT_FALSE(child.WaitLine("never", 0, milliseconds(20)));

  child.CloseInput();
  EXPECT_EQ(child.WaitExit(), 7);
  EXPECT_EQ(FromConsole(child.Output()), "ready variable\r\n\none\ntwo\none more\n");
  EXPECT_FALSE(child.WaitLine("never"));  // at once, as nothing can come any more
}

TEST(Process, TellsHowItEnded) {
  Process child(QZ_ECHO_CHILD, {});
  child.Write("complain\nexit 3\n");
  EXPECT_EQ(child.WaitExit(), 3);
  EXPECT_EQ(FromConsole(child.ErrorOutput()), "complaint\n");
  EXPECT_TRUE(child.HasEnded());
  child.Send(Process::Signal::Kill);  // nobody there any more

  Process killed(QZ_ECHO_CHILD, {});
  ASSERT_TRUE(killed.WaitLine("ready"));
  EXPECT_FALSE(killed.WaitExit(milliseconds(20)));
  killed.Send(Process::Signal::Kill);
  EXPECT_EQ(killed.WaitExit(), 128 + 9);

  EXPECT_THROW(Process("/does/not/exist", {}), std::runtime_error);
}

TEST(Process, StartsWithDescriptorsClosed) {
  Process deaf(QZ_ECHO_CHILD, {.withoutInput = true});
  EXPECT_EQ(deaf.WaitExit(), 7);
  EXPECT_EQ(FromConsole(deaf.Output()), "ready \r\n\n");

  Process mute(QZ_ECHO_CHILD, {.withoutOutput = true});
  mute.Write("anything\n");
  EXPECT_EQ(mute.WaitExit(), 9);
  EXPECT_EQ(mute.Output(), "");
}

TEST(Process, BreaksTheOutputOfAChildThatNobodyReads) {
  Process child(QZ_ECHO_CHILD, {});
  ASSERT_TRUE(child.WaitLine("ready"));
  child.StopReading();
  child.Write("anything\n");
  EXPECT_NE(child.WaitExit().value_or(0), 0);
}

}  // namespace
