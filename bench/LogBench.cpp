// What a line of the log costs the thread that writes it, and how many lines a second the writer
// takes to the file.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/text.h"
#include "runtime/DebugLog.h"

namespace {

using Clock = std::chrono::steady_clock;

// Each iteration is a run of lines, up to where all of them stand in the file. The argument is the
// pause between two lines in microseconds: without one the writer is always awake, with one it has
// fallen asleep and each line wakes it. "caller_p50_ns" holds a reading of the clock too.
void LogLines(benchmark::State& state) {
  const std::chrono::microseconds pause(state.range(0));
  const size_t lines = pause.count() == 0 ? 100'000 : 2'000;
  const std::wstring text(90, L'x');
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "qz-bench-log";
  std::filesystem::create_directory(dir);
  std::filesystem::permissions(dir, std::filesystem::perms::owner_all);
  const LogParams params{.dir = Utf8ToWide(dir.string()), .name = L"bench", .maxFileSize = 0};
  std::vector<int64_t> calls;
  calls.reserve(lines);
  for (auto _ : state) {
    std::shared_ptr<IDebugLog> log = CreateDebugLog(params);
    calls.clear();
    for (size_t i = 0; i < lines; ++i) {
      const Clock::time_point before = Clock::now();
      log->Write(text);
      const Clock::time_point after = Clock::now();
      calls.push_back((after - before).count());
      while (Clock::now() - after < pause) {
      }
    }
    log->SetSniffer(nullptr);
    state.PauseTiming();
    log.reset();
    std::filesystem::remove(dir / "bench.log");
    state.ResumeTiming();
  }
  std::filesystem::remove(dir);
  std::nth_element(calls.begin(), calls.begin() + static_cast<ptrdiff_t>(lines / 2), calls.end());
  state.counters["caller_p50_ns"] = static_cast<double>(calls[lines / 2]);
  state.SetItemsProcessed(static_cast<int64_t>(lines) * state.iterations());
}
BENCHMARK(LogLines)->Arg(0)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
