// Where and why a text isn't one JSON value: for texts that people write by hand, who need the
// place. Builds nothing, so a text that is refused costs no more than reading it once. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace JSON {

struct TextFault {
  const char* what;  // in English, static: the parser's words where it is the parser that refuses
  uint64_t line;     // from 1; a line feed ends a line
  uint64_t column;   // from 1, in characters: of the first one that doesn't fit, or of the end
};

// The first fault of `text`; none when the text is exactly one value in the parser's dialect with
// nothing but white space around it, and at most `maxDepth` containers stand inside one another.
// Never fails but for std::bad_alloc.
std::optional<TextFault> FindTextFault(std::wstring_view text, size_t maxDepth);

}  // namespace JSON
