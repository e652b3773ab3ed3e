// The lines of LogBench.cpp by spdlog's asynchronous logger.
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

void SpdlogLines(benchmark::State& state) {
  const std::chrono::microseconds pause(state.range(0));
  const size_t lines = pause.count() == 0 ? 100'000 : 2'000;
  const std::string text(90, 'x');
  const std::filesystem::path path = std::filesystem::temp_directory_path() / "qz-bench-spdlog.log";
  std::vector<int64_t> calls;
  calls.reserve(lines);
  for (auto _ : state) {
    auto pool = std::make_shared<spdlog::details::thread_pool>(lines, 1);  // room for all of them
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path.string(), true);
    auto log = std::make_shared<spdlog::async_logger>("bench", sink, pool);
    calls.clear();
    for (size_t i = 0; i < lines; ++i) {
      const Clock::time_point before = Clock::now();
      log->info(text);
      const Clock::time_point after = Clock::now();
      calls.push_back((after - before).count());
      while (Clock::now() - after < pause) {
      }
    }
    log.reset();
    pool.reset();  // waits until all lines are in the file
    sink->flush();
  }
  std::filesystem::remove(path);
  std::nth_element(calls.begin(), calls.begin() + static_cast<ptrdiff_t>(lines / 2), calls.end());
  state.counters["caller_p50_ns"] = static_cast<double>(calls[lines / 2]);
  state.SetItemsProcessed(static_cast<int64_t>(lines) * state.iterations());
}
BENCHMARK(SpdlogLines)->Arg(0)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
