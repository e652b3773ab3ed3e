// The ends that meet from two threads, thousands of times each. What is lost when one isn't closed
// is memory (ThreadSanitizer and AddressSanitizer tell), the process, or silence after Stop.
#include <gtest/gtest.h>

#include "emulator/Doubles.h"
#include "emulator/SettingsFile.h"
#include "support/CapturedLog.h"
#include "support/System.h"

namespace Network {
namespace {

const int kRounds = static_cast<int>(2000 / TimeFactor());

const NetAddr kController = Addr(L"127.0.0.9:7000");

std::shared_ptr<JsonMsg> SetState(uint32_t freq) {
  auto request = std::make_shared<JsonMsgSetState>();
  request->device_freq = freq;
  return request;
}

std::shared_ptr<JsonMsg> SetInput(const wchar_t* text) {
  auto request = std::make_shared<JsonMsgSetInputs>();
  auto& input = request->inputs.emplace_back();
  input.set = true;
  input.addr = Addr(text);
  return request;
}

// A broadcast that arrives while the units go must neither reach half of a unit nor be the last to
// hold one: a unit that dies on the network's worker would wait there for its own threads.
TEST(Overlap, BroadcastDuringStop) {
  Bench bench;
  bench.telling = false;
  SettingsFile file;
  file.Write(R"({"units":[{"UnitId":"a"},{"UnitId":"b"},{"UnitId":"c"}]})");
  EmulatorParts parts = bench.EmulatorParts();
  parts.SettingsPath = file.Path();
  Emulator emulator(parts);

  const auto find = std::make_shared<JsonMsgDevFind>();
  Repeater worker;  // the last to come, so that it ends first
  worker.Start([&] { emulator.OnMsgReceived(bench.listener, find, kController); });
  for (int i = 0; i < kRounds; ++i) {
    ASSERT_TRUE(emulator.Init().IsOk());
    ASSERT_TRUE(emulator.Start().IsOk());
    ASSERT_TRUE(emulator.Stop().IsOk());
  }
}

// set_state stops and starts the audio on the connection's thread; a Stop that comes in between
// must have the last word.
TEST(Overlap, SetStateDuringStop) {
  Bench bench;
  bench.telling = false;
  AudioCardEmu unit(nullptr, bench.UnitParts());
  ASSERT_TRUE(unit.Init(EmuSettings(), UnitSettings()).IsOk());
  const auto requests = {SetState(44100), SetState(48000), SetState(96000)};
  Log().Allow(L"Sample freq 96000 is not supported");

  for (int i = 0; i < kRounds; ++i) {
    ASSERT_TRUE(unit.Start().IsOk());
    std::thread connection([&] {
      for (const auto& request : requests)
        bench.connect->Deliver(request, kController);
    });
    for (int yields = i % 8; yields > 0; --yields)
      std::this_thread::yield();
    ASSERT_TRUE(unit.Stop().IsOk());
    ASSERT_FALSE(bench.sync->IsStarted());
    connection.join();
    ASSERT_FALSE(bench.sync->IsStarted());  // what came behind Stop didn't bring it back
  }
}

// The connection is the last to be released, so requests arrive until the very end of a unit whose
// clock and streams go first.
TEST(Overlap, DestructionWhileRequestsArriveAndTicksRun) {
  Bench bench;
  bench.telling = false;
  bench.requesting = true;
  bench.ticking = true;
  bench.requests = {
      SetInput(L"10.0.0.1:5000"),           SetState(44100), std::make_shared<JsonMsgGetInputs>(),
      SetInput(L"10.0.0.2:5000"),           SetState(48000), std::make_shared<JsonMsgGetFmFreq>(),
      std::make_shared<JsonMsgGetDevInfo>()};
  const EmuSettings settings;
  const UnitSettings unitSettings;
  for (int i = 0; i < kRounds; ++i) {
    auto unit = std::make_unique<AudioCardEmu>(nullptr, bench.UnitParts());
    ASSERT_TRUE(unit->Init(settings, unitSettings).IsOk());
    ASSERT_TRUE(unit->Start().IsOk());
    if (i % 25 == 0) {
      ASSERT_TRUE(unit->Stop().IsOk());
    }
    unit.reset();
  }
}

}  // namespace
}  // namespace Network
