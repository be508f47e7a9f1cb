// Text between UTF-16 and a code page, for the library, the simulation layer,
// the tool and the benchmark alike.
#pragma once

#include <windows.h>

#include <climits>
#include <string>
#include <string_view>

namespace torvex::text {

// Two passes: measure, then convert into storage of exactly that length,
// which `storage(units)` provides (a pointer to that many units, or null when
// it has none). The input's own length is passed, so no terminator is
// converted. Returns the units written: 0 for text that measures 0 characters,
// is too long to pass or found no storage.
template <typename Storage>
size_t ToWideIn(std::string_view text, UINT codePage, Storage&& storage) {
    if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) return 0;
    const int length = static_cast<int>(text.size());
    const int needed = ::MultiByteToWideChar(codePage, 0, text.data(), length, nullptr, 0);
    if (needed <= 0) return 0;
    wchar_t* out = storage(static_cast<size_t>(needed));
    if (out == nullptr) return 0;
    const int converted = ::MultiByteToWideChar(codePage, 0, text.data(), length, out, needed);
    return converted <= 0 ? 0 : static_cast<size_t>(converted);
}

template <typename Storage>
size_t ToNarrowIn(std::wstring_view text, UINT codePage, Storage&& storage) {
    if (text.empty() || text.size() > static_cast<size_t>(INT_MAX)) return 0;
    const int length = static_cast<int>(text.size());
    const int needed = ::WideCharToMultiByte(codePage, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    if (needed <= 0) return 0;
    char* out = storage(static_cast<size_t>(needed));
    if (out == nullptr) return 0;
    const int converted = ::WideCharToMultiByte(codePage, 0, text.data(), length, out, needed, nullptr, nullptr);
    return converted <= 0 ? 0 : static_cast<size_t>(converted);
}

// The same into a string of its own; an empty result is a new empty string.
// `convertIn` is ToWideIn or ToNarrowIn.
template <typename Result, typename Text, typename ConvertIn>
Result IntoString(Text text, UINT codePage, ConvertIn convertIn) {
    Result result;
    const size_t converted = convertIn(text, codePage, [&result](size_t units) {
        result.resize(units);
        return result.data();
    });
    if (converted == 0) return {};
    result.resize(converted);
    return result;
}

inline std::wstring ToWide(std::string_view text, UINT codePage) {
    return IntoString<std::wstring>(text, codePage,
                                    [](auto in, UINT page, auto storage) { return ToWideIn(in, page, storage); });
}

inline std::string ToNarrow(std::wstring_view text, UINT codePage) {
    return IntoString<std::string>(text, codePage,
                                   [](auto in, UINT page, auto storage) { return ToNarrowIn(in, page, storage); });
}

inline std::string Utf8(std::wstring_view text) { return ToNarrow(text, CP_UTF8); }
inline std::wstring Wide(std::string_view utf8) { return ToWide(utf8, CP_UTF8); }

// Torvex.dll's narrow answers are in the system's ANSI code page, never UTF-8.
inline std::string Utf8FromAnsi(std::string_view ansi) { return Utf8(ToWide(ansi, CP_ACP)); }

}  // namespace torvex::text
