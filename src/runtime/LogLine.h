// The form of a line of the log. Any thread.
#pragma once

#include <cstddef>
#include <string>

// `text` behind the local time and the calling thread's number, with its line end:
// YYYY/MM/DD HH:MM:SS.mmm @ TTTTTTTT @ text
std::wstring FormatLogLine(const wchar_t* text, size_t length);

// Appends the last `width` digits of a number that isn't negative, with leading zeros; `width` is
// at most 8.
void AppendDigits(std::wstring& out, int value, int width);
