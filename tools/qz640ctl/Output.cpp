#include "Output.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <locale>
#include <sstream>
#include <string_view>
#include <system_error>

#include "Columns.h"
#include "ExitStatus.h"
#include "Printable.h"
#include "platform/errors.h"
#include "platform/startup.h"
#include "platform/terminal.h"

namespace ctl {

namespace {

// The width to fit into where the terminal doesn't say.
constexpr size_t kUsualColumns = 80;
constexpr size_t kMostHeldNotes = 1000;

void WriteError(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

}  // namespace

// To six digits: no level or time is measured more exactly, and a person can still read it.
Fields& Fields::Add(const char* key, double number) {
  char text[32];
  const auto written =
      std::to_chars(text, text + sizeof text, number, std::chars_format::general, 6);
  double rounded = 0;
  std::from_chars(text, written.ptr, rounded);
  object_[key] = rounded;
  return *this;
}

// What isn't ASCII goes as \u escapes: names from the network may hold what steers a terminal.
std::string Fields::ToText() const {
  return object_.dump(-1, ' ', true, wire::Json::error_handler_t::replace);
}

Output::Output(const OutputOptions& options) : json_(options.json), quiet_(options.quiet) {
  const bool outTerminal = platform::IsTerminal(platform::Stream::Output);
  const char* noColour = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  live_ = outTerminal && !json_ && !(term && std::string_view(term) == "dumb");
  colour_ = live_ && !options.noColour && !(noColour && *noColour);
  errTerminal_ = platform::IsTerminal(platform::Stream::Error);
}

void Output::Line(const std::string& text) {
  if (json_) return;
  EndProgress();
  Write(text + "\n");
}

void Output::Object(const Fields& object) {
  if (!json_) return;
  Write(object.ToText() + "\n");
}

void Output::Write(const std::string& bytes) {
  if (broken_) return;
  const uint32_t error = platform::WriteOutput(bytes);
  if (error == 0) return;
  broken_ = true;
  if (error == platform::kPipeClosed) throw OutputClosed();
  throw Failure{kRefused, "can't write to standard output: " +
                              std::system_category().message(static_cast<int>(error))};
}

// Short of the last column, where some terminals wrap at once.
size_t Output::ProgressColumns() const {
  const auto size = platform::SizeOf(platform::Stream::Error);
  return std::max<size_t>(size ? size->columns : kUsualColumns, 2) - 1;
}

// What the line before showed beyond
// the new one's end is erased with blanks, if the terminal is still as wide.
void Output::Progress(const std::string& text) {
  if (!errTerminal_ || json_ || quiet_) return;
  const size_t most = ProgressColumns();
  std::string line = "\r" + CutToColumns(text, most);
  const size_t width = std::min(Columns(text), most);
  const size_t before = std::min(progressWidth_, most);
  if (width < before) line.append(before - width, ' ');
  progressWidth_ = width;
  WriteError(line);
}

void Output::EndProgress() {
  if (progressWidth_ == 0) return;
  progressWidth_ = 0;
  WriteError("\n");
}

void Output::Note(const std::string& text) {
  if (!quiet_) WriteNote(text);
}

void Output::WriteNote(const std::string& text) {
  if (holdsNotes_) {
    held_.push_back(Printable(text));
    if (held_.size() > kMostHeldNotes) held_.erase(held_.begin());
    return;
  }
  EndProgress();
  WriteError("qz640ctl: " + Printable(text) + "\n");
}

void Output::HoldNotes() {
  holdsNotes_ = true;
}

void Output::ShowHeldNotes() {
  holdsNotes_ = false;
  for (const std::string& text : held_)
    WriteError("qz640ctl: " + text + "\n");
  held_.clear();
}

const std::string& Output::HeldNote() const {
  static const std::string none;
  return held_.empty() ? none : held_.back();
}

void Output::Error(const std::string& text) {
  WriteNote(text);
  try {
    Object(Fields().Add("error", text));
  } catch (const OutputClosed&) {
    // Standard error has it; nobody reads objects any more.
  } catch (const Failure& failure) {
    WriteNote(failure.text);
  }
}

std::string Output::Paint(Colour colour, const std::string& text) const {
  if (!colour_ || colour == Colour::None) return text;
  const char* code = "";
  switch (colour) {
    case Colour::Green:
      code = "32";
      break;
    case Colour::Yellow:
      code = "33";
      break;
    case Colour::Red:
      code = "31";
      break;
    case Colour::Dim:
      code = "2";
      break;
    case Colour::None:
      break;
  }
  return std::string("\033[") + code + "m" + text + "\033[0m";
}

std::string FormatTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], Columns(row[i]));
  }
  std::string out;
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - Columns(row[i]) + 2, ' ');
    }
    if (!out.empty()) out += '\n';
    out += line;
  }
  return out;
}

std::string FormatNumber(double value, int decimals) {
  std::ostringstream out;
  out.imbue(std::locale::classic());
  out.setf(std::ios::fixed);
  out.precision(decimals);
  out << value;
  return out.str();
}

double ToDecibel(double peak) {
  constexpr double kFloor = -144.0;
  return peak <= 0 ? kFloor : std::max(kFloor, 20.0 * std::log10(peak));
}

std::string FormatMeter(double peak, size_t width) {
  const double share = std::clamp((ToDecibel(peak) + 60.0) / 60.0, 0.0, 1.0);
  const auto filled = static_cast<size_t>(std::lround(share * static_cast<double>(width)));
  return std::string(filled, '#') + std::string(width - filled, '.');
}

}  // namespace ctl
