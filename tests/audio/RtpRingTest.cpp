// The ring of the manager against a model of it, over long random lives of a stream.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "support/RingDuel.h"

namespace {

void ExpectAgreement(const std::vector<uint8_t>& script, const std::string& name) {
  RingDuel duel;
  duel.Play(script.data(), script.size());
  EXPECT_FALSE(duel.difference) << name << ": " << *duel.difference;
}

}  // namespace

TEST(RtpRing, AgreesWithTheModelOnRandomEvents) {
  std::mt19937 random(20260705);
  for (int life = 0; life < 150; ++life) {
    std::vector<uint8_t> script(600);
    for (uint8_t& byte : script)
      byte = static_cast<uint8_t>(random());
    ExpectAgreement(script, "life " + std::to_string(life));
    if (HasFailure()) break;
  }
}

// A sender with loss, jitter, doubled packets and a clock of its own, through a wrap.
TEST(RtpRing, AgreesWithTheModelOnADriftingSender) {
  std::mt19937 random(7);
  const auto oneIn = [&](uint32_t n) { return random() % n == 0; };
  RingDuel duel;
  duel.Init(2, 9, 5);
  uint32_t seq = 65000;
  for (int step = 0; step < 70'000 && !duel.difference; ++step) {
    if (!oneIn(211)) ++seq;  // the sender is a little slow
    for (size_t channel = 0; channel < 2; ++channel) {
      const uint32_t jittered = oneIn(20) ? seq - random() % 8 : seq;
      if (!oneIn(50)) duel.Deliver(channel, static_cast<uint16_t>(jittered), jittered * 192);
      if (oneIn(50)) duel.Deliver(channel, static_cast<uint16_t>(jittered), jittered * 192);
    }
    duel.Tick();
  }
  EXPECT_FALSE(duel.difference) << *duel.difference;
}

// What the fuzzer found worth keeping.
TEST(RtpRing, AgreesWithTheModelOnTheCorpus) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(QZ_CORPUS "/FuzzRtpManager")) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<uint8_t> script{std::istreambuf_iterator<char>(file), {}};
    ExpectAgreement(script, entry.path().filename().string());
    ++count;
  }
  EXPECT_GT(count, 0u);
}
