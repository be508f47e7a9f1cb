// StringProc's work on the text itself, written once for both C++ boundaries:
// each boundary reads its arguments where they are and builds its result in
// its own string type, once (see string_proc.cpp and msvc/string_proc_msvc.cpp).
#pragma once

#include <windows.h>

#include <optional>
#include <string_view>

namespace torvex::string_proc {

// The code pages of the conversions.
constexpr UINT kAnsi = CP_ACP;   // StringToWString, WStringToString
constexpr UINT kUtf8 = CP_UTF8;  // StringToWStringByUTF8, WStringToStringByUTF8

// Out of line, so that both boundaries run the same machine code for the
// same work.

// Only the space character is trimmed: tabs and line breaks are kept.
std::string_view TrimSpaces(std::string_view text);
std::wstring_view TrimSpaces(std::wstring_view text);

// Where the first occurrence of the placeholder starts. Only that one is
// replaced; a text without it gives an empty result rather than the text
// itself (callers test for that).
std::optional<size_t> FindPlaceholder(std::wstring_view text, std::wstring_view placeholder);

// Each byte goes to the runtime's tolower as a signed value, as it always has;
// what happens above 0x7F is up to the runtime's current locale.
void LowerInPlace(char* text, size_t size);
bool EqualNoCase(std::string_view left, std::string_view right);

}  // namespace torvex::string_proc
