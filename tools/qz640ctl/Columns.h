// How wide texts look on a terminal: a character takes one column, an East Asian wide one two, a
// combining one none. Terminals differ on the newest emoji; all others agree.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ctl {

// What UTF-8 text begins with: a character, or one byte that is none (no code point then).
struct Character {
  std::string_view bytes;
  std::optional<uint32_t> point;
};
Character FirstCharacter(std::string_view text);  // not of an empty text

// 0, 1 or 2.
size_t ColumnsOf(uint32_t point);

// Of printable UTF-8. Colours (ECMA-48, "ESC [ ... m") take none, a byte that is no character one.
size_t Columns(std::string_view text);

// As much of the text as `most` columns hold, with all of its colours.
std::string CutToColumns(std::string_view text, size_t most);

}  // namespace ctl
