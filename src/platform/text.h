// Conversion between UTF-8, which exists only at the edges (files, datagrams, console), and the
// system's own text: std::wstring with one UTF-16 code unit an element on every system, also where
// wchar_t has 32 bits. Stands on the lowest floor because paths cross it. No state, any thread.
#pragma once

#include <string>
#include <string_view>

// Strict: throw std::range_error("bad conversion") on text that can't be converted: truncated,
// overlong or surrogate UTF-8 sequences, code points above U+10FFFF, unpaired surrogates, elements
// above 0xFFFF. A surrogate pair is one four-byte sequence. No byte order mark is added or removed.
// The pointer forms stop at the first NUL.
std::wstring Utf8ToWide(const std::string& text);
std::wstring Utf8ToWide(const char* text);
std::string WideToUtf8(const std::wstring& text);
std::string WideToUtf8(const wchar_t* text);

namespace platform {

// Lossy: what can't be converted becomes U+FFFD. For the log and for error texts, which must never
// fail. Throw nothing but std::bad_alloc.
std::wstring Utf8ToWideLossy(std::string_view text);
std::string WideToUtf8Lossy(std::wstring_view text);

// UTF-8 as a POSIX shell reads it back as one word, also from a file. Plain words stay as they are.
std::string QuotedForSh(const std::string& text);

}  // namespace platform
