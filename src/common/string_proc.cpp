// StringProc: code-page conversions, trimming, placeholder replacement and
// case-insensitive comparison shared by the modules (and exported for hosts).
#include <windows.h>

#include <cctype>

#include "torvex.h"
#include "torvex/text.h"

namespace {

// Only the space character is trimmed: tabs and line breaks are kept.
template <typename String>
String TrimSpaces(const String& text, typename String::value_type space) {
    const auto first = text.find_first_not_of(space);
    if (first == String::npos) return String();
    const auto last = text.find_last_not_of(space);
    return text.substr(first, last - first + 1);
}

}  // namespace

namespace StringProc {

std::wstring StringToWString(const std::string& text) { return torvex::text::ToWide(text, CP_ACP); }

std::string WStringToString(const std::wstring& text) { return torvex::text::ToNarrow(text, CP_ACP); }

std::wstring StringToWStringByUTF8(const std::string& text) { return torvex::text::ToWide(text, CP_UTF8); }

std::string WStringToStringByUTF8(const std::wstring& text) { return torvex::text::ToNarrow(text, CP_UTF8); }

std::string StringTrim(const std::string& text) { return TrimSpaces(text, ' '); }

std::wstring WStringTrim(const std::wstring& text) { return TrimSpaces(text, L' '); }

// Only the first occurrence is replaced; a text without the placeholder gives
// an empty result rather than the text itself (callers test for that).
std::wstring ReplacePlaceholder(const std::wstring& text, const std::wstring& replacement,
                                const std::wstring& placeholder) {
    const auto at = text.find(placeholder);
    if (at == std::wstring::npos) return std::wstring();
    std::wstring result = text;
    result.replace(at, placeholder.size(), replacement);
    return result;
}

// Each byte goes to the runtime's tolower as a signed value, as it always has;
// what happens above 0x7F is up to the runtime's current locale.
std::string ToLower(const std::string& text) {
    std::string result = text;
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<signed char>(c)));
    return result;
}

bool CompareNoCase(const std::string& left, const std::string& right) {
    const std::string a = ToLower(left);
    const std::string b = ToLower(right);
    return a.size() == b.size() && a == b;
}

}  // namespace StringProc
