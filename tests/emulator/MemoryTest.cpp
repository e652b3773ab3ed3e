// A machine short of memory: any single allocation on the way of a request may fail. What is lost
// is that request at most; a unit that took the process with it would silence all others as well.
#include <gtest/gtest.h>

#include <chrono>

#include "emulator/AllocationCount.h"
#include "emulator/AudioCardEmu.h"
#include "support/CapturedLog.h"
#include "wire/Link.h"

namespace Network {
namespace {

const wire::Endpoint kUnit("127.0.77.1", 25710);

// Asks until an answer comes, each time under a new number, as a repeated one is answered once.
// False after ten seconds without one.
bool IsAnswered(wire::Link& controller) {
  const auto end = wire::Clock::now() + std::chrono::seconds(10);
  while (wire::Clock::now() < end) {
    try {
      controller.Ask(kUnit, "get_dev_info", "dev_info", wire::Json::object(), {},
                     std::chrono::milliseconds(20));
      return true;
    } catch (const wire::NoAnswer&) {
    }
  }
  return false;
}

TEST(Memory, AnyAllocationOfARequestMayFail) {
  EmuSettings settings;
  settings.AddrStr = L"127.0.77.1";
  UnitSettings unitSettings;
  unitSettings.BasePort = kUnit.port;
  const auto net = INetManager::Create();
  AudioCardEmu unit(net.get());
  ASSERT_TRUE(unit.Init(settings, unitSettings).IsOk());
  ASSERT_TRUE(unit.Start().IsOk());
  Log().Allow(L" Method=");  // what a request was lost by

  wire::Loop loop;
  wire::Link controller(loop, {"127.0.77.1", 0});
  for (int64_t index = 0; index < 300; ++index) {
    FailAllocation(index);
    do {
      ASSERT_TRUE(IsAnswered(controller)) << "after allocation " << index << " failed";
    } while (AllocationFailureIsDue());
  }
}

}  // namespace
}  // namespace Network
