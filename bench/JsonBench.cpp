// One control message in and out.
#include <benchmark/benchmark.h>

#include <memory>

#include "control/JsonMsgs.h"

using namespace Network;

namespace {

constexpr size_t kDatagram = 1432;

JsonMsgDevInfo& Describe(JsonMsgDevInfo& msg) {
  msg.unit_id = L"QZ820-000001";
  msg.unit_type = L"QZ820";
  msg.rtp_port = 8002;
  msg.inputs = 4;
  return msg;
}

void BM_MessageToDatagram(benchmark::State& state) {
  JsonMsgDevInfo msg;
  Describe(msg);
  Packet packet(kDatagram);
  for (auto _ : state) {
    msg.ToPacket(packet);
    benchmark::DoNotOptimize(packet.Data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(packet.Size()));
}
BENCHMARK(BM_MessageToDatagram);

void BM_MessageFromDatagram(benchmark::State& state) {
  JsonMsgDevInfo msg;
  Packet packet(kDatagram);
  Describe(msg).ToPacket(packet);
  for (auto _ : state) {
    const std::unique_ptr<JsonMsg> got(JsonMsg::FromPacket(packet));
    benchmark::DoNotOptimize(got.get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(packet.Size()));
}
BENCHMARK(BM_MessageFromDatagram);

}  // namespace
