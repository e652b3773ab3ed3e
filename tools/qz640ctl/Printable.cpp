#include "Printable.h"

#include <cstdint>
#include <vector>

#include "Columns.h"

namespace ctl {

namespace {

constexpr size_t kCellColumns = 32;
constexpr size_t kCellBytes = 8 * kCellColumns;  // else marks without a width had no limit

std::string Escape(const char* prefix, uint32_t number, int digits) {
  std::string text = prefix;
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
    text += "0123456789ABCDEF"[number >> shift & 0xF];
  return text;
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
    const Character first = FirstCharacter(text);
    text.remove_prefix(first.bytes.size());
    const uint32_t point = first.point.value_or(static_cast<uint8_t>(first.bytes.front()));
    if (!first.point || IsControl(point)) {
      parts.push_back(Escape("\\x", point, 2));
    } else if (TurnsOrBreaks(point)) {
      parts.push_back(Escape("\\u", point, 4));
    } else {
      parts.emplace_back(first.bytes);
    }
  }
  return parts;
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
    if (columns > kCellColumns || whole.size() > kCellBytes) return head.append(kCut);
    if (columns + kCut.size() <= kCellColumns) head = whole;
  }
  return whole;
}

}  // namespace ctl
