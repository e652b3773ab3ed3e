#include "LiveView.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "Columns.h"
#include "Printable.h"
#include "platform/startup.h"

namespace ctl {

namespace {

constexpr double kFloorDb = -60;
constexpr double kYellowDb = -12;
constexpr double kRedDb = -3;
constexpr size_t kWidestMeter = 30;
constexpr size_t kMeterWithoutTerminal = 20;
constexpr size_t kNarrowMeter = 8;    // narrower ones say too little: other columns go first
constexpr size_t kNarrowUnit = 8;     // columns of an id that is cut
constexpr size_t kRowsForTitle = 10;  // a lower terminal has better uses for the line

// A column of a table; a meter's width is what the others leave.
struct Column {
  std::string name;
  std::vector<std::string> cells = {};  // one a row; of a meter painted, else plain
  bool isMeter = false;
  bool isText = false;               // to the left
  bool isFault = false;              // red where it isn't 0
  size_t worth = SIZE_MAX;           // what is worth least goes first where the terminal is narrow
  size_t wantsMeter = kNarrowMeter;  // goes where it would make the meters narrower
};

size_t WidthOf(const Column& column) {
  size_t width = Columns(column.name);
  for (const std::string& cell : column.cells)
    width = std::max(width, Columns(cell));
  return width;
}

// Six digits are too many for a narrow column: "1.2M", "34k".
std::string CountText(uint64_t count) {
  if (count < 10'000) return std::to_string(count);
  if (count < 1'000'000) return std::to_string(count / 1000) + "k";
  return std::to_string(count / 1'000'000) + "M";
}

// A text cut to its column, with dots where that cut it.
std::string Fit(const std::string& text, size_t width) {
  if (Columns(text) <= width) return text;
  return CutToColumns(text, width - std::min<size_t>(width, 3)) + "...";
}

std::string Pad(const std::string& text, size_t width, bool left) {
  const std::string blanks(width - std::min(width, Columns(text)), ' ');
  return left ? text + blanks : blanks + text;
}

// From -60 dB to full scale, yellow from -12 dB and red from -3 dB on; '|' is the highest level of
// the latest two seconds, '!' at the end says that the channel has clipped.
std::string Meter(const ChannelLevel& level, size_t width, const Output& out) {
  const auto placeOf = [width](double db) {
    const double share = std::clamp((db - kFloorDb) / -kFloorDb, 0.0, 1.0);
    return static_cast<size_t>(std::lround(share * static_cast<double>(width)));
  };
  std::string bar = FormatMeter(level.peak, width);
  const size_t held = placeOf(ToDecibel(level.hold));
  if (held > placeOf(ToDecibel(level.peak))) bar[held - 1] = '|';
  if (level.clipped > 0) bar[width - 1] = '!';
  const size_t yellow = placeOf(kYellowDb);
  const size_t red = std::min(placeOf(kRedDb), width - 1);
  const auto part = [&](size_t begin, size_t end, Colour colour) {
    const std::string text = bar.substr(begin, end - begin);
    const bool lit = text.find_first_not_of('.') != std::string::npos;
    return lit ? out.Paint(colour, text) : text;
  };
  return part(0, yellow, Colour::Green) + part(yellow, red, Colour::Yellow) +
         part(red, width, Colour::Red);
}

std::string DriftText(const std::optional<double>& ppm) {
  if (!ppm) return "-";
  const double shown = std::clamp(*ppm, -99999.0, 99999.0);
  return (shown >= 0 ? "+" : "") + FormatNumber(shown, 0);
}

// Takes columns away until meters and ids have room, then lays out what is left.
class Table {
 public:
  Table(const std::vector<Figures>& rows, const Output& out) : rows_(rows), out_(out) {
    std::vector<std::string>& ids = Add({.name = "UNIT", .isText = true}).cells;
    for (const Figures& row : rows)
      ids.push_back(PrintableCell(row.unit));
    AddText("IN", [](const Figures& row) { return std::to_string(row.input); });
  }

  Column& Add(Column column) {
    columns_.push_back(std::move(column));
    return columns_.back();
  }

  template <typename Text>
  Column& AddText(const char* name, Text text, size_t worth = SIZE_MAX) {
    Column& column = Add({.name = name, .worth = worth});
    for (const Figures& row : rows_)
      column.cells.push_back(text(row));
    return column;
  }

  template <typename Count>
  void AddFault(const char* name, Count count, size_t worth) {
    AddText(
        name, [count](const Figures& row) { return CountText(count(row)); }, worth)
        .isFault = true;
  }

  std::vector<std::string> Lines(size_t most) {
    size_t meter = most == 0 ? kMeterWithoutTerminal : 0;
    if (most > 0) meter = MakeRoom(most);
    std::vector<std::string> lines(rows_.size() + 1);
    for (size_t line = 0; line < lines.size(); ++line) {
      size_t channel = 0;
      for (const Column& column : columns_) {
        if (!lines[line].empty()) lines[line] += most == 0 ? "  " : " ";
        if (column.isMeter) {
          lines[line] += line == 0 ? Pad(CutToColumns(column.name, meter), meter, true)
                                   : Meter(rows_[line - 1].channels[channel], meter, out_);
          ++channel;
        } else {
          lines[line] += CellText(column, line);
        }
      }
      if (most > 0) lines[line] = CutToColumns(lines[line], most);
    }
    return lines;
  }

 private:
  std::string CellText(const Column& column, size_t line) const {
    const std::string& text = line == 0 ? column.name : column.cells[line - 1];
    const bool isUnit = &column == &columns_.front();
    const size_t width = isUnit && unitWidth_ > 0 ? unitWidth_ : WidthOf(column);
    const std::string padded = Pad(isUnit ? Fit(text, width) : text, width, column.isText);
    return line > 0 && column.isFault && text != "0" ? out_.Paint(Colour::Red, padded) : padded;
  }

  // Returns the meters' width. The unit's id gives way before a column does.
  size_t MakeRoom(size_t most) {
    for (;;) {
      size_t taken = columns_.size() - 1;
      size_t meters = 0;
      size_t wanted = kNarrowMeter;
      for (const Column& column : columns_) {
        meters += column.isMeter ? 1 : 0;
        wanted = std::max(wanted, column.wantsMeter);
        if (!column.isMeter && &column != &columns_.front()) taken += WidthOf(column);
      }
      const size_t room = most - std::min(most, taken);
      const size_t unit = WidthOf(columns_.front());
      const size_t forMeters = meters * wanted;
      unitWidth_ = room >= unit + forMeters
                       ? unit
                       : std::min(unit, std::max(kNarrowUnit, room - std::min(room, forMeters)));
      const size_t left = room - std::min(room, unitWidth_);
      if (left >= forMeters || !DropLeast()) {
        return meters == 0 ? 0 : std::clamp<size_t>(left / meters, 1, kWidestMeter);
      }
    }
  }

  bool DropLeast() {
    const auto least =
        std::min_element(columns_.begin(), columns_.end(),
                         [](const Column& a, const Column& b) { return a.worth < b.worth; });
    if (least->worth == SIZE_MAX) return false;
    columns_.erase(least);
    return true;
  }

  const std::vector<Figures>& rows_;
  const Output& out_;
  std::vector<Column> columns_;
  size_t unitWidth_ = 0;  // 0: as wide as it is
};

// What a terminal is told around a picture (ECMA-48, and the private modes of DEC terminals that
// all follow): the other screen, no cursor, no wrapping at the right edge; and back.
constexpr char kTakeScreen[] = "\033[?1049h\033[?25l\033[?7l\033[2J";
constexpr char kGiveScreenBack[] = "\033[?7h\033[?25h\033[?1049l";

}  // namespace

std::vector<std::string> LevelTable(const std::vector<Figures>& rows, size_t columns,
                                    const Output& out) {
  Table table(rows, out);
  table.Add({.name = "LEFT", .isMeter = true});
  table.Add({.name = "RIGHT", .isMeter = true});
  table
      .AddText(
          "PEAK dB",
          [](const Figures& row) {
            return FormatNumber(ToDecibel(std::max(row.channels[0].hold, row.channels[1].hold)), 1);
          },
          0)
      .wantsMeter = 12;
  table.AddText(
      "PK/S", [](const Figures& row) { return FormatNumber(row.rate, 1); }, 5);
  table.AddText(
      "JITTER", [](const Figures& row) { return FormatNumber(row.jitterMs, 2); }, 6);
  table.AddText(
      "DRIFT", [](const Figures& row) { return DriftText(row.driftPpm); }, 4);
  table.AddFault(
      "LOST", [](const Figures& row) { return row.lost; }, 8);
  table.AddFault(
      "LATE", [](const Figures& row) { return row.late; }, 7);
  table.AddFault(
      "DOUBLE", [](const Figures& row) { return row.duplicates; }, 2);
  table.AddFault(
      "ORDER", [](const Figures& row) { return row.outOfOrder; }, 3);
  table.AddText(
      "TEST", [](const Figures& row) { return row.pattern ? "yes" : "-"; }, 1);
  return table.Lines(columns);
}

std::vector<std::string> DelayTable(const std::vector<Figures>& rows, size_t columns,
                                    const Output& out) {
  Table table(rows, out);
  const auto& limits = wire::StreamTiming::kLimitsMs;
  for (size_t i = 0; i <= limits.size(); ++i) {
    const double limit = limits[std::min(i, limits.size() - 1)];
    const std::string name = FormatNumber(limit, limit < 0.2   ? 1
                                                 : limit < 0.5 ? 2
                                                 : limit < 1   ? 1
                                                               : 0);
    table.AddText(((i < limits.size() ? "<" : ">=") + name).c_str(), [i](const Figures& row) {
      uint64_t all = 0;
      for (const uint64_t count : row.delays)
        all += count;
      if (row.delays[i] == 0) return std::string(".");
      const double share = 100.0 * static_cast<double>(row.delays[i]) / static_cast<double>(all);
      return share < 0.1 ? std::string("<0.1") : FormatNumber(share, 1);
    });
  }
  return table.Lines(columns);
}

LiveView::LiveView(Output& out, std::function<std::string(size_t)> title)
    : out_(out), title_(std::move(title)) {
  out_.Write(kTakeScreen);
  out_.HoldNotes();
}

// The terminal may be gone.
LiveView::~LiveView() {
  platform::WriteOutput(kGiveScreenBack);
  out_.ShowHeldNotes();
}

LiveView::Wish LiveView::TakeKeys() {
  Wish wish = Wish::None;
  bool changed = false;
  while (const auto key = keys_.Take()) {
    changed = true;
    switch (*key) {
      case 'q':
        return Wish::Quit;
      case 'r':
        wish = Wish::Reset;
        break;
      case 'p':
        paused_ = !paused_;
        break;
      case 's':
        order_ = order_ == Order::Jitter ? Order::Unit
                                         : static_cast<Order>(static_cast<int>(order_) + 1);
        break;
      case 'j':
        showsDelays_ = !showsDelays_;
        break;
      default:
        changed = false;
    }
  }
  if (changed) Draw();
  return wish;
}

// Also where the picture stands still: the terminal's size may have changed.
void LiveView::Show(const std::vector<Figures>& rows) {
  if (!paused_) rows_ = rows;
  Draw();
}

std::vector<Figures> LiveView::Sorted() const {
  std::vector<Figures> rows = rows_;
  const auto before = [this](const Figures& a, const Figures& b) {
    switch (order_) {
      case Order::Unit:
        return false;
      case Order::Level:
        return std::max(a.channels[0].hold, a.channels[1].hold) >
               std::max(b.channels[0].hold, b.channels[1].hold);
      case Order::Faults:
        return a.Faults() > b.Faults();
      case Order::Jitter:
        return a.jitterMs > b.jitterMs;
    }
    return false;
  };
  std::stable_sort(rows.begin(), rows.end(), before);
  return rows;
}

// The longest of its forms that fits. What the view is short of goes before what the keys do.
std::string LiveView::Footer(size_t hidden, size_t columns) const {
  static constexpr const char* kOrders[] = {"unit", "level", "faults", "jitter"};
  const std::string more = hidden > 0 ? std::to_string(hidden) + " more  " : "";
  const std::string state = more + (paused_ ? "PAUSED  " : "");
  const std::string whole = state + (showsDelays_ ? "% of packets by ms of delay  " : "");
  const std::string brief = state + (showsDelays_ ? "% by ms  " : "");
  if (!keys_.Ok()) return whole + "Ctrl-C ends";
  const std::string order = kOrders[static_cast<size_t>(order_)];
  const std::string other = showsDelays_ ? "levels" : "jitter";
  const std::string words = "q quit  p pause  r reset  s sort: " + order + "  j " + other;
  const std::string fewer = "q quit p pause r reset s " + order + " j " + other;
  for (const std::string& text :
       {whole + words, brief + words, brief + fewer, brief + "q quit s " + order + " p r j",
        state + "q quit p r s j"}) {
    if (Columns(text) <= columns) return text;
  }
  return state + "q quit";
}

// Short of the right edge: in the last column, erasing to the line's end would erase what stands
// there. Rows that have no room are counted, as scrolling would take the first ones away.
void LiveView::Draw() {
  const platform::TerminalSize size =
      platform::SizeOf(platform::Stream::Output).value_or(platform::TerminalSize());
  const size_t columns = std::max<size_t>(size.columns, 2) - 1;
  const std::vector<Figures> rows = Sorted();
  std::vector<std::string> table =
      showsDelays_ ? DelayTable(rows, columns, out_) : LevelTable(rows, columns, out_);

  std::vector<std::string> lines;
  if (size.rows >= kRowsForTitle) {
    const std::string& note = out_.HeldNote();
    lines.push_back(Fit(note.empty() ? title_(columns) : note, columns));
  }
  const size_t room = size.rows - std::min<size_t>(size.rows, lines.size() + 1);  // and the footer
  const size_t hidden = table.size() - std::min(table.size(), room);
  table.resize(table.size() - hidden);
  lines.insert(lines.end(), table.begin(), table.end());
  lines.push_back(Footer(std::min(hidden, rows.size()), columns));

  std::string bytes = "\033[H";
  for (size_t i = 0; i < lines.size(); ++i)
    bytes += (i == 0 ? "" : "\r\n") + CutToColumns(lines[i], columns) + "\033[K";
  out_.Write(bytes + "\033[J");
}

}  // namespace ctl
