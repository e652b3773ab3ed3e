#include "Printable.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace ctl {

namespace {

constexpr size_t kCellColumns = 32;

std::string Escape(const char* prefix, uint32_t number, int digits) {
  std::string text = prefix;
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
    text += "0123456789ABCDEF"[number >> shift & 0xF];
  return text;
}

// The length of the UTF-8 sequence that `text` begins with; 0 if it begins with none. What is
// overlong or no character slips through: it moves no terminal.
size_t SequenceLength(std::string_view text) {
  const auto first = static_cast<uint8_t>(text.front());
  const size_t length = first < 0x80   ? 1
                        : first < 0xC2 ? 0
                        : first < 0xE0 ? 2
                        : first < 0xF0 ? 3
                        : first < 0xF5 ? 4
                                       : 0;
  if (length > text.size()) return 0;
  const auto rest = text.substr(std::min<size_t>(1, length), length > 0 ? length - 1 : 0);
  const bool whole = std::all_of(rest.begin(), rest.end(),
                                 [](char c) { return (static_cast<uint8_t>(c) & 0xC0) == 0x80; });
  return whole ? length : 0;
}

uint32_t CodePoint(std::string_view sequence) {
  const auto first = static_cast<uint8_t>(sequence.front());
  if (sequence.size() == 1) return first;
  uint32_t point = first & (0x7Fu >> sequence.size());
  for (const char c : sequence.substr(1))
    point = point << 6 | (static_cast<uint8_t>(c) & 0x3F);
  return point;
}

// The marks of the Unicode bidirectional algorithm (UAX 9), and the two separators of lines.
bool TurnsOrBreaks(uint32_t point) {
  return point == 0x061C || point == 0x200E || point == 0x200F ||
         (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
}

bool IsControl(uint32_t point) {
  return point < 0x20 || (point >= 0x7F && point <= 0x9F);
}

// One element a character or escape.
std::vector<std::string> Parts(std::string_view text) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const size_t length = SequenceLength(text);
    const std::string_view sequence = text.substr(0, std::max<size_t>(length, 1));
    text.remove_prefix(sequence.size());
    const uint32_t point = length == 0 ? static_cast<uint8_t>(sequence[0]) : CodePoint(sequence);
    if (length == 0 || IsControl(point)) {
      parts.push_back(Escape("\\x", point, 2));
    } else if (TurnsOrBreaks(point)) {
      parts.push_back(Escape("\\u", point, 4));
    } else {
      parts.emplace_back(sequence);
    }
  }
  return parts;
}

size_t Columns(const std::string& part) {
  return part.size() > 1 && part[0] == '\\' ? part.size() : 1;
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string all;
  for (const std::string& part : Parts(text))
    all += part;
  return all;
}

std::string PrintableCell(std::string_view text) {
  constexpr std::string_view kCut = "...";
  std::string whole;
  std::string head;  // as much as leaves room for the dots
  size_t columns = 0;
  for (const std::string& part : Parts(text)) {
    columns += Columns(part);
    whole += part;
    if (columns + kCut.size() <= kCellColumns) head = whole;
    if (columns > kCellColumns) return head.append(kCut);
  }
  return whole;
}

}  // namespace ctl
