// The soak: the real emulator with 20 units under everything that a test network can send it, for
// as long as told. Measures while it runs, prints a table at the end, and judges it.
//
//   soak MINUTES [SEED]
//
// Status 0: all held. 1: something broke, named in a sentence. 2: usage.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "soak/Exchanges.h"
#include "soak/Floods.h"
#include "soak/Machine.h"
#include "soak/Streams.h"
#include "support/Process.h"
#include "support/System.h"
#include "support/WireController.h"

namespace {

namespace files = std::filesystem;
using soak::Exchanges;
using wire::Clock;

constexpr int kUnits = 20;  // QZ610 and QZ820 in turn
constexpr uint16_t kBasePort = 8000;
constexpr uint16_t kBroadcastPort = 15001;
constexpr uint16_t kPortsOfQz610 = 6;
constexpr uint16_t kPortsOfQz820 = 10;

constexpr auto kLook = std::chrono::milliseconds(200);
constexpr auto kProgress = std::chrono::seconds(5);
constexpr auto kQuiet = std::chrono::seconds(1);  // before the flood
constexpr auto kRest = std::chrono::seconds(4);   // at each mark
constexpr auto kPatience = std::chrono::seconds(20);
constexpr auto kEnd = std::chrono::seconds(60);

constexpr double kMarks[] = {0.25, 0.5, 1};  // of the run: when the flood rests

// What has to hold. There is room for a machine that has other things to do: the floods alone take
// more of its processors than they leave.
constexpr double kMemoryGrowth = 1.05;
constexpr double kMemoryNoiseMiB = 1;  // of a few: pages that are half in use
constexpr double kPeakMiB = 256;
constexpr double kMissedTicks = 0.10;  // of all
constexpr double kHealMs = 3000;

volatile std::sig_atomic_t interrupted = 0;

double Seconds(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

// The emulator's log as it shows it: counted, not kept.
class LogCounter {
 public:
  void Take(std::string_view part) {
    text_.append(part);
    size_t begin = 0;
    for (size_t end = 0; (end = text_.find('\n', begin)) != std::string::npos; begin = end + 1) {
      const std::string_view line(text_.data() + begin, end - begin);
      if (line.size() < 2) continue;  // the blank one behind each
      ++lines;
      if (line.find("Internal sync timeout") != line.npos) ++timeouts;
      if (line.find("Send queue full") != line.npos) ++fullQueues;
      if (line.find(" Start OK") != line.npos) started = true;
      if (line.find("Stop  OK") != line.npos) stopped = true;
    }
    text_.erase(0, begin);
  }

  std::atomic<uint64_t> lines{0};
  std::atomic<uint64_t> timeouts{0};
  std::atomic<uint64_t> fullQueues{0};
  std::atomic<bool> started{false};
  std::atomic<bool> stopped{false};

 private:
  std::string text_;  // the line that is still incomplete
};

class Soak {
 public:
  Soak(double minutes, uint64_t seed);
  ~Soak();

  int Run();

 private:
  void StartEmulator();
  void StartStreams();
  void Flood();
  void ShowProgress(double part);
  void StopEmulator();
  void MeasureQuiet();
  void Report();
  void Judge();
  void Broken(const std::string& sentence) { broken_.push_back(sentence); }

  const Clock::duration length_;
  const uint64_t seed_;
  const std::string address_ = wire::OwnAddress();
  const files::path folder_;
  const bool terminal_ = soak::OutputIsTerminal();

  std::vector<Exchanges::Unit> units_;
  std::vector<wire::Endpoint> outputs_;
  std::shared_ptr<LogCounter> log_ = std::make_shared<LogCounter>();
  std::unique_ptr<Process> emulator_;
  std::vector<std::unique_ptr<soak::Stream>> streams_;  // of units whose clock follows no stream
  std::unique_ptr<wire::Socket> sink_;                  // for all other inputs
  std::unique_ptr<Exchanges> exchanges_;
  std::unique_ptr<soak::ControlFlood> controlFlood_;
  std::unique_ptr<soak::RtpFlood> rtpFlood_;

  soak::Use use_;                 // the latest
  double peakMiB_ = 0;            // of the memory
  std::vector<soak::Use> quiet_;  // at each of kMarks
  std::vector<soak::Stream::Result> ticks_;
  double healMs_ = 0;
  double endSeconds_ = 0;
  std::vector<std::string> broken_;
};

Soak::Soak(double minutes, uint64_t seed)
    : length_(std::chrono::duration_cast<Clock::duration>(
          std::chrono::duration<double>(std::max(1.0, minutes * 60)))),
      seed_(seed),
      folder_(files::temp_directory_path() / ("qz640emu-soak-" + std::to_string(OwnProcessId()))) {}

Soak::~Soak() {
  emulator_.reset();
  std::error_code ignored;
  files::remove_all(folder_, ignored);
}

void Soak::StartEmulator() {
  files::create_directories(folder_ / "tmp");
  const files::path executable = folder_ / files::path(QZ_EMULATOR).filename();
  files::copy_file(QZ_EMULATOR, executable);

  std::ostringstream settings;
  settings << R"({"AddrStr":")" << address_ << R"(","BasePort":)" << kBasePort
           << R"(,"BroadcastPort":)" << kBroadcastPort << R"(,"units":[)";
  uint16_t port = kBasePort;
  for (int i = 0; i < kUnits; ++i) {
    const bool tuner = i % 2 != 0;
    settings << (i ? "," : "") << R"({"Mode":)" << i % 5 << R"(,"SampleFreq":48000,)"
             << R"("Speed":1.00000,"UnitId":"soak-)" << i << R"(","UnitType":")"
             << (tuner ? "QZ820" : "QZ610") << R"("})";
    units_.push_back({{address_, port}, tuner});
    if (!tuner) outputs_.push_back({address_, static_cast<uint16_t>(port + 2)});
    port = static_cast<uint16_t>(port + (tuner ? kPortsOfQz820 : kPortsOfQz610));
  }
  settings << "]}";
  std::ofstream(executable.string() + ".json", std::ios::binary) << settings.str();

  Process::Options options;
  options.environment = {{"TMPDIR", (folder_ / "tmp").string()}};
  options.takeOutput = [log = log_](std::string_view part) { log->Take(part); };
  emulator_ = std::make_unique<Process>(executable, options);
  const Clock::time_point begun = Clock::now();
  while (!log_->started) {
    if (emulator_->HasEnded() || Clock::now() - begun > Process::kPatience) {
      throw std::runtime_error("the emulator doesn't start");
    }
    std::this_thread::sleep_for(kLook);
  }
}

// All inputs of all units send.
void Soak::StartStreams() {
  sink_ = std::make_unique<wire::Socket>(wire::Endpoint{address_, 0}, [](const wire::Datagram&) {});
  const std::string sink = wire::Quoted(sink_->Local().ToText());
  wire::Controller controller(address_);
  for (const Exchanges::Unit& unit : units_) {
    std::string inputs = sink;
    if (unit.tuner) {
      streams_.push_back(std::make_unique<soak::Stream>(address_));
      inputs = wire::Quoted(streams_.back()->Local().ToText());
      for (int i = 1; i < 4; ++i)
        inputs += "," + sink;
    }
    controller.Tell(unit.control, "set_inputs", R"("inputs":[)" + inputs + "]");
  }
}

int Soak::Run() {
  StartEmulator();
  StartStreams();
  std::vector<wire::Endpoint> controls;
  for (const Exchanges::Unit& unit : units_)
    controls.push_back(unit.control);
  exchanges_ = std::make_unique<Exchanges>(address_, units_);
  controlFlood_ = std::make_unique<soak::ControlFlood>(address_, seed_, controls,
                                                       wire::Endpoint{address_, kBroadcastPort});
  rtpFlood_ = std::make_unique<soak::RtpFlood>(address_, seed_ + 1, outputs_);

  Flood();
  if (interrupted) {
    std::cout << "interrupted" << std::endl;
    return 1;
  }
  StopEmulator();
  Report();
  Judge();
  for (const std::string& sentence : broken_)
    std::cout << "FAILED: " << sentence << "\n";
  if (broken_.empty()) std::cout << "PASS: all of it held\n";
  return broken_.empty() ? 0 : 1;
}

void Soak::Flood() {
  std::this_thread::sleep_for(kQuiet);  // every stream has begun
  controlFlood_->Start();
  rtpFlood_->Start();
  const Clock::time_point begun = Clock::now();
  Clock::time_point shown = begun;
  while (quiet_.size() < std::size(kMarks) && !interrupted) {
    std::this_thread::sleep_for(kLook);
    use_ = soak::ReadUse(emulator_->Id());
    peakMiB_ = std::max(peakMiB_, use_.memoryMiB);
    const double part = std::min(1.0, Seconds(Clock::now() - begun) / Seconds(length_));
    if (Clock::now() - shown >= kProgress) {
      ShowProgress(part);
      shown = Clock::now();
    }
    if (part >= kMarks[quiet_.size()]) MeasureQuiet();
  }
  controlFlood_->Stop();
  rtpFlood_->Stop();
  for (const auto& stream : streams_)
    ticks_.push_back(stream->SoFar());
  if (terminal_) std::cout << "\n";
}

// What the emulator keeps once it has dealt with everything. In the flood itself lines of the log
// wait, and how many is the machine's affair.
void Soak::MeasureQuiet() {
  controlFlood_->Pause(true);
  rtpFlood_->Pause(true);
  healMs_ = std::max(healMs_, exchanges_->WaitAllAnswer(kPatience));
  exchanges_->Pause(true);
  soak::Use least = soak::ReadUse(emulator_->Id());
  for (const Clock::time_point begun = Clock::now(); Clock::now() - begun < kRest;) {
    std::this_thread::sleep_for(kLook);
    const soak::Use use = soak::ReadUse(emulator_->Id());
    least.memoryMiB = std::min(least.memoryMiB, use.memoryMiB);
    least.threads = std::min(least.threads, use.threads);
    least.descriptors = std::min(least.descriptors, use.descriptors);
  }
  quiet_.push_back(least);
  exchanges_->Pause(false);
  controlFlood_->Pause(false);
  rtpFlood_->Pause(false);
}

void Soak::ShowProgress(double part) {
  char line[200];
  std::snprintf(line, sizeof line,
                "%3.0f %%  %5.1f MiB  %d threads  %d descriptors  %.2fM exchanges  %.2fM control"
                "  %.2fM RTP  %.2fM log lines",
                part * 100, use_.memoryMiB, use_.threads, use_.descriptors,
                static_cast<double>(exchanges_->SoFar().complete) / 1e6,
                static_cast<double>(controlFlood_->Sent()) / 1e6,
                static_cast<double>(rtpFlood_->Sent()) / 1e6,
                static_cast<double>(log_->lines) / 1e6);
  std::cout << (terminal_ ? "\r" : "") << line << (terminal_ ? "   " : "\n") << std::flush;
}

void Soak::StopEmulator() {
  const Clock::time_point begun = Clock::now();
  emulator_->Write("\n");
  const std::optional<int> status = emulator_->WaitExit(kEnd);
  endSeconds_ = Seconds(Clock::now() - begun);
  if (!status) {
    Broken("the emulator doesn't end");
  } else if (*status != 0 || !log_->stopped) {
    Broken("the emulator didn't end in good order: status " + std::to_string(*status) + " " +
           emulator_->ErrorOutput());
  }
}

void Soak::Report() {
  const Exchanges::Result exchanges = exchanges_->SoFar();
  const double seconds = Seconds(length_);
  std::printf("\n%-28s %10s %10s %10s\n", "", "at 25 %", "at 50 %", "at 100 %");
  std::printf("%-28s %10.1f %10.1f %10.1f   (%.1f at most in the flood)\n", "memory, MiB",
              quiet_[0].memoryMiB, quiet_[1].memoryMiB, quiet_[2].memoryMiB, peakMiB_);
  std::printf("%-28s %10d %10d %10d\n", "threads", quiet_[0].threads, quiet_[1].threads,
              quiet_[2].threads);
  std::printf("%-28s %10d %10d %10d\n", "file descriptors", quiet_[0].descriptors,
              quiet_[1].descriptors, quiet_[2].descriptors);

  std::printf("\n%-28s %10s %10s %10s\n", "control round trip, ms", "p50", "p99", "max");
  const auto times = [](const char* name, const soak::RoundTrips& trips) {
    std::printf("%-28s %10.2f %10.2f %10.2f\n", name, trips.Percentile(0.5), trips.Percentile(0.99),
                trips.MaxMs());
  };
  times("  to the acknowledgement", exchanges_->AcknowledgementTimes());
  times("  to the answer", exchanges_->AnswerTimes());

  double missed = 0;
  double pause = 0;
  uint64_t packets = 0;
  uint64_t onTheWay = 0;
  for (const soak::Stream::Result& stream : ticks_) {
    missed += stream.missedTicks;
    pause = std::max(pause, stream.longestPauseMs);
    packets += stream.received;
    onTheWay += stream.lostPackets;
  }
  std::printf("\nexchanges complete           %10llu (%.0f a second), %llu repeats\n",
              static_cast<unsigned long long>(exchanges.complete),
              static_cast<double>(exchanges.complete) / seconds,
              static_cast<unsigned long long>(exchanges.repeats));
  std::printf(
      "requests lost                %10llu of those acknowledged; %llu never acknowledged\n",
      static_cast<unsigned long long>(exchanges.lost),
      static_cast<unsigned long long>(exchanges.unacknowledged));
  std::printf(
      "ticks missed                 %10.0f of %llu; longest pause %.1f ms; the log tells of "
      "%llu timeouts\n",
      missed, static_cast<unsigned long long>(packets + onTheWay), pause,
      static_cast<unsigned long long>(log_->timeouts));
  std::printf("stream packets lost          %10llu on their way here\n",
              static_cast<unsigned long long>(onTheWay));
  std::printf("sent, a second               %10.0f control, %.0f RTP\n",
              static_cast<double>(controlFlood_->Sent()) / seconds,
              static_cast<double>(rtpFlood_->Sent()) / seconds);
  std::printf("log lines, a second          %10.0f\n", static_cast<double>(log_->lines) / seconds);
  std::printf("processor of the emulator    %10.0f %%\n", use_.cpuSeconds / seconds * 100);
  std::printf("all units answer again after %10.1f ms; the end took %.1f s\n\n", healMs_,
              endSeconds_);
}

void Soak::Judge() {
  for (size_t i = 1; i < std::size(kMarks); ++i) {
    const std::string when =
        " between 25 % and " + std::to_string(static_cast<int>(kMarks[i] * 100)) + " % of the run";
    const double early = quiet_[0].memoryMiB;
    if (quiet_[i].memoryMiB > std::max(early * kMemoryGrowth, early + kMemoryNoiseMiB)) {
      Broken("the memory grew by more than 5 % and 1 MiB" + when);
    }
    if (quiet_[i].threads != quiet_[0].threads) Broken("the number of threads changed" + when);
    if (quiet_[i].descriptors != quiet_[0].descriptors) {
      Broken("the file descriptors changed" + when);
    }
  }
  if (peakMiB_ > kPeakMiB) Broken("the log didn't keep up: its lines filled the memory");
  const Exchanges::Result exchanges = exchanges_->SoFar();
  for (const std::string& complaint : exchanges.complaints)
    Broken("a unit sent what is no message: " + complaint);
  if (exchanges.lost != 0) Broken("requests that were acknowledged got no answer");
  if (exchanges.unacknowledged != 0) Broken("requests got no acknowledgement within 10 s");
  if (exchanges.complete == 0) Broken("no exchange came to its end");
  if (healMs_ > kHealMs) Broken("a unit took more than three seconds to answer behind the flood");
  for (const soak::Stream::Result& stream : ticks_) {
    const double due =
        static_cast<double>(stream.received + stream.lostPackets) + stream.missedTicks;
    if (stream.received == 0) {
      Broken("a stream never came");
    } else if (stream.missedTicks > due * kMissedTicks) {
      Broken("a unit missed more than a tenth of its ticks");
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  char* end = nullptr;
  const double minutes = count > 1 ? std::strtod(arguments[1], &end) : 0;
  if (count < 2 || count > 3 || *end != '\0' || !(minutes > 0)) {
    std::cerr << "usage: soak MINUTES [SEED]\n";
    return 2;
  }
  const uint64_t seed =
      count > 2 ? std::strtoull(arguments[2], nullptr, 10) : std::random_device{}();
  std::signal(SIGINT, [](int) { interrupted = 1; });
  std::cout << "soak of " << minutes << " minutes; to send the same again: soak " << arguments[1]
            << " " << seed << std::endl;
  try {
    return Soak(minutes, seed).Run();
  } catch (const std::exception& error) {
    std::cout << "FAILED: " << error.what() << std::endl;
    return 1;
  }
}
