// What a command prints: text for people, or one JSON object a line for programs. Standard output
// holds results alone; progress and errors go to standard error.
#pragma once

#include <concepts>
#include <optional>
#include <string>
#include <vector>

#include "wire/Message.h"

namespace ctl {

enum class Colour { None, Green, Yellow, Red, Dim };

// An object for programs, put together key by key. Texts are UTF-8; what isn't becomes U+FFFD.
class Fields {
 public:
  Fields& Add(const char* key, const std::string& text) {
    object_[key] = text;
    return *this;
  }
  Fields& Add(const char* key, double number);  // six significant digits
  Fields& Add(const char* key, std::optional<double> number) {
    if (number) return Add(key, *number);
    object_[key] = nullptr;
    return *this;
  }
  Fields& Add(const char* key, std::integral auto number) {
    object_[key] = number;
    return *this;
  }

  Fields& Add(const char* key, const Fields& nested) {
    object_[key] = nested.object_;
    return *this;
  }

  std::string ToText() const;

 private:
  wire::Json object_ = wire::Json::object();
};

// How much of it, and in what form.
struct OutputOptions {
  bool json = false;
  bool quiet = false;     // no notes and no progress; errors all the same
  bool noColour = false;  // as with NO_COLOR in the environment
};

// Nobody reads standard output any more ("| head -1"): the command ends without a word, and gives
// back what it borrowed. Thrown by whatever writes there.
struct OutputClosed {};

// Line, Object and Write throw where standard output takes no more: OutputClosed, or Failure with
// the reason (a full disk). From then on nothing is written there.
class Output {
 public:
  // Colour and carriage returns only where the stream is a terminal; one that calls itself dumb
  // (TERM) gets neither.
  explicit Output(const OutputOptions& options);

  bool Json() const { return json_; }

  // Standard output is a terminal that a live view may draw on.
  bool Live() const { return live_; }

  // A line for people; nothing with --json. What comes from the network goes through Printable.
  void Line(const std::string& text);

  // A line for programs; nothing without --json.
  void Object(const Fields& object);

  // Bytes as they are.
  void Write(const std::string& bytes);

  // While a live view draws on the terminal, notes wait here for its end.
  void HoldNotes();
  void ShowHeldNotes();

  // The latest of them; empty if there is none.
  const std::string& HeldNote() const;

  // A line on standard error that the next one overwrites on a terminal, cut to its width.
  // Elsewhere nothing: a log file has no use for it.
  void Progress(const std::string& text);

  // What that line has room for.
  size_t ProgressColumns() const;

  // Ends the line that Progress draws on.
  void EndProgress();

  // "qz640ctl: text" on standard error, made printable, or with --json an object with the key
  // "error" as well.
  void Error(const std::string& text);

  // "qz640ctl: text" on standard error, made printable; nothing with --quiet.
  void Note(const std::string& text);

  std::string Paint(Colour colour, const std::string& text) const;

 private:
  void WriteNote(const std::string& text);

  bool json_;
  bool quiet_;
  bool live_;
  bool colour_;
  bool errTerminal_;
  bool broken_ = false;  // standard output takes no more
  size_t progressWidth_ = 0;
  bool holdsNotes_ = false;
  std::vector<std::string> held_;
};

// Columns padded to the widest cell. Painted cells are as wide as they look.
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);

// "12.5 %", "-18.2 dB" and the like: `value` with `decimals` digits after the point, whatever the
// locale.
std::string FormatNumber(double value, int decimals);

// A level meter of `width` columns from -60 to 0 dB of full scale; `peak` from 0 to 1.
std::string FormatMeter(double peak, size_t width);

// 20 log10(peak), at least -144 (24 bits have no less).
double ToDecibel(double peak);

}  // namespace ctl
