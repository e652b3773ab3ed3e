// "up --detach", which leaves a run behind, and "down", which ends it. They find each other by
// files in the run's folder alone: a process number could be another program's by then.
#include <chrono>
#include <system_error>

#include "Commands.h"
#include "OutputReader.h"
#include "RunFolder.h"
#include "platform/child.h"
#include "platform/paths.h"
#include "platform/startup.h"
#include "platform/text.h"

namespace ctl {

namespace files = std::filesystem;

namespace {

constexpr uint32_t kLookMs = 50;
constexpr uint32_t kEndMs = 20'000;  // an "up" gives its emulator ten seconds
constexpr uint32_t kTidyMs = 3'000;  // and its folder two

}  // namespace

// The same command line once more, in the background. What it says comes through here until it has
// announced its units, as it lets go of its streams then, or has failed.
int RunDetached(const UpOptions& options, Output& out) {
  platform::ChildOptions start;
  start.command = {platform::WideToUtf8Lossy(platform::ModuleFile(nullptr))};
  start.command.insert(start.command.end(), options.arguments.begin(), options.arguments.end());
  start.command.emplace_back("--background");
  start.piped = true;
  start.detached = true;
  platform::Child background;
  if (const uint32_t error = background.Start(start); error != 0) {
    throw Failure{kRefused, "can't start " + start.command.front() + " in the background: " +
                                std::system_category().message(static_cast<int>(error))};
  }
  background.CloseInput();
  OutputReader reader(background, [](const std::string& bytes) { platform::WriteOutput(bytes); });
  while (!reader.WaitEnd(kLookMs)) {
    if (platform::WaitForStop(0)) background.Terminate();
  }
  if (!reader.WaitFor({kRunVariable}, 0).empty()) return kDone;
  const auto status = background.Wait(kEndMs);
  if (!status) out.Error("the run in the background has ended its output and goes on");
  return status.value_or(kRefused);
}

int RunDown(Session& session, const DownOptions& options, Output& out) {
  std::vector<files::path> runs;
  if (options.run.empty()) {
    runs = RunFolder::Detached();
  } else if (RunFolder::IsRunning(options.run)) {
    runs.emplace_back(options.run);
  }
  if (runs.empty()) {
    out.Line(options.run.empty() ? "no detached run of yours is there"
                                 : "no run of yours has " + options.run);
    return kDone;
  }
  if (runs.size() > 1 && !options.all) {
    std::string names;
    for (const files::path& run : runs)
      names += (names.empty() ? "" : ", ") + run.string();
    throw Failure{kUsage,
                  std::to_string(runs.size()) +
                      " detached runs are there; name one, or end them with --all: " + names};
  }
  for (const files::path& run : runs) {
    if (!RunFolder::AskToStop(run)) {
      throw Failure{kRefused, "can't ask the run in " + run.string() +
                                  " to end: no leave to write there; who started it?"};
    }
  }
  for (const files::path& run : runs) {
    const auto stopped = [&run] { return !RunFolder::IsRunning(run); };
    if (!session.Loop().RunUntil(stopped, std::chrono::milliseconds(kEndMs))) {
      throw Failure{kRefused, "the run in " + run.string() + " hasn't ended within 20 s"};
    }
    // The next command finds nothing of it. Where something stays, the next "up" removes it.
    session.Loop().RunUntil([&run] { return RunFolder::IsLeft(run); },
                            std::chrono::milliseconds(kTidyMs));
    out.Line("ended " + run.string());
    out.Object(Fields().Add("run", run.string()).Add("ended", 1));
  }
  return kDone;
}

}  // namespace ctl
