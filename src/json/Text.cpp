// The compact text of a tree: no white space, keys in ascending order, one form for each value.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <limits>
#include <string_view>

#include "json/Value.h"

namespace JSON {

namespace {

[[noreturn]] void ThrowNoText() {
  throw Exception("JSON value undefined: cannot generate text representation");
}

bool NeedsEscape(wchar_t unit) {
  return static_cast<uint16_t>(unit) < 0x20 || unit == L'"' || unit == L'\\' || unit == L'/';
}

void AppendEscape(std::wstring& out, wchar_t unit) {
  constexpr wchar_t kHexDigits[] = L"0123456789ABCDEF";
  switch (unit) {
    case L'\b':
      out += L"\\b";
      break;
    case L'\t':
      out += L"\\t";
      break;
    case L'\n':
      out += L"\\n";
      break;
    case L'\f':
      out += L"\\f";
      break;
    case L'\r':
      out += L"\\r";
      break;
    case L'"':
    case L'\\':
    case L'/':
      out += L'\\';
      out += unit;
      break;
    default:
      out += L"\\u00";
      out += kHexDigits[unit >> 4];
      out += kHexDigits[unit & 0xF];
  }
}

// What needs no escape, which is nearly all, goes over in runs.
void AppendQuoted(std::wstring& out, std::wstring_view text) {
  out += L'"';
  while (!text.empty()) {
    const auto escape = std::find_if(text.begin(), text.end(), NeedsEscape);
    const auto plain = static_cast<size_t>(escape - text.begin());
    out.append(text.substr(0, plain));
    if (plain == text.size()) break;
    AppendEscape(out, text[plain]);
    text.remove_prefix(plain + 1);
  }
  out += L'"';
}

void AppendInteger(std::wstring& out, int64_t value) {
  char text[24];
  char* const end = std::to_chars(text, std::end(text), value).ptr;
  out.append(&text[0], end);
}

// JSON has no text for infinity and not-a-number. The nearest number is written, so that what the
// system writes can always be read again.
double ToFinite(double value) {
  if (std::isnan(value)) return 0.0;
  if (std::isinf(value)) return std::copysign(std::numeric_limits<double>::max(), value);
  return value;
}

// Six significant digits with trailing zeros and the point always shown; an exponent of at least
// three digits. Composed from the scientific form, as C libraries differ in what they make of "#g".
void AppendDouble(std::wstring& out, double value) {
  char text[32];
  const auto end =
      std::to_chars(text, text + sizeof(text), ToFinite(value), std::chars_format::scientific, 5)
          .ptr;
  // [-]d.ddddde[+-]x...
  const char* pos = text;
  if (*pos == '-') {
    out += L'-';
    ++pos;
  }
  std::wstring digits(1, static_cast<wchar_t>(*pos));
  pos += 2;
  for (; *pos != 'e'; ++pos)
    digits += static_cast<wchar_t>(*pos);
  const bool negative = *++pos == '-';
  int exponent = 0;
  std::from_chars(pos + 1, end, exponent);
  if (negative) exponent = -exponent;

  if (exponent < -4 || exponent > 5) {
    out += digits.substr(0, 1) + L'.' + digits.substr(1);
    out += negative ? L"e-" : L"e+";
    const std::wstring number = std::to_wstring(std::abs(exponent));
    if (number.size() < 3) out.append(3 - number.size(), L'0');
    out += number;
  } else if (exponent < 0) {
    out += L"0." + std::wstring(static_cast<size_t>(-exponent - 1), L'0') + digits;
  } else {
    const auto whole = static_cast<size_t>(exponent) + 1;
    out += digits.substr(0, whole) + L'.' + digits.substr(whole);
    // From 100000 to 999999 all six digits stand before the point, so the text ends in it, as in
    // "123456.". That is the form on the wire, although the parser refuses it as a number without a
    // digit after its point. Callers whose text has to be read again, as the settings file, test
    // for such numbers before they write.
  }
}

const wchar_t* ConstantText(int32_t constant) {
  switch (constant) {
    case ConstNull:
      return L"null";
    case ConstFalse:
      return L"false";
    case ConstTrue:
      return L"true";
    default:
      ThrowNoText();
  }
}

}  // namespace

std::wstring& Value::GenerateText(std::wstring& out) const {
  switch (type_) {
    case Constant:
      out += ConstantText(constant_);
      break;
    case Integer:
      AppendInteger(out, integer_);
      break;
    case Double:
      AppendDouble(out, real_);
      break;
    case String:
      AppendQuoted(out, string_);
      break;
    case Object: {
      wchar_t separator = L'{';
      keys_.ForEach([&](std::wstring_view key, uint64_t index) {
        out += separator;
        separator = L',';
        AppendQuoted(out, key);
        out += L':';
        members_.at(static_cast<size_t>(index)).GenerateText(out);
      });
      out += keys_.Empty() ? L"{}" : L"}";
      break;
    }
    case Array: {
      wchar_t separator = L'[';
      for (const Value& element : elements_) {
        out += separator;
        separator = L',';
        element.GenerateText(out);
      }
      out += elements_.empty() ? L"[]" : L"]";
      break;
    }
    default:
      ThrowNoText();
  }
  return out;
}

std::wstring Value::ToWString() const {
  std::wstring out;
  out.reserve(256);  // most messages fit
  GenerateText(out);
  return out;
}

}  // namespace JSON
