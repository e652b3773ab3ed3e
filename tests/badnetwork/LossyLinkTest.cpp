#include "relay/LossyLink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace relay;

namespace {

constexpr size_t kDatagrams = 20000;

struct Tally {
  std::vector<std::vector<Arrival>> fates;
  LinkCounts counts;
};

Tally Decide(uint64_t seed, uint64_t number, const LinkFaults& faults) {
  LossyLink link(seed, number);
  link.SetFaults(faults);
  Tally tally;
  for (size_t i = 0; i < kDatagrams; ++i)
    tally.fates.push_back(link.Next());
  tally.counts = link.Counts();
  return tally;
}

double Percent(uint64_t count) {
  return 100.0 * static_cast<double>(count) / kDatagrams;
}

TEST(LossyLink, ChangesNothingWithoutFaults) {
  for (const auto& arrivals : Decide(1, 0, {}).fates) {
    ASSERT_EQ(arrivals.size(), 1U);
    EXPECT_EQ(arrivals[0].delay, 0);
    EXPECT_EQ(arrivals[0].damage, 0U);
  }
}

TEST(LossyLink, GivesTheSharesThatWereAskedFor) {
  const LinkCounts counts = Decide(1, 0, {10, 20, 30, 5, 0, 0}).counts;
  EXPECT_EQ(counts.taken, kDatagrams);
  EXPECT_NEAR(Percent(counts.lost), 10, 1);
  EXPECT_NEAR(Percent(counts.duplicated), 20 * 0.9, 1);
  EXPECT_NEAR(Percent(counts.heldBack), 30 * 0.9 * 1.2, 1.5);
  EXPECT_NEAR(Percent(counts.corrupted), 5 * 0.9 * 1.2, 1);
  EXPECT_EQ(Decide(1, 0, {100, 0, 0, 0, 0, 0}).counts.lost, kDatagrams);
}

TEST(LossyLink, KeepsDelaysWithinTheirBounds) {
  int64_t least = INT64_MAX;
  int64_t most = 0;
  for (const auto& arrivals : Decide(1, 0, {0, 0, 0, 0, 10, 20}).fates) {
    least = std::min(least, arrivals[0].delay);
    most = std::max(most, arrivals[0].delay);
  }
  EXPECT_GE(least, 100'000);
  EXPECT_LT(least, 110'000);
  EXPECT_LT(most, 300'000);
  EXPECT_GT(most, 290'000);
}

// A run that failed somewhere must fail everywhere: the first fates of a seed, told once for all.
TEST(LossyLink, DecidesAlikeOnEverySystem) {
  LossyLink link(640, 3);
  link.SetFaults({20, 30, 30, 40, 2, 10});
  std::string fates;
  for (int i = 0; i < 12; ++i) {
    fates += '|';
    for (const Arrival& arrival : link.Next())
      fates += std::to_string(arrival.delay) + (arrival.damage ? "!" : "") + ' ';
  }
  EXPECT_EQ(fates,
            "|76165 |25833 43913 ||195121 153073 |281708 |236801 |257220 |114010 |47706! "
            "|361787 45573! ||224540 ");
}

TEST(LossyLink, DecidesByTheSeedAndTheNumber) {
  const auto lost = [](const Tally& tally) {
    std::vector<bool> row;
    for (const auto& arrivals : tally.fates)
      row.push_back(arrivals.empty());
    return row;
  };
  const auto row = lost(Decide(1, 0, {50, 0, 0, 0, 0, 0}));
  EXPECT_NE(row, lost(Decide(2, 0, {50, 0, 0, 0, 0, 0})));
  EXPECT_NE(row, lost(Decide(1, 1, {50, 0, 0, 0, 0, 0})));
  // Another fault beside it doesn't change which are lost.
  EXPECT_EQ(row, lost(Decide(1, 0, {50, 30, 20, 10, 5, 5})));
}

TEST(LossyLink, DamageAlwaysChangesSomething) {
  for (size_t size = 1; size < 40; ++size) {
    for (uint64_t damage = 1; damage < 400; damage += 2) {
      std::vector<uint8_t> bytes(size, 0);
      Damage(damage, bytes.data(), bytes.size());
      size_t changed = 0;
      for (const uint8_t byte : bytes)
        changed += byte != 0;
      ASSERT_GE(changed, 1U);
      ASSERT_LE(changed, 4U);
    }
  }
  Damage(1, nullptr, 0);
}

}  // namespace
