// A machine short of memory: any single allocation on the way of a request may fail. What is lost
// is that request at most; a unit that took the process with it would silence all others as well.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "emulator/AllocationCount.h"
#include "emulator/AudioCardEmu.h"
#include "platform/socket.h"
#include "support/CapturedLog.h"

namespace Network {
namespace {

constexpr uint16_t kPort = 25710;

platform::SocketAddress Local(uint16_t port) {
  platform::SocketAddress address;
  address.port[0] = static_cast<uint8_t>(port >> 8);
  address.port[1] = static_cast<uint8_t>(port);
  const uint8_t bytes[] = {127, 0, 77, 1};
  std::copy(std::begin(bytes), std::end(bytes), address.address);
  return address;
}

class Controller {
 public:
  Controller() {
    EXPECT_TRUE(socket_.OpenUdp().Ok());
    EXPECT_TRUE(socket_.Bind(Local(0)).Ok());
    EXPECT_TRUE(socket_.Watch(arrived_, platform::kSocketRead).Ok());
  }

  // Asks until an answer comes, each time under a new number, as a repeated one is answered once.
  // False after ten seconds without one.
  bool IsAnswered() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < end) {
      Send(R"({"msg":"get_dev_info","msg_id":)" + std::to_string(++number_) + "}");
      const auto patience = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
      while (std::chrono::steady_clock::now() < patience) {
        if (TookAnswer()) return true;
        waiter_->Wait(10);
      }
    }
    return false;
  }

 private:
  void Send(const std::string& text) {
    EXPECT_TRUE(socket_.SendTo(text.c_str(), text.size() + 1, Local(kPort)).Ok());
  }

  // Takes what has arrived, and acknowledges each answer, so that the unit can send the next one.
  bool TookAnswer() {
    bool answered = false;
    char bytes[2048];
    platform::SocketAddress from;
    socket_.Pending();
    for (;;) {
      const platform::SocketResult got = socket_.RecvFrom(bytes, sizeof(bytes), &from);
      if (!got.Ok()) return answered;
      const std::string text(bytes, static_cast<size_t>(got.count));
      if (text.find(R"("msg":"dev_info")") == std::string::npos) continue;
      const size_t id = text.find(R"("msg_id":)") + 9;
      Send(R"({"ack_msg_id":)" + text.substr(id, text.find_first_of(",}", id) - id) +
           R"(,"msg":"ack","msg_id":)" + std::to_string(++number_) + "}");
      answered = true;
    }
  }

  std::shared_ptr<platform::Waiter> waiter_ = std::make_shared<platform::Waiter>();
  std::shared_ptr<platform::WakeSet> arrived_ = std::make_shared<platform::WakeSet>(waiter_);
  platform::Socket socket_;
  uint32_t number_ = 0;
};

TEST(Memory, AnyAllocationOfARequestMayFail) {
  EmuSettings settings;
  settings.AddrStr = L"127.0.77.1";
  UnitSettings unitSettings;
  unitSettings.BasePort = kPort;
  const auto net = INetManager::Create();
  AudioCardEmu unit(net.get());
  ASSERT_TRUE(unit.Init(settings, unitSettings).IsOk());
  ASSERT_TRUE(unit.Start().IsOk());
  Log().Allow(L" Method=");  // what a request was lost by

  Controller controller;
  for (int64_t index = 0; index < 300; ++index) {
    FailAllocation(index);
    do {
      ASSERT_TRUE(controller.IsAnswered()) << "after allocation " << index << " failed";
    } while (AllocationFailureIsDue());
  }
}

}  // namespace
}  // namespace Network
