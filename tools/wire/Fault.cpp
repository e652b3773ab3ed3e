#include "wire/Fault.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace wire {

namespace {

using Subject = Fault::Subject;
using Effect = Fault::Effect;

constexpr std::string_view kBlanks = " \t\r";
constexpr double kLongest = 365.0 * 24 * 3600;  // seconds
constexpr double kMostPpm = 100'000;

// Requests first: they are what "error" and "ignored" go with.
constexpr std::array<std::string_view, 8> kRequests{"get_dev_info", "get_state",     "set_state",
                                                    "get_inputs",   "set_inputs",    "get_fm_freq",
                                                    "set_fm_freq",  "get_fm_quality"};
constexpr std::array<std::string_view, 7> kOthers{"dev_find", "dev_info",   "inputs", "fm_freq",
                                                  "error",    "fm_quality", "attach"};

bool IsRequest(std::string_view name) {
  return std::find(kRequests.begin(), kRequests.end(), name) != kRequests.end();
}

bool IsMessage(std::string_view name) {
  return IsRequest(name) || std::find(kOthers.begin(), kOthers.end(), name) != kOthers.end();
}

std::string Quoted(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

std::string Join(const auto& names) {
  std::string all;
  for (const std::string_view name : names)
    all += (all.empty() ? "" : ", ") + std::string(name);
  return all;
}

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The words of a part of a fault, taken from the front. "300 ms" and "20 %" are one word, too.
class Words {
 public:
  explicit Words(std::string_view text) {
    for (text = Trim(text); !text.empty(); text = Trim(text)) {
      const size_t end = std::min(text.find_first_of(kBlanks), text.size());
      const std::string_view word = text.substr(0, end);
      text.remove_prefix(end);
      if (IsUnit(word) && !words_.empty() && IsNumber(words_.back())) {
        words_.back() += word;
      } else {
        words_.emplace_back(word);
      }
    }
  }

  bool Empty() const { return next_ == words_.size(); }
  std::string_view Peek() const { return Empty() ? std::string_view() : words_[next_]; }
  bool Take(std::string_view word) {
    if (Peek() != word || Empty()) return false;
    ++next_;
    return true;
  }
  std::string Take() { return Empty() ? std::string() : words_[next_++]; }

  void End() const {
    if (!Empty()) throw BadFault(Quoted(Peek()) + " is too much");
  }

 private:
  static bool IsUnit(std::string_view word) {
    return word == "s" || word == "ms" || word == "min" || word == "%" || word == "ppm";
  }
  static bool IsNumber(std::string_view word) {
    return word.find_first_not_of("+-.0123456789") == std::string_view::npos;
  }

  std::vector<std::string> words_;
  size_t next_ = 0;
};

// "1.5s" with the suffix "s" gives 1.5.
std::optional<double> NumberBefore(std::string_view word, std::string_view suffix) {
  if (!word.ends_with(suffix)) return std::nullopt;
  word.remove_suffix(suffix.size());
  if (word.starts_with('+')) word.remove_prefix(1);
  double number = 0;
  const char* end = word.data() + word.size();
  const auto parsed = std::from_chars(word.data(), end, number, std::chars_format::fixed);
  if (parsed.ec != std::errc() || parsed.ptr != end || !std::isfinite(number)) return std::nullopt;
  return number;
}

template <typename Integer>
std::optional<Integer> WholeNumber(std::string_view word) {
  Integer number = 0;
  const char* end = word.data() + word.size();
  const auto parsed = std::from_chars(word.data(), end, number);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return number;
}

// "ms" before "s", which it ends with.
std::optional<Clock::duration> TimeOf(std::string_view word) {
  const struct {
    std::string_view suffix;
    double seconds;
  } units[] = {{"ms", 1e-3}, {"min", 60}, {"s", 1}, {"h", 3600}};
  for (const auto& unit : units) {
    const auto number = NumberBefore(word, unit.suffix);
    if (!number) continue;
    const double seconds = *number * unit.seconds;
    if (seconds < 0 || seconds > kLongest) throw BadFault(Quoted(word) + " is out of range");
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  }
  return std::nullopt;
}

Clock::duration TakeTime(Words& words, std::string_view what) {
  const std::string word = words.Take();
  const auto time = TimeOf(word);
  if (time) return *time;
  throw BadFault(Quoted(word) + " is no " + std::string(what) +
                 "; it must read like 300ms, 1.5s, 2min or 1h");
}

std::string TakeMessage(Words& words) {
  const std::string name = words.Take();
  if (IsMessage(name)) return name;
  throw BadFault(Quoted(name) +
                 " is unknown; what can go wrong is: ack of MESSAGE, every ack, every message, "
                 "input N, every input, output N, every output, or a message: " +
                 Join(kRequests) + ", " + Join(kOthers));
}

uint32_t TakeStream(Words& words) {
  const std::string word = words.Take();
  if (const auto number = WholeNumber<uint32_t>(word)) return *number;
  throw BadFault(Quoted(word) + " is no number of a stream, from 0");
}

void ParseSubject(Words words, Fault& fault) {
  const bool every = words.Take("every");
  const bool hasNumber = words.Peek() == "input" || words.Peek() == "output";
  if (hasNumber) {
    fault.subject = words.Take() == "input" ? Subject::Input : Subject::Output;
    if (!every) fault.stream = TakeStream(words);
  } else if (words.Take("ack")) {
    fault.subject = Subject::Ack;
    if (!every) {
      if (!words.Take("of")) throw BadFault("\"ack\" must read: ack of MESSAGE, or every ack");
      fault.message = TakeMessage(words);
    }
  } else {
    fault.subject = Subject::Message;
    if (!every || !words.Take("message")) fault.message = TakeMessage(words);
  }
  words.End();
}

// What each subject can do, in the order of the help.
struct Deed {
  std::string_view name;
  Effect effect;
};
constexpr Deed kOfDatagrams[] = {{"lost", Effect::Lost},
                                 {"doubled", Effect::Doubled},
                                 {"late", Effect::Late},
                                 {"jitter", Effect::Jitter},
                                 {"damaged", Effect::Damaged}};
constexpr Deed kOfStreams[] = {{"silent", Effect::Silent}, {"drift", Effect::Drift}};
constexpr Deed kOfRequests[] = {{"error", Effect::Error}, {"ignored", Effect::Ignored}};
constexpr Deed kOfUnits[] = {{"reboot", Effect::Reboot}, {"gone", Effect::Gone}};

std::vector<Deed> DeedsOf(const Fault& fault) {
  std::vector<Deed> all;
  const auto add = [&all](const auto& deeds) {
    all.insert(all.end(), std::begin(deeds), std::end(deeds));
  };
  if (fault.subject == Subject::Unit) {
    add(kOfUnits);
    return all;
  }
  add(kOfDatagrams);
  if (fault.subject == Subject::Input || fault.subject == Subject::Output) add(kOfStreams);
  if (fault.subject == Subject::Message && IsRequest(fault.message)) add(kOfRequests);
  return all;
}

Effect TakeEffect(Words& words, const Fault& fault) {
  const std::string name = words.Take();
  const std::vector<Deed> deeds = DeedsOf(fault);
  std::string known;
  for (const Deed& deed : deeds) {
    if (deed.name == name) return deed.effect;
    known += (known.empty() ? "" : ", ") + std::string(deed.name);
  }
  if (fault.subject == Subject::Unit) {
    throw BadFault((name.empty() ? "it" : Quoted(name)) +
                   " says nothing that a unit does; it must read WHAT: EFFECT, as in "
                   "'get_inputs: lost 3 times', or reboot for TIME, or gone");
  }
  throw BadFault(Quoted(name) + " doesn't go with " +
                 (fault.message.empty() ? "this" : Quoted(fault.message)) + "; these do: " + known);
}

void TakeArgument(Words& words, Fault& fault) {
  if (fault.effect == Effect::Late || fault.effect == Effect::Jitter) {
    fault.delay = TakeTime(words, "delay");
  } else if (fault.effect == Effect::Error) {
    const std::string word = words.Take();
    const auto code = WholeNumber<uint32_t>(word);
    if (!code) throw BadFault(Quoted(word) + " is no error code; units send 1 and 2");
    fault.code = *code;
  } else if (fault.effect == Effect::Drift) {
    const std::string word = words.Take();
    const auto ppm = NumberBefore(word, "ppm");
    if (!ppm || std::fabs(*ppm) > kMostPpm) {
      throw BadFault(Quoted(word) + " is no drift; it must read like +50ppm, up to 100000");
    }
    fault.ppm = *ppm;
  }
}

// How often, one kind after the other: "3 times", "20%", "1s every 10s".
bool TakeLimit(Words& words, Fault& fault) {
  const std::string_view word = words.Peek();
  const auto count = word == "once"    ? std::optional<uint64_t>(1)
                     : word == "twice" ? std::optional<uint64_t>(2)
                                       : WholeNumber<uint64_t>(word);
  if (count && *count > 0 && !fault.times) {
    words.Take();
    if (word != "once" && word != "twice" && !words.Take("times")) {
      throw BadFault("a unit is missing after " + Quoted(word) + ": times, %, s or ms");
    }
    fault.times = count;
    return true;
  }
  if (const auto percent = NumberBefore(word, "%")) {
    if (*percent < 0 || *percent > 100) throw BadFault(Quoted(word) + " isn't from 0 to 100%");
    fault.percent = *percent;
    words.Take();
    return true;
  }
  if (fault.length != Clock::duration() || (!words.Take("for") && !TimeOf(word))) return false;
  fault.length = TakeTime(words, "length");
  if (words.Take("every")) fault.period = TakeTime(words, "period");
  const bool endless = fault.length == Clock::duration();
  if (endless || (fault.period != Clock::duration() && fault.period <= fault.length)) {
    throw BadFault("a length must be above 0 and below its period, as in: 1s every 10s");
  }
  return true;
}

void ParseEffect(Words words, Fault& fault) {
  fault.effect = TakeEffect(words, fault);
  TakeArgument(words, fault);
  while (!words.Empty()) {
    if (!TakeLimit(words, fault)) {
      throw BadFault(Quoted(words.Peek()) +
                     " isn't understood here; how often may read: once, 3 times, 20%, "
                     "for 1s, 1s every 10s");
    }
  }
  const bool counts = fault.times || fault.percent < 100;
  if (counts && (fault.subject == Subject::Unit || fault.effect == Effect::Drift)) {
    throw BadFault("this counts no datagrams; it may read: for 1s, 1s every 10s");
  }
  if (fault.effect == Effect::Reboot && fault.length == Clock::duration()) {
    throw BadFault("\"reboot\" lacks how long it takes, as in: reboot for 2s");
  }
}

Fault ParseParts(std::string_view text) {
  Fault fault;
  fault.text = Trim(text);
  size_t colon = text.find(':');
  for (; colon != std::string_view::npos; colon = text.find(':')) {
    const std::string_view head = Trim(text.substr(0, colon));
    if (head.starts_with("unit ")) {
      fault.unit = Trim(head.substr(5));
    } else if (head.starts_with("at ")) {
      Words words(head.substr(3));
      fault.after = TakeTime(words, "time");
      words.End();
    } else {
      ParseSubject(Words(head), fault);
    }
    text.remove_prefix(colon + 1);
    if (fault.subject != Subject::Unit) break;
  }
  ParseEffect(Words(text), fault);
  if (!fault.unit.empty() && fault.message == "dev_find") {
    throw BadFault(
        "\"dev_find\" goes to all units at once; for one of them take its answer, \"dev_info\"");
  }
  return fault;
}

}  // namespace

std::optional<Clock::duration> ParseTime(std::string_view word) {
  return TimeOf(word);
}

Fault ParseFault(std::string_view text) {
  try {
    return ParseParts(text);
  } catch (const BadFault& error) {
    throw BadFault(Quoted(Trim(text)) + " is no fault: " + error.what());
  }
}

std::vector<Fault> ParseFaultScript(std::string_view script) {
  std::vector<Fault> faults;
  for (size_t number = 1; !script.empty(); ++number) {
    const size_t end = std::min(script.find('\n'), script.size());
    const std::string_view line = Trim(script.substr(0, end));
    script.remove_prefix(std::min(end + 1, script.size()));
    if (line.empty() || line.starts_with('#')) continue;
    try {
      faults.push_back(ParseFault(line));
    } catch (const BadFault& error) {
      throw BadFault("line " + std::to_string(number) + ": " + error.what());
    }
  }
  return faults;
}

std::string_view FaultHelp() {
  return R"(A fault reads [unit ID:] [at TIME:] WHAT: EFFECT [HOW OFTEN].
  ack of set_inputs: lost 3 times     WHAT: a message's name, ack of one, every
  get_fm_freq: error 2                message, every ack; input N, every input,
  dev_info: late 300ms                output N, every output
  input 1: silent 1s every 10s
  input 0: drift +50ppm               EFFECT: lost, doubled, damaged, late TIME,
  unit emu-2: every message: lost 5%  jitter TIME; of streams silent, drift PPM;
  at 5s: reboot for 2s                of requests error CODE, ignored
  at 9s: unit emu-1: gone
                                      HOW OFTEN: once, 3 times, 20%, for TIME,
                                      TIME every TIME; they may be joined
Each datagram counts, a repeat too. "silent" sends samples of 0, "lost" sends
nothing. After a reboot inputs are off and tuners as at first. TIME is 300ms,
1.5s, 2min or 1h.)";
}

}  // namespace wire
