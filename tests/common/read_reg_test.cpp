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

constexpr REGSAM kTestAccess = KEY_ALL_ACCESS | KEY_WOW64_64KEY;

class ReadRegTest : public ::testing::Test {
protected:
    void SetUp() override {
        subKey_ = L"SOFTWARE\\TorvexRegTest" + std::to_wstring(::GetCurrentProcessId());
        ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, subKey_.c_str(), 0, nullptr, 0, kTestAccess, nullptr,
                                    &key_, nullptr),
                  ERROR_SUCCESS);
    }
    void TearDown() override {
        ::RegCloseKey(key_);
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, subKey_.c_str());
        ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, subKey_.c_str(), KEY_WOW64_64KEY, 0);
    }

    void PutRaw(const wchar_t* name, DWORD type, const void* data, DWORD size) {
        ASSERT_EQ(::RegSetValueExW(key_, name, 0, type, static_cast<const BYTE*>(data), size), ERROR_SUCCESS);
    }
    void PutText(const wchar_t* name, const std::wstring& text) {
        PutRaw(name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }

    // What the registry really holds: type and raw bytes.
    struct Raw {
        DWORD type = 0;
        std::vector<BYTE> bytes;
    };
    Raw GetRaw(const wchar_t* name) {
        Raw raw;
        DWORD size = 0;
        if (::RegQueryValueExW(key_, name, nullptr, &raw.type, nullptr, &size) != ERROR_SUCCESS) return raw;
        raw.bytes.resize(size);
        ::RegQueryValueExW(key_, name, nullptr, &raw.type, raw.bytes.data(), &size);
        return raw;
    }

    static bool KeyExists(const std::wstring& path) {
        HKEY key = nullptr;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key) !=
            ERROR_SUCCESS)
            return false;
        ::RegCloseKey(key);
        return true;
    }

    std::wstring subKey_;
    HKEY key_ = nullptr;
};

TEST_F(ReadRegTest, DwordWrittenIsReadBack) {
    ASSERT_TRUE(ReadReg::WrightLocalMachineRegDW(subKey_, L"Level", 0xDEADBEEF));
    const Raw raw = GetRaw(L"Level");
    EXPECT_EQ(raw.type, static_cast<DWORD>(REG_DWORD));
    ASSERT_EQ(raw.bytes.size(), 4u);

    unsigned long value = 0;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Level", value));
    EXPECT_EQ(value, 0xDEADBEEFul);
}

TEST_F(ReadRegTest, TextWritersStoreTypeAndTerminatedSize) {
    struct Case {
        const char* name;
        bool (*write)(const std::wstring&, const std::wstring&, const std::wstring&);
        bool (*read)(const std::wstring&, const std::wstring&, std::wstring&);
        DWORD type;
        std::wstring text;
    };
    const Case cases[] = {
        {"plain", &ReadReg::WriteLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegRZ, REG_SZ, L"Torvex"},
        {"non-ASCII", &ReadReg::WriteLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegRZ, REG_SZ,
         L"Gr\u00fc\u00dfe \u6771\u4eac"},
        {"empty", &ReadReg::WriteLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegRZ, REG_SZ, L""},
        {"expand stays unexpanded", &ReadReg::WrightLocalMachineRegExpandRZ,
         &ReadReg::ReadLocalMachineRegExpandRZ, REG_EXPAND_SZ, L"%SystemRoot%\\system32"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.write(subKey_, L"Text", c.text));
        const Raw raw = GetRaw(L"Text");
        EXPECT_EQ(raw.type, c.type);
        EXPECT_EQ(raw.bytes.size(), 2 * c.text.size() + 2);

        std::wstring value = L"stale";
        EXPECT_TRUE(c.read(subKey_, L"Text", value));
        EXPECT_EQ(value, c.text);
    }
}

TEST_F(ReadRegTest, TextReadHoldsAtMost259Characters) {
    struct Case {
        size_t length;
        bool fits;
    };
    for (const Case c : {Case{1, true}, Case{258, true}, Case{259, true}, Case{260, false}, Case{400, false}}) {
        SCOPED_TRACE(c.length);
        std::wstring text;
        for (size_t i = 0; i < c.length; ++i) text.push_back(static_cast<wchar_t>(L'a' + i % 26));
        PutText(L"Long", text);
        for (auto read : {&ReadReg::ReadLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegExpandRZ}) {
            std::wstring value = L"stale";
            EXPECT_EQ(read(subKey_, L"Long", value), c.fits);
            EXPECT_EQ(value, c.fits ? text : std::wstring());
        }
    }
}

TEST_F(ReadRegTest, TextReadStopsAtTheFirstNul) {
    const wchar_t data[] = L"first\0second";
    PutRaw(L"Multi", REG_MULTI_SZ, data, sizeof(data));
    std::wstring value;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegRZ(subKey_, L"Multi", value));
    EXPECT_EQ(value, L"first");
}

TEST_F(ReadRegTest, ValueTypeIsNotChecked) {
    const DWORD bits = 0x00420041;  // UTF-16 "AB" in little-endian
    PutRaw(L"Word", REG_DWORD, &bits, sizeof(bits));
    std::wstring text;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegRZ(subKey_, L"Word", text));
    EXPECT_EQ(text, L"AB");

    PutText(L"Short", L"A");  // 4 bytes: 'A', 0, 0, 0
    unsigned long value = 0;
    EXPECT_TRUE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Short", value));
    EXPECT_EQ(value, 0x41ul);

    PutText(L"Longer", L"ABCD");  // 10 bytes do not fit a DWORD
    value = 7;
    EXPECT_FALSE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Longer", value));
    EXPECT_EQ(value, 0ul);
}

TEST_F(ReadRegTest, MissingValueOrKey) {
    unsigned long value = 77;
    EXPECT_FALSE(ReadReg::ReadLocalMachineRegDW(subKey_, L"Absent", value));
    EXPECT_EQ(value, 0ul) << "a missing value clears the number";

    value = 77;
    EXPECT_FALSE(ReadReg::ReadLocalMachineRegDW(subKey_ + L"\\Absent", L"Level", value));
    EXPECT_EQ(value, 77ul) << "a missing key leaves the number alone";

    for (auto read : {&ReadReg::ReadLocalMachineRegRZ, &ReadReg::ReadLocalMachineRegExpandRZ}) {
        std::wstring text = L"stale";
        EXPECT_FALSE(read(subKey_, L"Absent", text));
        EXPECT_EQ(text, L"");
        text = L"stale";
        EXPECT_FALSE(read(subKey_ + L"\\Absent", L"Text", text));
        EXPECT_EQ(text, L"");
    }
}

TEST_F(ReadRegTest, WritesUnderAMissingSubkeyFailAndCreateNothing) {
    const std::wstring missing = subKey_ + L"\\Missing";
    EXPECT_FALSE(ReadReg::WrightLocalMachineRegDW(missing, L"Level", 1));
    EXPECT_FALSE(ReadReg::WriteLocalMachineRegRZ(missing, L"Text", L"x"));
    EXPECT_FALSE(ReadReg::WrightLocalMachineRegExpandRZ(missing, L"Text", L"x"));
    EXPECT_FALSE(KeyExists(missing));
    EXPECT_TRUE(GetRaw(L"Level").bytes.empty());
}

// Pass-through recorders: Wine still answers, the test sees what was asked.
struct RegisterLog {
    std::vector<REGSAM> openAccess;
    std::vector<bool> setSubKeyNull;
};
RegisterLog* g_log = nullptr;
decltype(&::RegOpenKeyExW) g_realOpen = nullptr;
decltype(&::RegSetKeyValueW) g_realSet = nullptr;

LSTATUS WINAPI RecordOpen(HKEY root, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY key) {
    g_log->openAccess.push_back(access);
    return g_realOpen(root, subKey, options, access, key);
}
LSTATUS WINAPI RecordSet(HKEY key, LPCWSTR subKey, LPCWSTR name, DWORD type, LPCVOID data, DWORD size) {
    g_log->setSubKeyNull.push_back(subKey == nullptr);
    return g_realSet(key, subKey, name, type, data, size);
}

TEST_F(ReadRegTest, ReadsAndWritesUseThe64BitView) {
    RegisterLog log;
    g_log = &log;
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
    g_log = nullptr;

    const std::vector<REGSAM> expected = {0x20106, 0x20106, 0x20106, 0x20119, 0x20119, 0x20119};
    EXPECT_EQ(log.openAccess, expected);
    EXPECT_EQ(log.setSubKeyNull, (std::vector<bool>{true, true, true}));
}

}  // namespace
