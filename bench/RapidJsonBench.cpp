// The text of JsonBench.cpp by RapidJSON.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "Fields.h"

namespace {

size_t Write(const Fields& fields, char* datagram) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartObject();
  writer.Key("msg");
  writer.String(fields.msg.c_str());
  writer.Key("unit_id");
  writer.String(fields.unit_id.c_str());
  writer.Key("unit_type");
  writer.String(fields.unit_type.c_str());
  for (size_t i = 0; i < std::size(kNumbers); ++i) {
    writer.Key(kNumbers[i]);
    writer.Uint(fields.numbers[i]);
  }
  writer.EndObject();
  const size_t size = text.GetSize() + 1;
  std::memcpy(datagram, text.GetString(), size);
  return size;
}

void BM_RapidJsonToDatagram(benchmark::State& state) {
  const Fields fields;
  char datagram[kDatagram];
  for (auto _ : state) {
    benchmark::DoNotOptimize(Write(fields, datagram));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_RapidJsonToDatagram);

void BM_RapidJsonFromDatagram(benchmark::State& state) {
  char text[kDatagram];
  Write(Fields{}, text);
  for (auto _ : state) {
    rapidjson::Document tree;
    tree.Parse(text);
    auto fields = std::make_unique<Fields>();
    fields->msg = tree["msg"].GetString();
    fields->unit_id = tree["unit_id"].GetString();
    fields->unit_type = tree["unit_type"].GetString();
    for (size_t i = 0; i < std::size(kNumbers); ++i)
      fields->numbers[i] = tree[kNumbers[i]].GetUint();
    benchmark::DoNotOptimize(fields.get());
  }
}
BENCHMARK(BM_RapidJsonFromDatagram);

}  // namespace
