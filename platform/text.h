#pragma once
// Wide-string formatting with the original platform's printf rules, and the
// conversions between wide text, UTF-8 and UTF-16LE.
#include <cstdarg>
#include <string>
#include <string_view>
#include <vector>

namespace host {

// Formats like the original's swprintf: "%s" takes a wide string (const
// wchar_t*), "%S" a narrow one (const char*), "%c" a wide character and
// "%C" a narrow one. Integer conversions are as in C; pass 32-bit values
// to "%d"/"%u"/"%x" (cast handles and addresses to unsigned first).
std::wstring wformat(const wchar_t* fmt, ...);
std::wstring vwformat(const wchar_t* fmt, va_list args);

std::wstring widen(std::string_view utf8);
std::string narrow(std::wstring_view wide);  // UTF-8

// UTF-16 little-endian bytes, no byte-order mark (characters above U+FFFF
// become surrogate pairs).
std::vector<unsigned char> toUtf16le(std::wstring_view wide);
std::wstring fromUtf16le(const unsigned char* bytes, std::size_t size);

// Case-insensitive comparison the way the original file system matched names.
bool iequals(std::wstring_view a, std::wstring_view b);

}  // namespace host
