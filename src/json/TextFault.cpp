#include "json/TextFault.h"

#include "json/Parser.h"

namespace JSON {

// The parser goes on after a whole value and takes white space alone there. A U+0000 would be the
// end of the text to it, and what follows that would go unseen; so here the character is a fault.
std::optional<TextFault> FindTextFault(std::wstring_view text, size_t maxDepth) {
  Parser parser(nullptr);
  uint64_t line = 1;
  uint64_t column = 1;
  const auto faultHere = [&](const char* what) { return TextFault{what, line, column}; };
  for (const wchar_t unit : text) {
    const auto c = static_cast<uint32_t>(unit);
    if (c == 0) return faultHere("character U+0000 in the text");
    if (!parser.ParseChar(c)) return faultHere(ErrorText(static_cast<int>(parser.GetError())));
    if (parser.Depth() > maxDepth) return faultHere("too many containers inside one another");
    const bool secondOfPair = c >= 0xDC00 && c <= 0xDFFF;
    if (c == '\n') {
      ++line;
      column = 1;
    } else if (!secondOfPair) {
      ++column;
    }
  }
  parser.Finish();
  if (parser.HasError()) return faultHere(ErrorText(static_cast<int>(parser.GetError())));
  return std::nullopt;
}

}  // namespace JSON
