// Text between UTF-16 and a code page, for the library, the simulation layer,
// the tool and the benchmark alike.
#pragma once

#include <windows.h>

#include <climits>
#include <string>
#include <string_view>

namespace torvex::text {

// Two passes: measure, then convert into a string of exactly that length.
// The input's own length is passed, so no terminator is converted; text that
// measures 0 characters (or is too long to pass) gives an empty result.
inline std::wstring ToWide(std::string_view text, UINT codePage) {
    if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) return {};
    const int length = static_cast<int>(text.size());
    const int needed = ::MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0);
    if (needed <= 0) return {};
    std::wstring result(static_cast<size_t>(needed), L'\0');
    const int converted = ::MultiByteToWideChar(codePage, 0, text.data(), length, result.data(), needed);
    if (converted <= 0) return {};
    result.resize(static_cast<size_t>(converted));
    return result;
}

inline std::string ToNarrow(std::wstring_view text, UINT codePage) {
    if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) return {};
    const int length = static_cast<int>(text.size());
    const int needed = ::WideCharToMultiByte(codePage, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) return {};
    std::string result(static_cast<size_t>(needed), '\0');
    const int converted =
        ::WideCharToMultiByte(codePage, 0, text.data(), length, result.data(), needed, nullptr, nullptr);
    if (converted <= 0) return {};
    result.resize(static_cast<size_t>(converted));
    return result;
}

inline std::string Utf8(std::wstring_view text) { return ToNarrow(text, CP_UTF8); }
inline std::wstring Wide(std::string_view utf8) { return ToWide(utf8, CP_UTF8); }

// Torvex.dll's narrow answers are in the system's ANSI code page, never UTF-8.
inline std::string Utf8FromAnsi(std::string_view ansi) { return Utf8(ToWide(ansi, CP_ACP)); }

}  // namespace torvex::text
