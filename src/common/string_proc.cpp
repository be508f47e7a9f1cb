// StringProc: code-page conversions, trimming, placeholder replacement and
// case-insensitive comparison shared by the modules (and exported for hosts).
// The work itself is in string_proc.h, shared with the Microsoft boundary.
#include "common/string_proc.h"

#include <windows.h>

#include "torvex.h"
#include "torvex/text.h"

#include <cctype>

using namespace torvex::string_proc;

namespace torvex::string_proc {
namespace {

template <typename C>
std::basic_string_view<C> Trimmed(std::basic_string_view<C> text) {
    const auto first = text.find_first_not_of(C(' '));
    if (first == std::basic_string_view<C>::npos) return {};
    const auto last = text.find_last_not_of(C(' '));
    return text.substr(first, last - first + 1);
}

char LowerChar(char c) { return static_cast<char>(std::tolower(static_cast<signed char>(c))); }

}  // namespace

std::string_view TrimSpaces(std::string_view text) { return Trimmed(text); }

std::wstring_view TrimSpaces(std::wstring_view text) { return Trimmed(text); }

std::optional<size_t> FindPlaceholder(std::wstring_view text, std::wstring_view placeholder) {
    const auto at = text.find(placeholder);
    if (at == std::wstring_view::npos) return std::nullopt;
    return at;
}

void LowerInPlace(char* text, size_t size) {
    for (size_t i = 0; i < size; ++i) text[i] = LowerChar(text[i]);
}

bool EqualNoCase(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) return false;
    for (size_t i = 0; i < left.size(); ++i)
        if (LowerChar(left[i]) != LowerChar(right[i])) return false;
    return true;
}

}  // namespace torvex::string_proc

namespace StringProc {

std::wstring StringToWString(const std::string& text) { return torvex::text::ToWide(text, kAnsi); }

std::string WStringToString(const std::wstring& text) { return torvex::text::ToNarrow(text, kAnsi); }

std::wstring StringToWStringByUTF8(const std::string& text) { return torvex::text::ToWide(text, kUtf8); }

std::string WStringToStringByUTF8(const std::wstring& text) { return torvex::text::ToNarrow(text, kUtf8); }

std::string StringTrim(const std::string& text) { return std::string(TrimSpaces(std::string_view(text))); }

std::wstring WStringTrim(const std::wstring& text) { return std::wstring(TrimSpaces(std::wstring_view(text))); }

std::wstring ReplacePlaceholder(const std::wstring& text, const std::wstring& replacement,
                                const std::wstring& placeholder) {
    const auto at = FindPlaceholder(text, placeholder);
    if (!at) return std::wstring();
    std::wstring result = text;
    result.replace(*at, placeholder.size(), replacement);
    return result;
}

std::string ToLower(const std::string& text) {
    std::string result = text;
    LowerInPlace(result.data(), result.size());
    return result;
}

bool CompareNoCase(const std::string& left, const std::string& right) { return EqualNoCase(left, right); }

}  // namespace StringProc
