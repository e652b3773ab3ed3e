// What the system runs out of, and what it does to the process from outside.
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "endtoend/EndToEnd.h"

namespace {

class ResourceEnds : public EndToEnd {};

// More units than fit in a file of 1 KiB, in a form that the start wants to rewrite.
std::string LargeSettings(int basePort = 8000) {
  return " " + SettingsText(OwnAddress(), basePort, 15001,
                            std::vector<UnitSpec>(20, UnitSpec{.type = "QZ999"}));
}

// With more and more descriptors: whatever can't be opened, the run says so and ends in good order,
// and as soon as it comes up, it serves.
TEST_F(ResourceEnds, WithoutDescriptorsTheStartFailsAndSaysSo) {
#if defined(QZ_SANITIZED)
  GTEST_SKIP() << "the sanitizers look at memory through pipes of their own, and report all that "
                  "they can't look at";
#endif
  int failedStarts = 0;
  bool up = false;
  for (int limit = 8; !up && limit < 100; ++limit) {
    EmulatorProcess emulator(kBothModelsAndAnUnknownOne);
    emulator.Allow("Too many open files");
    emulator.Allow("Create socket failed");
    emulator.Allow("open error: file");  // the settings, where we were given descriptors ourselves
    emulator.StartUnder("ulimit -n " + std::to_string(limit));
    up = emulator.Child().WaitLine(" Start OK").has_value();
    if (up) {
      Ask(emulator.Control(), "get_dev_info", "dev_info");
      emulator.Stop();
    } else {
      emulator.ExpectOrderlyEnd();
      const auto failures = emulator.LinesWith(" Start FAILED. ERR=");
      EXPECT_TRUE(!failures.empty() || !emulator.LinesWith("Too many open files").empty()) << limit;
      for (const std::string& failure : failures) {
        ++failedStarts;
        EXPECT_NE(failure.find("Create socket failed"), std::string::npos) << failure;
      }
    }
  }
  EXPECT_TRUE(up);
  EXPECT_GT(failedStarts, 0);
}

// A limit of the size of files stands for a full disk, under the settings and under the log alike.
TEST_F(ResourceEnds, AFullDiskCostsNeitherTheSettingsNorTheRun) {
  EmulatorProcess emulator;
  const std::string settings = LargeSettings();
  ASSERT_GT(settings.size(), 1024u);
  emulator.WriteSettings(settings);
  emulator.StartUnder("ulimit -f 1");
  emulator.Line("write error: file");
  emulator.Line(" Start OK");
  Ask(emulator.Control(), "get_dev_info", "dev_info");
  emulator.Stop();
  EXPECT_EQ(emulator.LinesWith("write error: file").size(), 1u);
  EXPECT_EQ(emulator.ReadSettings(), settings);

  // The file ends where the disk did, but with a whole line.
  std::ifstream in(emulator.LogFiles().at(0), std::ios::binary);
  const std::string log(std::istreambuf_iterator<char>(in), {});
  EXPECT_LE(log.size(), 1024u);
  EXPECT_TRUE(log.ends_with("\r\n"));
}

// Whenever it is killed while it rewrites its settings, the file holds the old text or the new one.
TEST_F(ResourceEnds, AKillAroundTheRewriteLeavesTheSettingsWhole) {
  EmulatorProcess emulator;
  const std::string before = LargeSettings();
  const std::string after = before.substr(1);
  int rewritten = 0;
  for (int i = 0; i < 80; ++i) {
    emulator.WriteSettings(before);
    emulator.Start();
    // No condition to wait for: the kills are to fall on moments all around the rewrite.
    std::this_thread::sleep_for(std::chrono::microseconds(100 * i));
    emulator.Abandon();
    emulator.Child().WaitExit();
    const std::string found = emulator.ReadSettings();
    ASSERT_TRUE(found == before || found == after)
        << "killed after " << i * 100 << " us: " << found;
    rewritten += found == after;
  }
  EXPECT_LT(rewritten, 80);
}

TEST_F(ResourceEnds, AClosedTerminalEndsTheRunInGoodOrder) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  ASSERT_EQ(kill(emulator.Child().Id(), SIGHUP), 0);
  emulator.ExpectOrderlyEnd();
  EXPECT_EQ(emulator.LinesWith("Stop  OK").size(), 1u);
}

// proc(5): in nanoseconds. The ticks' threads inherit it.
TEST_F(ResourceEnds, ItsTimersAreExact) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartAndWait();
  std::ifstream file("/proc/" + std::to_string(emulator.Child().Id()) + "/timerslack_ns");
  int slack = 0;
  if (!(file >> slack)) GTEST_SKIP() << "a kernel without timer slack has no coarse timers";
  EXPECT_EQ(slack, 1000);
}

// Without an input it starts and stops at once; without an output it serves as ever, and descriptor
// 1 doesn't become a socket that the log is then written to.
TEST_F(ResourceEnds, ClosedStandardStreamsAreNoFailure) {
  EmulatorProcess emulator({UnitSpec{}});
  emulator.StartUnder("exec <&-");
  emulator.ExpectOrderlyEnd();
  EXPECT_EQ(emulator.LinesWith(" Start OK").size(), 1u);
  EXPECT_EQ(emulator.LinesWith("Stop  OK").size(), 1u);

  emulator.StartUnder("exec >&-");
  Ask(emulator.Control(), "get_dev_info", "dev_info");
  emulator.Stop();
  EXPECT_EQ(Types(controller), std::vector<std::string>{"dev_info"});
}

// As a laptop's lid or a debugger does. The ticks that the pause has cost are not made up for in
// one burst: the clock begins anew.
TEST_F(ResourceEnds, APauseOfTenSecondsIsToldAndOver) {
  EmulatorProcess emulator({UnitSpec{.type = "QZ610"}});
  emulator.StartAndWait();
  wire::AudioReceiver receiver(loop, here);
  wire::UdpPort sender(loop, here, nullptr);
  SetInputs(emulator.Control(), {receiver.Local().ToText()});
  int number = 0;
  // Sends a stream in real time until one of its packets comes back.
  const auto loopBack = [&] {
    receiver.Clear();
    const auto returned = [&] {
      return std::any_of(
          receiver.Packets().begin(), receiver.Packets().end(),
          [](const wire::StreamPacket& packet) { return wire::MarkOf(packet.Audio()) > 0; });
    };
    const auto deadline = wire::Clock::now() + kPatience;
    while (!returned() && wire::Clock::now() < deadline) {
      ++number;
      sender.Send(Packet(number, wire::Pattern(number)), emulator.Control(2));
      loop.RunFor(std::chrono::milliseconds(4));
    }
    return returned();
  };
  EXPECT_TRUE(loopBack());

  ASSERT_EQ(kill(emulator.Child().Id(), SIGSTOP), 0);
  loop.RunFor(std::chrono::seconds(10));
  receiver.Clear();
  const auto resumed = wire::Clock::now();
  kill(emulator.Child().Id(), SIGCONT);
  Ask(emulator.Control(), "get_dev_info", "dev_info");
  EXPECT_LT(wire::Clock::now() - resumed, std::chrono::seconds(1));
  emulator.Line("Sync FAIL. Internal sync timeout.");

  ASSERT_TRUE(receiver.WaitCount(250));
  const auto& packets = receiver.Packets();
  EXPECT_GT(packets[249].time - resumed, std::chrono::milliseconds(800));
  for (size_t i = 1; i < packets.size(); ++i)
    EXPECT_EQ(packets[i].Header().sequence,
              static_cast<uint16_t>(packets[i - 1].Header().sequence + 1));
  EXPECT_TRUE(loopBack());
  emulator.Line("Stream ERROR");
}

}  // namespace
