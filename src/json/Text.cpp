// The compact text of a tree: no white space, keys in ascending order, one form for each value.
#include <charconv>
#include <cmath>
#include <limits>

#include "json/Value.h"

namespace JSON {

namespace {

[[noreturn]] void ThrowNoText() {
  throw Exception("JSON value undefined: cannot generate text representation");
}

void AppendQuoted(std::wstring& out, const std::wstring& text) {
  out += L'"';
  for (const wchar_t unit : text) {
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
      default: {
        const auto code = static_cast<uint32_t>(unit);
        if (code >= 0x20) {
          out += unit;
          break;
        }
        out += L"\\u00";
        out += L"0123456789ABCDEF"[code >> 4];
        out += L"0123456789ABCDEF"[code & 0xF];
      }
    }
  }
  out += L'"';
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
    // From 100000 to 999999 nothing is left for behind the point, which stands bare then: that is
    // the form on the wire, although the parser doesn't take it. Who has to read it again, as the
    // settings file does, tests for it.
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
      out += std::to_wstring(integer_);
      break;
    case Double:
      AppendDouble(out, real_);
      break;
    case String:
      AppendQuoted(out, string_);
      break;
    case Object: {
      const wchar_t* separator = L"{";
      for (const auto& [key, index] : keys_) {
        out += separator;
        separator = L",";
        AppendQuoted(out, key);
        out += L':';
        members_.at(static_cast<size_t>(index)).GenerateText(out);
      }
      out += keys_.empty() ? L"{}" : L"}";
      break;
    }
    case Array: {
      const wchar_t* separator = L"[";
      for (const Value& element : elements_) {
        out += separator;
        separator = L",";
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
  GenerateText(out);
  return out;
}

}  // namespace JSON
