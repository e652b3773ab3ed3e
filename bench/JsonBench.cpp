// One control message in and out, beside what a user would otherwise take for the same texts.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Fields.h"
#include "control/JsonMsgs.h"

using namespace Network;

namespace {

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

// The same text by nlohmann/json, from fields to a datagram and back, in UTF-8 throughout.
void BM_NlohmannToDatagram(benchmark::State& state) {
  const Fields fields;
  char datagram[kDatagram];
  size_t size = 0;
  for (auto _ : state) {
    nlohmann::json tree;
    tree["msg"] = fields.msg;
    tree["unit_id"] = fields.unit_id;
    tree["unit_type"] = fields.unit_type;
    for (size_t i = 0; i < std::size(kNumbers); ++i)
      tree[kNumbers[i]] = fields.numbers[i];
    const std::string text = tree.dump();
    size = text.size() + 1;
    std::memcpy(datagram, text.c_str(), size);
    benchmark::DoNotOptimize(datagram);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}
BENCHMARK(BM_NlohmannToDatagram);

void BM_NlohmannFromDatagram(benchmark::State& state) {
  Packet packet(kDatagram);
  JsonMsgDevInfo msg;
  Describe(msg).ToPacket(packet);
  const char* text = reinterpret_cast<const char*>(packet.Data());
  for (auto _ : state) {
    const nlohmann::json tree = nlohmann::json::parse(text);
    auto fields = std::make_unique<Fields>();
    fields->msg = tree.at("msg").get<std::string>();
    fields->unit_id = tree.at("unit_id").get<std::string>();
    fields->unit_type = tree.at("unit_type").get<std::string>();
    for (size_t i = 0; i < std::size(kNumbers); ++i)
      fields->numbers[i] = tree.at(kNumbers[i]).get<uint32_t>();
    benchmark::DoNotOptimize(fields.get());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(packet.Size()));
}
BENCHMARK(BM_NlohmannFromDatagram);

}  // namespace
