// The ends that meet from two threads, hundreds of times each. What is lost when one isn't closed
// is memory (ThreadSanitizer and AddressSanitizer report it) or the process.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "emulator/Emulator.h"
#include "emulator/FakeNets.h"
#include "support/System.h"
#include "support/TempDir.h"

namespace Network {
namespace {

const int kRounds = static_cast<int>(200 / TimeFactor());

// Sends messages to a port over and over, on a thread of its own.
class Sender {
 public:
  Sender(std::shared_ptr<FakeUdpSock> sock, std::vector<DatagramBytes> messages)
      : thread_([this, sock, messages] {
          for (size_t next = 0; !stop_; ++next)
            sock->Deliver(messages[next % messages.size()], Addr(L"10.0.0.9:7000"));
        }) {}
  ~Sender() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A broadcast that arrives while the units go must neither reach half of a unit nor be the last to
// hold one: a unit that dies on the network's worker would wait there for its own threads.
// set_state stops and starts the audio on the connection's thread, which is the last of a unit's
// parts to be released: requests arrive while the main thread stops the unit, and until its very
// end.
TEST(Overlap, MessagesDuringStop) {
  // Nobody acknowledges here, and the end comes between an answer's turn and its way out.
  for (const wchar_t* failure :
       {L"Send queue full", L"Bad socket", L"send failed", L"Sample freq 96000 is not supported"})
    Log().Allow(failure);
  std::vector<DatagramBytes> messages;
  for (const uint32_t freq : {44100u, 48000u, 96000u}) {
    messages.push_back(ToDatagram(*SetState(freq)));
    messages.push_back(ToDatagram(*SetInput(Addr(L"10.0.0.1:5000"))));
    messages.push_back(ToDatagram(JsonMsgGetInputs()));
  }
  const TempDir dir;
  dir.Write("emu.json", R"({"AddrStr":"127.0.0.5","units":[{"UnitId":"a"},{"UnitId":"b"}]})");
  for (int i = 0; i < kRounds; ++i) {
    FakeNets nets;
    Emulator emulator(nets.Factory(), dir.Wide("emu.json"));
    ASSERT_TRUE(emulator.Init().IsOk());
    ASSERT_TRUE(emulator.Start().IsOk());
    const Sender broadcasts(nets.Bound(15001), {ToDatagram(JsonMsgDevFind())});
    const Sender requests(nets.Bound(8000), messages);
    for (int yields = i % 8; yields > 0; --yields)
      std::this_thread::yield();
    ASSERT_TRUE(emulator.Stop().IsOk());
  }
}

}  // namespace
}  // namespace Network
