// ReadReg on a simulated machine (what reaches the registry: keys, access,
// types and sizes) and on Wine's own registry, under a key of
// HKEY_LOCAL_MACHINE that each test creates and deletes.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using Lines = std::vector<std::string>;

namespace {

TEST(ReadRegOnAMachine, WritesSetTheValueOnTheKeyItselfAndReadsUseThe64BitView) {
    torvex::test::SimulatedMachine machine(torvex::test::Json{{"registry", {{"SOFTWARE\\Torvex", torvex::test::Json::object()}}}});
    const std::wstring key = L"SOFTWARE\\Torvex";
    ASSERT_TRUE(ReadReg::WrightLocalMachineRegDW(key, L"Level", 0xDEADBEEF));
    ASSERT_TRUE(ReadReg::WriteLocalMachineRegRZ(key, L"Text", L"Gr\u00fc\u00dfe"));
    ASSERT_TRUE(ReadReg::WrightLocalMachineRegExpandRZ(key, L"Path", L"%SystemRoot%"));
    unsigned long level = 0;
    std::wstring text, path;
    ASSERT_TRUE(ReadReg::ReadLocalMachineRegDW(key, L"Level", level));
    ASSERT_TRUE(ReadReg::ReadLocalMachineRegRZ(key, L"Text", text));
    ASSERT_TRUE(ReadReg::ReadLocalMachineRegExpandRZ(key, L"Path", path));
    EXPECT_EQ(level, 0xDEADBEEFul);
    EXPECT_EQ(text, L"Gr\u00fc\u00dfe");
    EXPECT_EQ(path, L"%SystemRoot%") << "not expanded";
    const std::string opened = "HKLM\\SOFTWARE\\Torvex [access ", set = "set HKLM\\SOFTWARE\\Torvex ";
    EXPECT_EQ(machine.Calls("registry"),
              (Lines{opened + "0x20106] -> opened", set + "Level [type 4, 4 bytes] -> written {\"dword\":3735928559}",
                     opened + "0x20106] -> opened", set + "Text [type 1, 12 bytes] -> written {\"sz\":\"Grüße\"}",
                     opened + "0x20106] -> opened",
                     set + "Path [type 2, 26 bytes] -> written {\"expand_sz\":\"%SystemRoot%\"}",
                     opened + "0x20119] -> opened",
                     "HKLM\\SOFTWARE\\Torvex Level [room 4 bytes] -> found ({\"dword\":3735928559})",
                     opened + "0x20119] -> opened",
                     "HKLM\\SOFTWARE\\Torvex Text [room 520 bytes] -> found ({\"sz\":\"Grüße\"})",
                     opened + "0x20119] -> opened",
                     "HKLM\\SOFTWARE\\Torvex Path [room 520 bytes] -> found ({\"expand_sz\":\"%SystemRoot%\"})"}));
    torvex::test::ExpectNothingHeld();
}

class ReadRegOnWine : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, subKey_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | KEY_WOW64_64KEY,
                                  nullptr, &key_, nullptr), ERROR_SUCCESS);
    }
    void TearDown() override {
        RegCloseKey(key_);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, subKey_.c_str());
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, subKey_.c_str(), KEY_WOW64_64KEY, 0);
    }
    void PutText(const wchar_t* name, const std::wstring& text) {
        ASSERT_EQ(RegSetValueExW(key_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                                 static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))), ERROR_SUCCESS);
    }
    // What the registry really holds: type and byte size (0 when absent).
    std::pair<DWORD, DWORD> TypeAndSize(const wchar_t* name) {
        DWORD type = 0, size = 0;
        if (RegQueryValueExW(key_, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return {0, 0};
        return {type, size};
    }

    const std::wstring subKey_ = L"SOFTWARE\\TorvexRegTest" + std::to_wstring(GetCurrentProcessId());
    HKEY key_ = nullptr;
};

TEST_F(ReadRegOnWine, WrittenValuesReadBackWithTheirTypes) {
    ASSERT_TRUE(ReadReg::WrightLocalMachineRegDW(subKey_, L"Level", 0xDEADBEEF));
    EXPECT_EQ(TypeAndSize(L"Level"), std::make_pair(DWORD{REG_DWORD}, DWORD{4}));
    unsigned long value = 0;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Level", value));
    EXPECT_EQ(value, 0xDEADBEEFul);
    using Write = bool (*)(const std::wstring&, const std::wstring&, const std::wstring&);
    using Read = bool (*)(const std::wstring&, const std::wstring&, std::wstring&);
    const std::tuple<Write, Read, DWORD, std::wstring> cases[] = {
        {&ReadReg::WriteLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegRZ, REG_SZ, L"Gr\u00fc\u00dfe \u6771\u4eac"},
        {&ReadReg::WriteLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegRZ, REG_SZ, L""},
        {&ReadReg::WrightLocalMachineRegExpandRZ, &ReadReg::ReadLocalMachineRegExpandRZ, REG_EXPAND_SZ,
         L"%SystemRoot%\\system32"},
    };
    for (const auto& [write, read, type, text] : cases) {
        SCOPED_TRACE(testing::PrintToString(text));
        ASSERT_TRUE(write(subKey_, L"Text", text));
        EXPECT_EQ(TypeAndSize(L"Text"), std::make_pair(type, DWORD(2 * text.size() + 2)));
        std::wstring back = L"stale";
        EXPECT_TRUE(read(subKey_, L"Text", back));
        EXPECT_EQ(back, text);
    }
}

TEST_F(ReadRegOnWine, TextReadsHoldAtMost259CharactersAndDoNotCheckTheType) {
    for (size_t length : {258u, 259u, 260u, 400u}) {
        SCOPED_TRACE(length);
        const std::wstring text(length, L'x');
        PutText(L"Long", text);
        for (auto read : {&ReadReg::ReadLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegExpandRZ}) {
            std::wstring value = L"stale";
            EXPECT_EQ(read(subKey_, L"Long", value), length <= 259);
            EXPECT_EQ(value, length <= 259 ? text : std::wstring());
        }
    }
    PutText(L"Short", L"A");  // four bytes: they fit a DWORD read
    unsigned long value = 0;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Short", value));
    EXPECT_EQ(value, 0x41ul);
}

TEST_F(ReadRegOnWine, MissingValuesKeysAndSubkeys) {
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
    const std::wstring missing = subKey_ + L"\\Missing";  // writes create nothing
    EXPECT_FALSE(ReadReg::WrightLocalMachineRegDW(missing, L"Level", 1));
    EXPECT_FALSE(ReadReg::WriteLocalMachineRegRZ(missing, L"Text", L"x"));
    EXPECT_FALSE(ReadReg::WrightLocalMachineRegExpandRZ(missing, L"Text", L"x"));
    HKEY key = nullptr;
    EXPECT_NE(RegOpenKeyExW(HKEY_LOCAL_MACHINE, missing.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key), ERROR_SUCCESS);
}

}  // namespace
