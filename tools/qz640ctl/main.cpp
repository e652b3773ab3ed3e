// qz640ctl: the other end of the wire. Finds units, drives them, takes and sends their audio.
#include <algorithm>
#include <charconv>
#include <functional>
#include <limits>
#include <set>

#include "CommandTree.h"
#include "Commands.h"
#include "Describe.h"
#include "Loan.h"
#include "UnitNames.h"
#include "platform/startup.h"
#include "wire/Fault.h"

namespace {

using namespace ctl;

const char kExamples[] = R"(Examples:
  qz640ctl find
  qz640ctl check studio-a
  qz640ctl up --units 2xQZ820 -- ./run-my-tests

)";

const char kFooter[] =
    R"(UNIT is a unit id, found by discovery, or address:port of its control port.
Options may stand before or after the command; what stands in the environment
variable of an option holds where the option is missing.

Exit status: 0 done, 1 refused or a check failed, 2 usage, 3 nobody answered,
4 a port or address can't be had.)";

// A command on the command line and what runs it.
class CommandLine {
 public:
  CommandLine() : app_("Finds, drives and hears QZ-640 network audio units.", "qz640ctl") {
    UseOwnHelp(app_);
    app_.footer(std::string(kExamples) + kFooter);
    app_.require_subcommand(1);
    app_.set_version_flag("--version", QZ_VERSION, "The version of this program");
    AddRequests();
    AddProtocol();
    AddAudio();
    AddCheck();
    AddRestore();
    AddWeb();
    AddUp();
    AddDown();
    AddRelay();
    AddTrace();
    AddSoak();
    AddHelp();
    AddGenerate();
  }

  int Run(const Arguments& given) {
    Output usage({.json = WantsJson(given)});
    up_.arguments = given;
    try {
      return ParseAndRun(given, usage);
    } catch (const OutputClosed&) {
      return kDone;
    } catch (const Failure& failure) {
      usage.Error(failure.text);
      return failure.status;
    }
  }

 private:
  using Action = std::function<int(Session&, Output&)>;

  int ParseAndRun(const Arguments& given, Output& usage) {
    try {
      Arguments arguments = given;
      const CLI::App* command = SelectCommand(app_, arguments);
      if (command && command->get_name() == "help") {
        arguments.front() = "--help";
        SelectCommand(app_, arguments);
      }
      std::reverse(arguments.begin(), arguments.end());  // as CLI11 takes them
      app_.parse(std::move(arguments));
      if (command) RefuseUnmeantValues(*command);
    } catch (const CLI::CallForHelp&) {
      usage.Write(app_.help());
      return kDone;
    } catch (const CLI::CallForVersion&) {
      usage.Object(Fields().Add("version", QZ_VERSION));
      usage.Line("qz640ctl " QZ_VERSION);
      return kDone;
    } catch (const CLI::ParseError& error) {
      usage.Error(UsageText(app_, error));
      return kUsage;
    }
    common_.command = app_.get_subcommands().front()->get_name();
    Output out({.json = common_.json, .quiet = quiet_, .noColour = noColour_});
    Session session(common_, verbose_);
    session.OnNote([&out](const std::string& text) { out.Note(text); });
    try {
      if (restores_.count(app_.get_subcommands().front()) > 0) {
        session.OnFound([&session](const auto& units) { RestoreInPassing(session, units); });
      }
      return run_(session, out);
    } catch (const OutputClosed&) {
      // What judges hasn't come to its end: no status 0 for a unit that nobody judged.
      return judges_.count(app_.get_subcommands().front()) > 0 ? kRefused : kDone;
    } catch (const Failure& failure) {
      out.Error(failure.text);
      return failure.status;
    } catch (const std::exception& error) {
      const Failure failure = session.ToFailure(error);
      out.Error(failure.text);
      return failure.status;
    }
  }

  CLI::App* Add(const char* name, const char* what, const char* example, Action action) {
    CLI::App* command = app_.add_subcommand(name, what);
    command->group("Commands");
    command->footer(std::string("Example:\n  ") + example + "\n\n" + kFooter);
    command->add_flag("--json", common_.json, "One JSON object a line on standard output");
    command->add_option("--timeout", common_.timeoutMs, "Milliseconds to wait for answers")
        ->check(Between(50, 600000))
        ->capture_default_str();
    command->add_flag("--verbose", verbose_, "Show every control message on standard error");
    command->add_flag("--quiet", quiet_, "On standard error nothing but errors");
    command->add_flag("--no-color", noColour_, "No colours, as with NO_COLOR in the environment");
    command->callback([this, action] { run_ = action; });
    return command;
  }

  // It goes on until Ctrl-C, and what it waits for may never come.
  static void NeedsNoTimeout(CLI::App* command) {
    command->remove_option(command->get_option("--timeout"));
  }

  // Where to look for units. Who speaks with units also heals what a killed command left there.
  CLI::App* AddTo(CLI::App* command) {
    restores_.insert(command);
    command
        ->add_option("--to", common_.to,
                     "Ask here for units (default: the broadcast address of every interface); "
                     "several with commas")
        ->allow_extra_args(false)
        ->delimiter(',');
    return command;
  }

  CLI::App* AddForUnit(const char* name, const char* what, const char* example, Action action) {
    CLI::App* command = AddTo(Add(name, what, example, std::move(action)));
    command->add_option("UNIT", unit_, "Unit id or address:port")->required();
    return command;
  }

  void AddRequests() {
    AddTo(Add("find", "Find the units of the network", "qz640ctl find --to 127.0.0.1",
              [](Session& session, Output& out) { return RunFind(session, out); }));
    AddForUnit("info", "What a unit says of itself", "qz640ctl info 127.0.0.1:8000",
               [this](Session& session, Output& out) { return RunInfo(session, unit_, out); });
    AddForUnit("inputs", "Where a unit's inputs go", "qz640ctl inputs studio-a",
               [this](Session& session, Output& out) { return RunInputs(session, unit_, out); });
    AddForUnit("set-inputs", "Send inputs elsewhere; those not named stay as they are",
               "qz640ctl set-inputs studio-a 0=10.0.0.5:9000 2=off",
               [this](Session& session, Output& out) {
                 return RunSetInputs(session, unit_, changes_, out);
               })
        ->add_option("CHANGE", changes_, "NUMBER=ADDRESS:PORT or NUMBER=off")
        ->required();
    AddForUnit(
        "freq", "Set a unit's sample frequency; all its inputs go off",
        "qz640ctl freq studio-a 44100",
        [this](Session& session, Output& out) { return RunFreq(session, unit_, freq_, out); })
        ->add_option("HZ", freq_, "Samples a second")
        ->check(OneOf({"48000", "44100"}))
        ->required();
    AddForUnit(
        "fm", "Show or set FM frequencies", "qz640ctl fm tuner-1 2=98700",
        [this](Session& session, Output& out) { return RunFm(session, unit_, changes_, out); })
        ->add_option("CHANGE", changes_, "NUMBER=FREQUENCY");
    AddForUnit("fm-quality", "Reception of a unit's tuners", "qz640ctl fm-quality tuner-1",
               [this](Session& session, Output& out) { return RunFmQuality(session, unit_, out); });
  }

  void AddProtocol() {
    AddForUnit(
        "send", "A request as you write it; shows acknowledgement and answer with their times",
        R"(qz640ctl send studio-a '{"msg":"get_inputs"}')",
        [this](Session& session, Output& out) { return RunSend(session, unit_, request_, out); })
        ->add_option("REQUEST", request_, "A JSON object; numbered where it has no \"msg_id\"")
        ->required();
    CLI::App* expect = AddTo(
        Add("expect",
            "Wait until conditions hold, all at once; status 1 with what was seen where they "
            "don't. Inputs are heard without being taken from where they go",
            "qz640ctl expect studio-a input 0 --tone 1000 --level -6+-0.5 --within 5s\n"
            "  qz640ctl expect studio-a found destination 0=127.0.0.1:9000",
            [this](Session& session, Output& out) { return RunExpect(session, expect_, out); }));
    judges_.insert(expect);
    expect->add_option("UNIT", expect_.unit, "Unit id or address:port")->required();
    expect
        ->add_option("CONDITION", expect_.words,
                     "found, gone, freq HZ, tuner N=FREQUENCY, destination N=ADDRESS:PORT or "
                     "N=off, input N silent, input N pattern, input N with --tone")
        ->required();
    expect->add_option("--tone", expect_.toneHz, "The input has a sine of so many Hz")
        ->check(Between(1.0, 22000.0));
    expect->add_option("--level", expect_.level, "The tone's level in dB of full scale");
    expect
        ->add_option("--within", expect_.within,
                     "How long to wait; an input is heard for 0.2 s in any case")
        ->capture_default_str();
    AddLocal(expect);

    CLI::App* listen =
        Add("listen", "A peer for a controller: acknowledges what a unit would take, until Ctrl-C",
            "qz640ctl listen --explain --at 127.0.0.1:8000",
            [this](Session& session, Output& out) { return RunListen(session, listen_, out); });
    NeedsNoTimeout(listen);
    listen->add_flag("--explain", listen_.explain, "Say of each datagram what is wrong with it");
    listen->add_option("--at", listen_.at, "Own address and port; without a port, a free one")
        ->capture_default_str();
  }

  void AddCheck() {
    CLI::App* check = AddTo(Add(
        "check",
        "Everything that a unit has to do on the wire, a line a check. A unit in use keeps its "
        "inputs, tuners and sample frequency: what would touch them is left out, with a line each. "
        "Of any other unit the inputs are sent here and noise to output 0, for seconds each",
        "qz640ctl check studio-a\n"
        "  qz640ctl check --all --repeat 3 --junit check.xml --html check.html\n"
        "  qz640ctl check studio-a discovery tuners",
        [this](Session& session, Output& out) { return RunCheck(session, check_, out); }));
    judges_.insert(check);
    check->add_option("UNIT", check_.unit, "Unit id or address:port; with --all none");
    check->add_option("PART", check_.parts, "What to check, as said below (default: all)");
    check->add_flag("--all", check_.all, "Check every unit that answers, one after the other");
    check->add_option("--repeat", check_.repeat, "Rounds; least, median and most at the end")
        ->check(Between(1, 10000))
        ->capture_default_str();
    check->add_option("--junit", check_.junit, "Write the results to this file, as JUnit XML")
        ->type_name("FILE");
    check
        ->add_option("--html", check_.html,
                     "Write them to this file, as one page with plots of the streams")
        ->type_name("FILE");
    check->add_flag("--intrusive", check_.intrusive,
                    "Leave nothing out: the unit's listeners get the inputs passed on but for the "
                    "noise, and the last tuner goes elsewhere for a moment");
    check->footer(check->get_footer() + "\n\n" + CheckPartsHelp());
    Add("doctor", "Look at interfaces, ports, a settings file and the clock of this machine",
        "qz640ctl doctor qz640emu.json",
        [this](Session& session, Output& out) { return RunDoctor(session, settings_, out); })
        ->add_option("SETTINGS", settings_,
                     "The settings file (default: that of the emulator beside qz640ctl)");
  }

  void AddRestore() {
    CLI::App* restore = AddTo(
        Add("restore",
            "Send inputs to where they went before a watch, record or check that couldn't "
            "give them back, as it was killed or the unit was away. Every command does so for "
            "the units that it finds; what stays away for 7 days is forgotten",
            "qz640ctl restore",
            [this](Session& session, Output& out) { return RunRestore(session, forget_, out); }));
    restores_.erase(restore);
    restore->add_flag("--forget", forget_, "Give up what belongs to units that don't answer");
  }

  // An input goes to one place: to hear it is to have it sent here.
  void AddInUse(CLI::App* command) {
    auto* take = command->add_flag_callback(
        "--take", [this] { common_.inUse = InUse::Take; },
        "Take inputs that are in use from where they go (default: pass every packet on to there)");
    command
        ->add_flag_callback(
            "--idle", [this] { common_.inUse = InUse::LeaveOut; }, "Use only inputs that are off")
        ->excludes(take);
  }

  void AddAudio() {
    CLI::App* record =
        Add("record",
            "Record an input, bit for bit, as 24-bit stereo. It is sent here meanwhile, and from "
            "here on to where it went before",
            "qz640ctl record studio-a --input 0 --seconds 10 take.wav\n"
            "  qz640ctl record studio-a --input all --split 1h night.flac\n"
            "  qz640ctl record studio-a - | ffplay -",
            [this](Session& session, Output& out) { return RunRecord(session, record_, out); });
    AddTo(record);
    record->add_option("UNIT", record_.unit, "Unit id or address:port")->required();
    record
        ->add_option("FILE", record_.file,
                     "The file to write, - for standard output: .wav (RF64 from 4 GiB on), .rf64, "
                     ".flac, or .raw, 24 bits little-endian without a header")
        ->required();
    record->add_option_function<std::string>(
        "--input", [this](const std::string& text) { SetInput(text); },
        "Input, counted from 0 (default: 0), or all: take.wav becomes take-0.wav, take-1.wav and "
        "so on, each from its first packet on");
    record->add_option("--seconds", record_.seconds, "Length (default: until Ctrl-C)")
        ->check(Seconds());
    record->add_option_function<std::string>(
        "--split", [this](const std::string& text) { SetSplit(text); },
        "A new file each time that this is over, such as 1h, without a gap: take-001.wav, "
        "take-002.wav and so on");
    record->add_option("--format", record_.format, "What FILE is, where its ending doesn't say so")
        ->check(OneOf({"wav", "rf64", "flac", "raw"}));
    record->add_flag("--force", record_.force, "Replace a file that exists");
    AddLocal(record);
    AddInUse(record);

    CLI::App* play = Add(
        "play",
        "Send audio to an output. What somebody else sends there at the same time breaks both. To "
        "learn the unit's frequency an input that is off is sent here for a moment",
        "qz640ctl play studio-a --output 0 --tone 1000 --seconds 3\n"
        "  ffmpeg -i song.mp3 -c:a pcm_s24le -f wav - | qz640ctl play studio-a -",
        [this](Session& session, Output& out) { return RunPlay(session, play_, out); });
    AddTo(play);
    play->add_option("UNIT", play_.unit, "Unit id or address:port")->required();
    auto* file =
        play->add_option("FILE", play_.file, "Audio of one or two channels, - for standard input");
    auto* tone = play->add_option("--tone", play_.toneHz, "A sine of so many Hz instead of a file")
                     ->check(Between(1.0, 22000.0));
    auto* pattern =
        play->add_flag("--pattern", play_.pattern, "The pattern that units look for on output 0");
    file->excludes(tone)->excludes(pattern);
    tone->excludes(pattern);
    play->add_option("--format", play_.format,
                     "raw: FILE has no header, and is 24 bits little-endian, stereo, at --freq")
        ->check(OneOf({"wav", "raw"}));
    play->add_option("--output", play_.output, "Output, counted from 0")
        ->check(Between(0, 9999))
        ->capture_default_str();
    play->add_option("--level", play_.levelDb, "Level of the tone in dB of full scale")
        ->check(Between(-144.0, 0.0))
        ->capture_default_str();
    play->add_option("--seconds", play_.seconds, "Length of tone or pattern")
        ->check(Seconds())
        ->capture_default_str();
    play->add_option("--freq", play_.sampleFreq,
                     "The unit's sample frequency, to which a file is converted (default: as heard "
                     "at an input that is off; 48000 where none is)")
        ->check(OneOf({"48000", "44100"}));
    play->add_flag("--force", play_.force,
                   "Send at --freq whatever the unit runs at, and touch no input");
    play->add_option("--ppm", play_.ppm, "Let the sender's clock run fast by so many millionths")
        ->check(Between(-100000.0, 100000.0));
    play->callback([this] {
      if (play_.file.empty() && !play_.toneHz && !play_.pattern) {
        throw CLI::RequiredError("FILE, --tone or --pattern");
      }
      run_ = [this](Session& session, Output& out) { return RunPlay(session, play_, out); };
    });

    CLI::App* watch = Add(
        "watch",
        "Live view of inputs: levels, packet rate, jitter, loss. They are sent here meanwhile, and "
        "from here on to where they went before",
        "qz640ctl watch studio-a",
        [this](Session& session, Output& out) { return RunWatch(session, watch_, out); });
    AddTo(watch);
    watch->add_option("UNIT", watch_.units, "Unit ids or addresses (default: all that answer)");
    watch->add_option("--seconds", watch_.seconds, "Length (default: until Ctrl-C)")
        ->check(Seconds());
    watch
        ->add_option(
            "--alert", watch_.alerts.rules,
            "Raise the alarm, repeatable: \"silence 10s\", \"clip\", \"lost 1\", \"late 5\" "
            "(packets since the alarm before), \"drift 50ppm\", \"jitter 5ms\"")
        ->allow_extra_args(false);
    watch->add_option("--log", watch_.alerts.log, "Append each alarm to this file, as JSON lines")
        ->type_name("FILE");
    watch->add_option("--exec", watch_.alerts.command,
                      "Run this for each alarm, by the shell and without its output; it finds "
                      "QZ640_ALERT, QZ640_ALERT_STATE (begins, ends, happens), QZ640_ALERT_UNIT, "
                      "QZ640_ALERT_INPUT and QZ640_ALERT_TEXT in its environment");
    watch
        ->add_option("--metrics", watch_.metricsPort,
                     "Serve the figures for Prometheus at http://127.0.0.1:PORT/metrics; 0 takes "
                     "a free port")
        ->check(Between(0, 65535));
    AddLocal(watch);
    AddInUse(watch);
  }

  void SetInput(const std::string& text) {
    record_.allInputs = text == "all";
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, record_.input);
    if (record_.allInputs || (parsed.ec == std::errc() && parsed.ptr == end)) return;
    throw CLI::ValidationError("--input", "\"" + text + "\" is neither a number nor all");
  }

  void SetSplit(const std::string& text) {
    std::optional<wire::Clock::duration> time;
    try {
      time = wire::ParseTime(text);
    } catch (const wire::BadFault&) {
      // Longer than anything lasts.
    }
    if (!time || time->count() <= 0) {
      throw CLI::ValidationError("--split", "must read like 90s, 30min or 1h");
    }
    record_.split = std::chrono::duration<double>(*time).count();
  }

  void AddWeb() {
    CLI::App* web = AddTo(
        Add("web",
            "A page for a browser: units, live levels, packets, jitter, losses, messages, until "
            "Ctrl-C. Inputs are heard only as long as a page is open, and are passed on to where "
            "they go",
            "qz640ctl web --port 6400",
            [this](Session& session, Output& out) { return RunWeb(session, web_, out); }));
    web->add_option("UNIT", web_.units, "Unit ids or addresses (default: all that answer)");
    web->add_option("--port", web_.port, "TCP port of the page; 0: a free one")
        ->check(Between(0, 65535))
        ->capture_default_str();
    web->add_option("--at", web_.at, "Own address of the page; anyone who reaches it sees it")
        ->capture_default_str();
    web->add_flag("--until-eof", web_.untilEof, "End with standard input");
    AddLocal(web);
    AddInUse(web);
  }

  void AddUp() {
    CLI::App* up = Add("up", "Start an emulator on free ports for as long as a command runs",
                       "qz640ctl up --units 2xQZ820,QZ610 -- ./run-my-tests",
                       [this](Session& session, Output& out) { return RunUp(session, up_, out); });
    auto* units = up->add_option(
        "--units", up_.units,
        "The units: models with an optional count, NxMODEL; none:TEXT for one of no known model "
        "(default: QZ610,QZ820)");
    auto* named =
        up->add_option("--id", up_.named, "One more unit, ID=MODEL, as studio-a=QZ610; repeatable")
            ->allow_extra_args(false);
    up->add_option("--settings", up_.settings,
                   "A settings file with address, ports and units. It stays as it is; what is "
                   "given beside it goes before it")
        ->type_name("FILE")
        ->excludes(units)
        ->excludes(named);
    up->add_option("--mode", up_.mode, "Test signal of the units, 0 to 4 (default: 0)")
        ->check(Between(0, 4));
    up->add_option("--freq", up_.freq, "Their sample frequency (default: 48000)")
        ->check(OneOf({"48000", "44100"}));
    up->add_option("--speed", up_.speed, "Multiplies their clocks; 1.0001 is 100 ppm fast")
        ->check(Between(0.01, 100.0));
    up->add_option("--addr", up_.addr, "Local address of the units (default: 127.0.0.1)");
    up->add_option("--port", up_.port,
                   "Discovery port; the units' ports follow from 2 further on (default: free ones, "
                   "or those of the settings file)")
        ->check(Between(1, 65000));
    up->add_option("--emulator", up_.emulator,
                   "The emulator (default: beside qz640ctl, in ../libexec/qz640emu, on the PATH)")
        ->type_name("FILE");
    up->add_option("--state-dir", up_.stateDir,
                   "Run in this folder, which stays: the emulator, its settings as it rewrites "
                   "them, its logs. One run at a time (default: a temporary folder)")
        ->type_name("DIR");
    up->add_option("--env-file", up_.envFile,
                   "Write what COMMAND would find in its environment here, a line each, for as "
                   "long as the run lasts")
        ->type_name("FILE");
    auto* untilEof = up->add_flag("--until-eof", up_.untilEof, "End with standard input");
    auto* detach = up->add_flag("--detach", up_.detach,
                                "Return when the units answer and leave them running; \"down\" "
                                "ends them");
    up->add_flag("--background", up_.background)->group("");  // what --detach leaves running
    untilEof->excludes(detach);
    up->add_flag("--web", up_.web,
                 "Show the page of \"qz640ctl web\" meanwhile, at port 6400 or "
                 "that of QZ640_WEB_PORT");
    up->add_flag("--show-log", up_.showLog, "Show the emulator's log on standard error");
    up->add_option("--fault", up_.faults, "Let the units misbehave, as said below; repeatable")
        ->allow_extra_args(false);
    up->add_option("--fault-file", up_.faultFile,
                   "The same, a line each, # for comments; read again whenever it changes")
        ->type_name("FILE");
    up->add_option("--seed", up_.seed, "Decides what faults by per cent hit, and jitter")
        ->check(Natural())
        ->capture_default_str();
    up->footer(up->get_footer() + "\n\n" + std::string(wire::FaultHelp()));
    up->add_option("COMMAND", up_.command,
                   "What to run, with QZ640_DISCOVERY, QZ640_UNIT0_CONTROL and so on in its "
                   "environment (default: until Ctrl-C)")
        ->excludes(untilEof)
        ->excludes(detach);
  }

  void AddDown() {
    CLI::App* down =
        Add("down", "End what \"up --detach\" has left running", "qz640ctl down",
            [this](Session& session, Output& out) { return RunDown(session, down_, out); });
    down->add_option("RUN", down_.run, "Its folder (default: the only one there is)")
        ->envname(kRunVariable);
    down->add_flag("--all", down_.all, "All of this user's detached runs");
  }

  void AddRelay() {
    CLI::App* relay =
        Add("relay",
            "A bad network that can be repeated, or with --discovery a way for controllers to the "
            "units of another network, until Ctrl-C",
            "qz640ctl relay --seed 7 --loss 5 127.0.0.1:9000=127.0.0.1:8000\n"
            "  qz640ctl relay --discovery 10.1.0.1=10.2.0.255",
            [this](Session& session, Output& out) { return RunRelay(session, relay_, out); });
    NeedsNoTimeout(relay);
    const CLI::Validator share = Between(0.0, 100.0);
    relay->add_option("WAY", relay_.ways, "LISTEN=TARGET, both address:port")->required();
    relay->add_flag("--discovery", relay_.discovery,
                    "LISTEN is an address of this machine where controllers look for units, by "
                    "broadcast too; TARGET a machine with units, or the broadcast address of their "
                    "network. Each unit that answers is seen at LISTEN's address, and all that is "
                    "sent to it there goes on to it. Without a port: 15001");
    relay->add_option("--seed", relay_.seed, "Decides all faults")
        ->check(Natural())
        ->capture_default_str();
    relay->add_option("--loss", relay_.faults.loss, "Per cent lost")->check(share);
    relay->add_option("--duplicate", relay_.faults.duplicate, "Per cent doubled")->check(share);
    relay->add_option("--reorder", relay_.faults.reorder, "Per cent held back, to be overtaken")
        ->check(share);
    relay->add_option("--corrupt", relay_.faults.corrupt, "Per cent damaged")->check(share);
    const CLI::Validator upToAMinute = Between(0, 60000);
    relay->add_option("--delay", relay_.faults.delayMs, "Milliseconds that all are delayed")
        ->check(upToAMinute);
    relay->add_option("--jitter", relay_.faults.jitterMs, "Up to so many milliseconds more")
        ->check(upToAMinute);
  }

  void AddTrace() {
    CLI::App* trace =
        Add("trace",
            "What others send each other: a line a message with its acknowledgement, a line a "
            "stream and second, and what is lost, late, repeated, refused or bad of it",
            "qz640ctl trace --on lo -w evening.pcapng\n  qz640ctl trace -r evening.pcapng",
            [this](Session&, Output& out) { return RunTrace(trace_, out); });
    NeedsNoTimeout(trace);
    auto* on = trace->add_option("--on", trace_.on, "Listen on this interface, or on \"any\"");
    trace
        ->add_option("-w,--write", trace_.write,
                     "Keep what comes in this pcapng file, which is replaced")
        ->needs(on);
    trace->add_option("--seconds", trace_.seconds, "How long to listen (default: until Ctrl-C)")
        ->check(Seconds());
    trace->add_option("-r,--read", trace_.read, "Read this pcap or pcapng file instead")
        ->excludes(on);
    trace->callback([this] {
      if (trace_.on.empty() && trace_.read.empty()) throw CLI::RequiredError("--on or --read");
      run_ = [this](Session&, Output& out) { return RunTrace(trace_, out); };
    });

    CLI::App* replay = AddTo(
        Add("replay",
            "The requests of a capture once more, in their order, those that change a unit too; "
            "compares the answers",
            "qz640ctl replay evening.pcapng --against studio-a --diff",
            [this](Session& session, Output& out) { return RunReplay(session, replay_, out); }));
    replay->add_option("FILE", replay_.file, "A pcap or pcapng file")->required();
    replay->add_option("--against", replay_.against, "Unit id or address:port")->required();
    replay->add_option("--of", replay_.of,
                       "The unit in the capture, address:port (default: the only one)");
    replay->add_flag("--diff", replay_.diff,
                     "Show the differences alone; status 1 if there are any");
  }

  void AddSoak() {
    CLI::App* soak = AddTo(
        Add("soak",
            "Put units under all that a network can send, and judge them. Floods their control "
            "ports, the discovery port at their addresses and their outputs; takes their inputs "
            "and gives them back; changes nothing else. Leaves units in use alone",
            "qz640ctl soak studio-a --seconds 600",
            [this](Session& session, Output& out) { return RunSoak(session, soak_, out); }));
    judges_.insert(soak);
    soak->add_option("UNIT", soak_.units, "Unit ids or addresses (default: all that answer)");
    soak->add_option("--seconds", soak_.seconds, "Length")
        ->check(Between(4.0, 1e7))
        ->capture_default_str();
    soak->add_option("--seed", soak_.seed, "Decides what is sent")
        ->check(Natural())
        ->capture_default_str();
    soak->add_option("--pid", soak_.pid,
                     "The emulator's process: its memory, threads and descriptors are judged too "
                     "(default: the one that \"up\" has started)")
        ->check(Between(1, std::numeric_limits<int>::max()));
    soak->add_flag("--intrusive", soak_.intrusive,
                   "Units in use too: who hears them misses them meanwhile");
    AddLocal(soak);
  }

  // Run makes "record --help" of "help record" before CLI11 sees it.
  void AddHelp() {
    CLI::App* help = app_.add_subcommand("help", "What a command does, its options and an example");
    help->group("Commands");
    help->footer("Example:\n  qz640ctl help record");
    help->add_option("COMMAND", helpOn_, "The command (default: the list of all)");
  }

  // For packages and shells; people have "help".
  void AddGenerate() {
    CLI::App* generate =
        AddTo(Add("generate", "Manual pages and completions, made from the commands themselves",
                  "qz640ctl generate bash >/etc/bash_completion.d/qz640ctl",
                  [this](Session& session, Output& out) { return RunGenerate(session, out); }));
    generate->group("");  // which hides it
    restores_.erase(generate);
    generate->add_option("WHAT", generated_, "What to write to standard output")
        ->check(OneOf({"man", "settings-man", "bash", "zsh", "fish", "powershell", "units"}))
        ->required();
  }

  int RunGenerate(Session& session, Output& out) {
    if (generated_ == "units") {
      for (const std::string& name : UnitNames(session))
        out.Line(name);
      return kDone;
    }
    for (CLI::App* command : VisibleCommands(app_))
      NameVariables(*command);
    std::string text = SettingsManPage();
    if (generated_ == "man") text = ManPage(app_, kFooter);
    if (generated_ == "bash") text = BashCompletion(app_);
    if (generated_ == "zsh") text = ZshCompletion(app_);
    if (generated_ == "fish") text = FishCompletion(app_);
    if (generated_ == "powershell") text = PowerShellCompletion(app_);
    out.Write(text);
    return kDone;
  }

  void AddLocal(CLI::App* command) {
    command->add_option("--local", common_.local,
                        "Own address to take streams at (default: the one that faces the unit)");
  }

  CLI::App app_;
  CommonOptions common_;
  bool verbose_ = false;
  bool quiet_ = false;
  bool noColour_ = false;
  std::string helpOn_;
  std::string generated_;
  std::string unit_;
  std::string settings_;
  CheckOptions check_;
  bool forget_ = false;
  std::set<const CLI::App*> restores_;
  std::set<const CLI::App*> judges_;  // their status is a verdict
  std::vector<std::string> changes_;
  uint32_t freq_ = 0;
  RecordOptions record_;
  PlayOptions play_;
  WatchOptions watch_;
  WebOptions web_;
  UpOptions up_;
  DownOptions down_;
  RelayOptions relay_;
  std::string request_;
  ListenOptions listen_;
  ExpectOptions expect_;
  TraceOptions trace_;
  ReplayOptions replay_;
  SoakOptions soak_;
  Action run_;
};

}  // namespace

int main(int argc, char** argv) {
  platform::Startup();
  platform::BeginTimerPeriod();
  const int status = CommandLine().Run(Arguments(argv + std::min(argc, 1), argv + argc));
  platform::EndTimerPeriod();
  return status;
}
