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

// Read regular files below 4 GiB; anything else fails. The result is empty after most failures,
// but may hold part of the file after "read error".
ErrInfo ReadWholeFile(const wchar_t* path, std::string& bytes);
ErrInfo ReadWholeFile(const wchar_t* path, std::wstring& text);

// Write the file so that a crash or a full disk at any moment leaves either the old file or the new
// one, never half of one: the new file is written beside the old one, as path + ".", a number and
// ".new", a name that no file has, and then takes its place, with the old one's owner and
// permissions. (A crash in between leaves it there: nobody can know whose it is.) A link at the
// path stays, its target is replaced. Where no file can be made beside the old one, or can't take
// its place, the old one is overwritten as by WriteWholeFile. Fail with the same texts.
ErrInfo ReplaceWholeFile(const wchar_t* path, const char* data, size_t size);
ErrInfo ReplaceWholeFile(const wchar_t* path, const wchar_t* text);  // up to the first 0 character

}  // namespace fs
