// Whole text files in one go. Text on disk is UTF-8; a byte order mark is neither written nor
// removed. No state, any thread.
#pragma once

#include <cstddef>
#include <string>

#include "runtime/ErrInfo.h"

namespace fs {

// All failures are code failures with the operating system's error number and the path in quotes.
// Text that can't be converted throws std::range_error("bad conversion").
ErrInfo WriteWholeFile(const wchar_t* path, const char* data, size_t size);
ErrInfo WriteWholeFile(const wchar_t* path, const char* text);     // up to the first 0 byte
ErrInfo WriteWholeFile(const wchar_t* path, const wchar_t* text);  // up to the first 0 character
ErrInfo ReadWholeFile(const wchar_t* path, std::string& bytes);
ErrInfo ReadWholeFile(const wchar_t* path, std::wstring& text);

}  // namespace fs
