// StringProc: conversions through Wine's own code pages, trimming,
// placeholder replacement and case-insensitive comparison.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "support/torvex_test.h"

namespace {

using namespace std::string_literals;

TEST(StringProcUtf8, RoundTripsNonAsciiText) {
    struct Case {
        std::string utf8;
        std::wstring wide;
    };
    const Case cases[] = {
        {"plain", L"plain"},
        {"Gr\xC3\xBC\xC3\x9F" "e", L"Gr\u00fc\u00dfe"},
        {"\xE6\x9D\xB1\xE4\xBA\xAC", L"\u6771\u4eac"},
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

TEST(StringProcUtf8, InvalidBytesDoNotCrash) {
    const std::wstring wide = StringProc::StringToWStringByUTF8("ok\xFF\xFE");
    EXPECT_EQ(wide.substr(0, 2), L"ok");
    EXPECT_EQ(StringProc::WStringToStringByUTF8(L"\xD800").empty(), false);
}

TEST(StringProcAnsi, ConvertsThroughTheSystemCodePage) {
    // Every Windows ANSI code page keeps ASCII as it is.
    EXPECT_EQ(StringProc::StringToWString("DIMM 0"), L"DIMM 0");
    EXPECT_EQ(StringProc::WStringToString(L"DIMM 0"), "DIMM 0");
    EXPECT_EQ(StringProc::WStringToString(L"x\0y"s), "x\0y"s);
    EXPECT_EQ(StringProc::StringToWString(""), L"");
    EXPECT_EQ(StringProc::WStringToString(L""), "");

    // Non-ASCII text goes through the code page the system reports, not UTF-8.
    const UINT acp = ::GetACP();
    if (acp == 1252) {
        EXPECT_EQ(StringProc::WStringToString(L"caf\u00e9"), "caf\xE9");
        EXPECT_EQ(StringProc::StringToWString("caf\xE9"), L"caf\u00e9");
        EXPECT_EQ(StringProc::StringToWString("\x80"), L"\u20ac");  // the euro sign of 1252
    }
    if (acp != CP_UTF8) EXPECT_NE(StringProc::WStringToString(L"caf\u00e9"), "caf\xC3\xA9");
    const std::string narrow = StringProc::WStringToString(L"caf\u00e9");
    EXPECT_EQ(StringProc::StringToWString(narrow).substr(0, 3), L"caf");
}

TEST(StringProcTrim, RemovesSpacesOnly) {
    struct Case {
        std::string in;
        std::string out;
    };
    const Case cases[] = {
        {"  a b  ", "a b"},
        {"   ", ""},
        {"", ""},
        {"\tx ", "\tx"},
        {" x\n", "x\n"},
        {"x", "x"},
        {" \t ", "\t"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE("[" + c.in + "]");
        EXPECT_EQ(StringProc::StringTrim(c.in), c.out);
        const std::wstring wide(c.in.begin(), c.in.end());
        EXPECT_EQ(StringProc::WStringTrim(wide), std::wstring(c.out.begin(), c.out.end()));
    }
    EXPECT_EQ(StringProc::WStringTrim(L" \u00a0x\u3000 "), L"\u00a0x\u3000") << "other blanks stay";
}

TEST(StringProcReplace, FirstOccurrenceOrEmpty) {
    struct Case {
        const wchar_t* text;
        const wchar_t* replacement;
        const wchar_t* placeholder;
        const wchar_t* result;
    };
    const Case cases[] = {
        {L"SELECT * WHERE Name='%s'", L"Intel", L"%s", L"SELECT * WHERE Name='Intel'"},
        {L"%s and %s", L"one", L"%s", L"one and %s"},
        {L"no placeholder here", L"x", L"%s", L""},
        {L"%s", L"", L"%s", L""},
        {L"abc{id}", L"longer replacement", L"{id}", L"abclonger replacement"},
        {L"", L"x", L"%s", L""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(StringProc::ReplacePlaceholder(c.text, c.replacement, c.placeholder), c.result);
    }
}

TEST(StringProcCase, ToLowerAndCompareNoCase) {
    EXPECT_EQ(StringProc::ToLower("AbC xYz 09_!"), "abc xyz 09_!");
    EXPECT_EQ(StringProc::ToLower("A\0B"s), "a\0b"s);
    // Bytes above 0x7F pass through the runtime's tolower as negative values;
    // in the C locale the test runs in, they come back unchanged.
    EXPECT_EQ(StringProc::ToLower("\xC3\x84"), "\xC3\x84");

    struct Case {
        std::string left;
        std::string right;
        bool equal;
    };
    const Case cases[] = {
        {"ABC", "abc", true},    {"abc", "abcd", false}, {"GenuineIntel", "genuineintel", true},
        {"", "", true},          {"a", "", false},        {"abc", "abd", false},
        {"A\0B"s, "a\0b"s, true}, {"A\0B"s, "a\0c"s, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.left + " vs " + c.right);
        EXPECT_EQ(StringProc::CompareNoCase(c.left, c.right), c.equal);
        EXPECT_EQ(StringProc::CompareNoCase(c.right, c.left), c.equal);
    }
}

}  // namespace
