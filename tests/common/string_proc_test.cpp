// StringProc: conversions through Wine's own code pages, trimming,
// placeholder replacement and case-insensitive comparison.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "support/torvex_test.h"

namespace {

using namespace std::string_literals;

TEST(StringProc, Utf8RoundTrip) {
    struct Case {
        std::string utf8;
        std::wstring wide;
    };
    const Case cases[] = {
        {"Gr\xC3\xBC\xC3\x9F" "e \xE6\x9D\xB1\xE4\xBA\xAC", L"Gr\u00fc\u00dfe \u6771\u4eac"},
        {"\xF0\x9F\x98\x80", L"\U0001F600"},  // a surrogate pair
        {"a\0b"s, L"a\0b"s},                  // the exact length is converted, not up to a NUL
        {"", L""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.utf8);
        EXPECT_EQ(StringProc::StringToWStringByUTF8(c.utf8), c.wide);
        EXPECT_EQ(StringProc::WStringToStringByUTF8(c.wide), c.utf8);
    }
}

TEST(StringProc, AnsiConversionUsesTheSystemCodePage) {
    EXPECT_EQ(StringProc::StringToWString("DIMM 0"), L"DIMM 0");
    EXPECT_EQ(StringProc::WStringToString(L"x\0y"s), "x\0y"s);
    EXPECT_EQ(StringProc::StringToWString(""), L"");
    const UINT acp = ::GetACP();
    if (acp == 1252) {  // Wine's default prefix
        EXPECT_EQ(StringProc::WStringToString(L"caf\u00e9"), "caf\xE9");
        EXPECT_EQ(StringProc::StringToWString("\x80"), L"\u20ac");
    }
    if (acp != CP_UTF8) {
        EXPECT_NE(StringProc::WStringToString(L"caf\u00e9"), "caf\xC3\xA9");
    }
}

TEST(StringProc, TrimRemovesSpacesOnly) {
    struct Case {
        std::string in;
        std::string out;
    };
    const Case cases[] = {{"  a b  ", "a b"}, {"   ", ""}, {"", ""}, {"\tx ", "\tx"}, {" x\n", "x\n"}, {" \t ", "\t"}};
    for (const Case& c : cases) {
        SCOPED_TRACE("[" + c.in + "]");
        EXPECT_EQ(StringProc::StringTrim(c.in), c.out);
        EXPECT_EQ(StringProc::WStringTrim(std::wstring(c.in.begin(), c.in.end())),
                  std::wstring(c.out.begin(), c.out.end()));
    }
    EXPECT_EQ(StringProc::WStringTrim(L" \u00a0x\u3000 "), L"\u00a0x\u3000") << "other blanks stay";
}

TEST(StringProc, ReplacePlaceholderFirstOccurrenceOrEmpty) {
    struct Case {
        const wchar_t* text;
        const wchar_t* replacement;
        const wchar_t* result;
    };
    const Case cases[] = {
        {L"WHERE Name='%s'", L"Intel", L"WHERE Name='Intel'"},
        {L"%s and %s", L"one", L"one and %s"},
        {L"no placeholder", L"x", L""},
        {L"%s", L"", L""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(StringProc::ReplacePlaceholder(c.text, c.replacement, L"%s"), c.result);
    }
}

TEST(StringProc, ToLowerAndCompareNoCase) {
    EXPECT_EQ(StringProc::ToLower("AbC xYz 09_!"), "abc xyz 09_!");
    // Bytes above 0x7F reach tolower as negative values; the C locale keeps them.
    EXPECT_EQ(StringProc::ToLower("\xC3\x84"), "\xC3\x84");
    struct Case {
        std::string left;
        std::string right;
        bool equal;
    };
    const Case cases[] = {{"ABC", "abc", true}, {"abc", "abcd", false}, {"", "", true},
                          {"abc", "abd", false}, {"A\0B"s, "a\0b"s, true}, {"A\0B"s, "a\0c"s, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.left + " vs " + c.right);
        EXPECT_EQ(StringProc::CompareNoCase(c.left, c.right), c.equal);
        EXPECT_EQ(StringProc::CompareNoCase(c.right, c.left), c.equal);
    }
}

}  // namespace
