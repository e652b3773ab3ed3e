// The picture that "watch" draws over the whole terminal, five times a second, and the keys that
// change it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Output.h"
#include "Watched.h"
#include "platform/terminal.h"

namespace ctl {

// A table for people, a line an input, header first; at most `columns` wide, no less than a narrow
// terminal. For 0 as wide as it is at its best: for a file or a pipe.
std::vector<std::string> LevelTable(const std::vector<Figures>& rows, size_t columns,
                                    const Output& out);

// How many per cent of each input's packets were delayed by so much.
std::vector<std::string> DelayTable(const std::vector<Figures>& rows, size_t columns,
                                    const Output& out);

// Takes the terminal for its lifetime: what it held before comes back at the end, with the cursor
// and the keys as they were. Notes wait until then.
class LiveView {
 public:
  // `title` says what stands in the first line, until there is a note: printable, and as wide as
  // the columns that it is given where it can.
  LiveView(Output& out, std::function<std::string(size_t columns)> title);
  ~LiveView();
  LiveView(const LiveView&) = delete;
  LiveView& operator=(const LiveView&) = delete;

  enum class Wish { None, Quit, Reset };

  // What the user has typed since the call before. What concerns the picture alone shows at once.
  Wish TakeKeys();

  // Shows them, unless the user has stopped the picture.
  void Show(const std::vector<Figures>& rows);

 private:
  enum class Order { Unit, Level, Faults, Jitter };

  void Draw();
  std::vector<Figures> Sorted() const;
  std::string Footer(size_t hidden, size_t columns) const;

  Output& out_;
  const std::function<std::string(size_t)> title_;
  platform::Keys keys_;
  std::vector<Figures> rows_;
  bool paused_ = false;
  bool showsDelays_ = false;
  Order order_ = Order::Unit;
};

}  // namespace ctl
