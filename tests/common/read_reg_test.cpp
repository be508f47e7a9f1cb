// ReadReg against Wine's own registry: values are written and read back under
// a key of HKEY_LOCAL_MACHINE that each test creates and deletes.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/torvex_test.h"

using torvex::test::ImportPatch;
using torvex::test::Redirect;

namespace {

class ReadRegTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, subKey_.c_str(), 0, nullptr, 0,
                                    KEY_ALL_ACCESS | KEY_WOW64_64KEY, nullptr, &key_, nullptr),
                  ERROR_SUCCESS);
    }
    void TearDown() override {
        ::RegCloseKey(key_);
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, subKey_.c_str());
        ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, subKey_.c_str(), KEY_WOW64_64KEY, 0);
    }
    void PutText(const wchar_t* name, const std::wstring& text) {
        ASSERT_EQ(::RegSetValueExW(key_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
    }
    // What the registry really holds: type and byte size (0 when absent).
    std::pair<DWORD, DWORD> TypeAndSize(const wchar_t* name) {
        DWORD type = 0, size = 0;
        if (::RegQueryValueExW(key_, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return {0, 0};
        return {type, size};
    }

    const std::wstring subKey_ = L"SOFTWARE\\TorvexRegTest" + std::to_wstring(::GetCurrentProcessId());
    HKEY key_ = nullptr;
};

TEST_F(ReadRegTest, WrittenValuesReadBackWithTheirTypes) {
    ASSERT_TRUE(ReadReg::WrightLocalMachineRegDW(subKey_, L"Level", 0xDEADBEEF));
    EXPECT_EQ(TypeAndSize(L"Level"), std::make_pair(DWORD{REG_DWORD}, DWORD{4}));
    unsigned long value = 0;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Level", value));
    EXPECT_EQ(value, 0xDEADBEEFul);

    using Write = bool (*)(const std::wstring&, const std::wstring&, const std::wstring&);
    using Read = bool (*)(const std::wstring&, const std::wstring&, std::wstring&);
    struct Case {
        Write write;
        Read read;
        DWORD type;
        std::wstring text;
    };
    const Case cases[] = {
        {&ReadReg::WriteLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegRZ, REG_SZ, L"Gr\u00fc\u00dfe \u6771\u4eac"},
        {&ReadReg::WriteLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegRZ, REG_SZ, L""},
        // Environment references stay unexpanded.
        {&ReadReg::WrightLocalMachineRegExpandRZ, &ReadReg::ReadLocalMachineRegExpandRZ, REG_EXPAND_SZ,
         L"%SystemRoot%\\system32"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.text));
        ASSERT_TRUE(c.write(subKey_, L"Text", c.text));
        EXPECT_EQ(TypeAndSize(L"Text"), std::make_pair(c.type, DWORD(2 * c.text.size() + 2)));
        std::wstring text = L"stale";
        EXPECT_TRUE(c.read(subKey_, L"Text", text));
        EXPECT_EQ(text, c.text);
    }
}

TEST_F(ReadRegTest, TextReadHoldsAtMost259Characters) {
    for (size_t length : {258u, 259u, 260u, 400u}) {
        SCOPED_TRACE(length);
        const std::wstring text(length, L'x');
        PutText(L"Long", text);
        const bool fits = length <= 259;
        for (auto read : {&ReadReg::ReadLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegExpandRZ}) {
            std::wstring value = L"stale";
            EXPECT_EQ(read(subKey_, L"Long", value), fits);
            EXPECT_EQ(value, fits ? text : std::wstring());
        }
    }
    // The value's type is not checked: a 4-byte text fits a DWORD read.
    PutText(L"Short", L"A");
    unsigned long value = 0;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Short", value));
    EXPECT_EQ(value, 0x41ul);
}

TEST_F(ReadRegTest, MissingValueOrKey) {
    unsigned long value = 77;
    EXPECT_FALSE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Absent", value));
    EXPECT_EQ(value, 0ul) << "a missing value clears the number";
    value = 77;
    EXPECT_FALSE(ReadReg::ReadLocalMachineRegDW(subKey_ + L"\\Absent", L"Level", value));
    EXPECT_EQ(value, 77ul) << "a missing key leaves the number alone";

    for (auto read : {&ReadReg::ReadLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegExpandRZ}) {
        for (const std::wstring& key : {subKey_, subKey_ + L"\\Absent"}) {
            std::wstring text = L"stale";
            EXPECT_FALSE(read(key, L"Absent", text));
            EXPECT_EQ(text, L"");
        }
    }
}

TEST_F(ReadRegTest, WritesUnderAMissingSubkeyFailAndCreateNothing) {
    const std::wstring missing = subKey_ + L"\\Missing";
    EXPECT_FALSE(ReadReg::WrightLocalMachineRegDW(missing, L"Level", 1));
    EXPECT_FALSE(ReadReg::WriteLocalMachineRegRZ(missing, L"Text", L"x"));
    EXPECT_FALSE(ReadReg::WrightLocalMachineRegExpandRZ(missing, L"Text", L"x"));
    HKEY key = nullptr;
    EXPECT_NE(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, missing.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key),
              ERROR_SUCCESS);
}

// Pass-through recorders: Wine still answers, the test sees what was asked.
std::vector<REGSAM>* g_access = nullptr;
std::vector<bool>* g_nullSubKey = nullptr;
decltype(&::RegOpenKeyExW) g_realOpen = nullptr;
decltype(&::RegSetKeyValueW) g_realSet = nullptr;

LSTATUS WINAPI RecordOpen(HKEY root, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY key) {
    g_access->push_back(access);
    return g_realOpen(root, subKey, options, access, key);
}
LSTATUS WINAPI RecordSet(HKEY key, LPCWSTR subKey, LPCWSTR name, DWORD type, LPCVOID data, DWORD size) {
    g_nullSubKey->push_back(subKey == nullptr);
    return g_realSet(key, subKey, name, type, data, size);
}

TEST_F(ReadRegTest, ReadsAndWritesUseThe64BitView) {
    std::vector<REGSAM> access;
    std::vector<bool> nullSubKey;
    g_access = &access;
    g_nullSubKey = &nullSubKey;
    ImportPatch open = Redirect("RegOpenKeyExW", &RecordOpen);
    ImportPatch set = Redirect("RegSetKeyValueW", &RecordSet);
    g_realOpen = open.Original<decltype(g_realOpen)>();
    g_realSet = set.Original<decltype(g_realSet)>();

    unsigned long value = 0;
    std::wstring text;
    ASSERT_TRUE(ReadReg::WrightLocalMachineRegDW(subKey_, L"Level", 5));
    ASSERT_TRUE(ReadReg::WriteLocalMachineRegRZ(subKey_, L"Text", L"t"));
    ASSERT_TRUE(ReadReg::WrightLocalMachineRegExpandRZ(subKey_, L"Text", L"t"));
    ASSERT_TRUE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Level", value));
    ASSERT_TRUE(ReadReg::ReadLocalMachineRegRZ(subKey_, L"Text", text));
    ASSERT_TRUE(ReadReg::ReadLocalMachineRegExpandRZ(subKey_, L"Text", text));

    EXPECT_EQ(access, (std::vector<REGSAM>{0x20106, 0x20106, 0x20106, 0x20119, 0x20119, 0x20119}));
    EXPECT_EQ(nullSubKey, (std::vector<bool>{true, true, true}));
}

}  // namespace
