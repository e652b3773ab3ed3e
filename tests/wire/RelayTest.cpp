// The bad network: what it decides, and the relay on real sockets.
#include "wire/Relay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace wire {
namespace {

using std::chrono::milliseconds;

constexpr size_t kDatagrams = 20000;
constexpr auto kPatience = std::chrono::seconds(20);

struct Tally {
  std::vector<bool> lost;
  Clock::duration least = Clock::duration::max(), most{};
  LinkCounts counts;
};

Tally Decide(uint64_t seed, uint64_t number, const LinkFaults& faults) {
  LossyLink link(seed, number);
  link.SetFaults(faults);
  Tally tally;
  for (size_t i = 0; i < kDatagrams; ++i) {
    const auto fates = link.Next();
    tally.lost.push_back(fates.empty());
    for (const Fate& fate : fates) {
      tally.least = std::min(tally.least, fate.delay);
      tally.most = std::max(tally.most, fate.delay);
    }
  }
  tally.counts = link.Counts();
  return tally;
}

double Percent(uint64_t count) {
  return 100.0 * static_cast<double>(count) / kDatagrams;
}

TEST(LossyLink, GivesWhatWasAskedForBySeedAndNumber) {
  const LinkCounts counts = Decide(1, 0, {10, 20, 30, 5, 0, 0}).counts;
  EXPECT_EQ(counts.taken, kDatagrams);
  EXPECT_NEAR(Percent(counts.lost), 10, 1);
  EXPECT_NEAR(Percent(counts.duplicated), 20 * 0.9, 1);
  EXPECT_NEAR(Percent(counts.heldBack), 30 * 0.9 * 1.2, 1.5);
  EXPECT_NEAR(Percent(counts.corrupted), 5 * 0.9 * 1.2, 1);

  const Tally late = Decide(1, 0, {0, 0, 0, 0, 10, 20});
  EXPECT_EQ(late.counts.lost + late.counts.duplicated + late.counts.corrupted, 0U);
  EXPECT_NEAR(static_cast<double>(late.least / milliseconds(1)), 10, 1);
  EXPECT_NEAR(static_cast<double>(late.most / milliseconds(1)), 29, 1);

  const auto row = Decide(1, 0, {50, 0, 0, 0, 0, 0}).lost;
  EXPECT_NE(row, Decide(2, 0, {50, 0, 0, 0, 0, 0}).lost);
  EXPECT_NE(row, Decide(1, 1, {50, 0, 0, 0, 0, 0}).lost);
  // Another fault beside it doesn't change which are lost.
  EXPECT_EQ(row, Decide(1, 0, {50, 30, 20, 10, 5, 5}).lost);
}

// A run that failed somewhere must fail everywhere: the first fates of a seed, in 100 ns.
TEST(LossyLink, DecidesAlikeOnEverySystem) {
  LossyLink link(640, 3);
  link.SetFaults({20, 30, 30, 40, 2, 10});
  std::string fates;
  for (int i = 0; i < 12; ++i) {
    fates += '|';
    for (const Fate& fate : link.Next())
      fates += std::to_string(fate.delay / std::chrono::nanoseconds(100)) +
               (fate.damage ? "!" : "") + ' ';
  }
  EXPECT_EQ(fates,
            "|76165 |25833 43913 ||195121 153073 |281708 |236801 |257220 |114010 |47706! "
            "|361787 45573! ||224540 ");
}

TEST(LossyLink, DamageAlwaysChangesSomething) {
  for (size_t size = 1; size < 40; ++size) {
    for (uint64_t damage = 1; damage < 400; damage += 2) {
      Bytes bytes(size);
      Damage(damage, bytes);
      const auto same = std::count(bytes.begin(), bytes.end(), 0);
      ASSERT_TRUE(same < static_cast<int>(size) && same >= static_cast<int>(size) - 4);
    }
  }
}

// A target that answers each datagram with the same bytes.
class RelayTest : public testing::Test {
 protected:
  void Send(UdpPort& port, const Bytes& bytes) { port.Send(bytes, relay.Local()); }
  bool WaitFor(const std::function<bool()>& done) { return loop.RunUntil(done, kPatience); }

  const Endpoint here{"127.0.0.1", 0};
  Loop loop;
  UdpPort target{loop, here,
                 [this](const Datagram& datagram) { target.Send(datagram.bytes, datagram.from); }};
  Relay relay{loop, {here, target.Local()}};
  Bytes latest;
  int answers = 0;
  UdpPort sender{loop, here, [this](const Datagram& datagram) {
                   latest = datagram.bytes;
                   ++answers;
                 }};
};

TEST_F(RelayTest, LosesDoublesDelaysDamagesAndHeals) {
  relay.SetFaults({.loss = 100});
  Send(sender, {1});
  EXPECT_TRUE(WaitFor([&] { return relay.CountsThere().lost == 1; }));
  relay.SetFaults({.duplicate = 100});
  Send(sender, {2});
  EXPECT_TRUE(WaitFor([&] { return answers == 4; }));

  relay.SetFaults({.corrupt = 100, .delayMs = 60});
  const auto begin = Clock::now();
  Send(sender, Bytes(100, 'x'));
  EXPECT_TRUE(WaitFor([&] { return answers == 5; }));
  EXPECT_GE(Clock::now() - begin, milliseconds(120));
  EXPECT_EQ(latest.size(), 100U);
  EXPECT_NE(latest, Bytes(100, 'x'));

  relay.SetFaults({});
  Send(sender, {3});
  EXPECT_TRUE(WaitFor([&] { return answers == 6; }));
  EXPECT_EQ(latest, Bytes{3});
}

// Each answer goes to who asked. More senders than there is room for: who was silent longest makes
// room, and nobody is turned away.
TEST_F(RelayTest, MakesRoomForNewSenders) {
  for (size_t i = 0; i < Relay::kMostFlows + 20; ++i) {
    const Bytes own{static_cast<uint8_t>(i), 7};
    bool answered = false;
    UdpPort port(loop, here, [&](const Datagram& datagram) { answered = datagram.bytes == own; });
    Send(port, own);
    ASSERT_TRUE(WaitFor([&] { return answered; }));
  }
  EXPECT_EQ(answers, 0);
  EXPECT_EQ(relay.CountsThere().taken, Relay::kMostFlows + 20);
  EXPECT_EQ(relay.CountsBack().taken, Relay::kMostFlows + 20);
}

}  // namespace
}  // namespace wire
