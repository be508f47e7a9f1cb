// StringProc: conversions through Wine's own code pages, trimming,
// placeholder replacement and case-insensitive comparison.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "support/torvex_test.h"

namespace {

using namespace std::string_literals;

TEST(StringProc, Conversions) {
    const std::pair<std::string, std::wstring> utf8[] = {
        {"Gr\xC3\xBC\xC3\x9F" "e \xE6\x9D\xB1\xE4\xBA\xAC", L"Gr\u00fc\u00dfe \u6771\u4eac"},
        {"\xF0\x9F\x98\x80", L"\U0001F600"},  // a surrogate pair
        {"a\0b"s, L"a\0b"s},                  // the exact length, not up to a NUL
        {"", L""}};
    for (const auto& [narrow, wide] : utf8) {
        EXPECT_EQ(StringProc::StringToWStringByUTF8(narrow), wide) << narrow;
        EXPECT_EQ(StringProc::WStringToStringByUTF8(wide), narrow) << narrow;
    }
    // The system code page (1252 in Wine's default prefix).
    EXPECT_EQ(StringProc::StringToWString("DIMM 0"), L"DIMM 0");
    EXPECT_EQ(StringProc::WStringToString(L"x\0y"s), "x\0y"s);
    EXPECT_EQ(StringProc::StringToWString(""), L"");
    if (GetACP() == 1252) {
        EXPECT_EQ(StringProc::WStringToString(L"caf\u00e9"), "caf\xE9");
        EXPECT_EQ(StringProc::StringToWString("\x80"), L"\u20ac");
    }
}

TEST(StringProc, TrimRemovesSpacesOnly) {
    const std::pair<std::string, std::string> cases[] = {
        {"  a b  ", "a b"}, {"   ", ""}, {"", ""}, {"\tx ", "\tx"}, {" x\n", "x\n"}, {" \t ", "\t"}};
    for (const auto& [in, out] : cases) {
        EXPECT_EQ(StringProc::StringTrim(in), out) << "[" << in << "]";
        EXPECT_EQ(StringProc::WStringTrim(std::wstring(in.begin(), in.end())), std::wstring(out.begin(), out.end()));
    }
    EXPECT_EQ(StringProc::WStringTrim(L" \u00a0x\u3000 "), L"\u00a0x\u3000") << "other blanks stay";
}

TEST(StringProc, ReplacePlaceholderReplacesTheFirstOccurrenceOrGivesNothing) {
    EXPECT_EQ(StringProc::ReplacePlaceholder(L"WHERE Name='%s'", L"Intel", L"%s"), L"WHERE Name='Intel'");
    EXPECT_EQ(StringProc::ReplacePlaceholder(L"%s and %s", L"one", L"%s"), L"one and %s");
    EXPECT_EQ(StringProc::ReplacePlaceholder(L"no placeholder", L"x", L"%s"), L"");
    EXPECT_EQ(StringProc::ReplacePlaceholder(L"%s", L"", L"%s"), L"");
}

TEST(StringProc, ToLowerAndCompareNoCase) {
    EXPECT_EQ(StringProc::ToLower("AbC xYz 09_!"), "abc xyz 09_!");
    EXPECT_EQ(StringProc::ToLower("\xC3\x84"), "\xC3\x84") << "bytes above 0x7F as the C locale keeps them";
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"ABC", "abc", true},  {"abc", "abcd", false},     {"", "", true},
        {"abc", "abd", false}, {"A\0B"s, "a\0b"s, true}, {"A\0B"s, "a\0c"s, false}};
    for (const auto& [left, right, equal] : cases) {
        EXPECT_EQ(StringProc::CompareNoCase(left, right), equal) << left << " vs " << right;
        EXPECT_EQ(StringProc::CompareNoCase(right, left), equal) << left << " vs " << right;
    }
}

}  // namespace
