// The form of a line of the log. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// What stands in front of a text that the calling thread writes now: the local time and the
// thread's number, "YYYY/MM/DD HH:MM:SS.mmm @ TTTTTTTT @ ". Made anew once a millisecond at most;
// valid until the thread's next call.
std::wstring_view LogPrefix();

constexpr std::wstring_view kLogLineEnd = L"\r\n";

// A whole line: prefix, `text`, line end.
std::wstring FormatLogLine(const wchar_t* text, size_t length);

// Appends a line as the console and the files get it: UTF-8, in which what can't be converted is
// U+FFFD. Characters that steer a terminal or reorder the text around them, which the text of a
// peer may hold, become "\u009b" and the like: the control characters except tab, carriage return
// and line feed, DEL, U+2028, U+2029, and the marks of bidirectional text (Unicode UAX #9). Throws
// std::bad_alloc, and then leaves `out` as it was.
void AppendShown(std::string& out, std::wstring_view line);

// Appends the last `width` digits of a number that isn't negative, with leading zeros; `width` is
// at most 8.
void AppendDigits(std::wstring& out, int value, int width);
