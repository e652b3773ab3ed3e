// JSON as RFC 8259 has it, for the test's side of the wire. Shares no code with the emulator, and
// is strict where the emulator is lenient: what the emulator writes has to be plain JSON.
#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace wire {

struct Json {
  enum class Kind { Null, Bool, Integer, Number, String, Array, Object };

  Kind kind = Kind::Null;
  bool boolean = false;
  int64_t integer = 0;  // of an Integer, a number without fraction and exponent
  double number = 0;    // of Integer and Number
  std::string string;   // UTF-8
  std::vector<Json> array;
  std::map<std::string, Json> object;
  std::vector<std::string> keys;  // of an object, in the order of the text

  // Throws std::runtime_error, also if anything but white space follows the value.
  static Json Parse(std::string_view text);

  // The member `key`; throws std::runtime_error if this is no object or has none.
  const Json& operator[](const std::string& key) const;
  bool Has(const std::string& key) const { return object.contains(key); }

  std::vector<int64_t> Integers() const;     // of an array of integers, else throws
  std::vector<std::string> Strings() const;  // of an array of strings, else throws
};

// The text in quotes, escaped.
std::string Quoted(std::string_view text);

}  // namespace wire
