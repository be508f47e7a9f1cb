// Mainboard and BIOS (class 4): the BIOS registry key and WMI are faked
// beneath the DLL; and both answer for real against Wine.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "support/fake_registry.h"
#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeRegistry;
using torvex::test::FakeWmi;
using torvex::test::WmiRow;
using torvex::test::WmiValue;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kBiosKey = L"HARDWARE\\DESCRIPTION\\System\\BIOS";

class MainboardTest : public ::testing::Test {
protected:
    MainboardTest() { Bios({}); }
    void TearDown() override {
        EXPECT_EQ(wmi.LiveObjects(), 0) << "a WMI object was left referenced";
        CheckRegistryUse();
    }
    void CheckRegistryUse() {
        EXPECT_EQ(registry->OpenKeys(), 0) << "a registry key was left open";
        for (REGSAM access : registry->OpenAccess()) EXPECT_EQ(access, static_cast<REGSAM>(0x20119));
    }
    // A fresh BIOS key holding exactly these text values.
    void Bios(std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> values) {
        if (registry) CheckRegistryUse();
        registry.reset();
        registry.emplace();
        registry->AddKey(kBiosKey);
        for (const auto& [name, text] : values) registry->SetText(kBiosKey, name, text);
    }

    void Wmi(const std::wstring& query, const wchar_t* property, const std::wstring& value) {
        wmi.On(kCimv2, query, {WmiRow{{property, WmiValue::Str(value)}}});
    }
    std::vector<std::wstring> QueryTexts() const {
        std::vector<std::wstring> texts;
        for (const auto& q : wmi.Queries()) texts.push_back(q.text);
        return texts;
    }

    // The answer as text, or nullopt when the call failed (then checks that
    // nothing was written).
    std::optional<std::string> Ask(uint32_t code, uint32_t size = 64) {
        std::vector<char> buffer(size + 1, '#');
        uint32_t written = 0xBAD;
        if (MbQueryInformation(code, buffer.data(), size, &written) == 0) {
            EXPECT_EQ(written, 0xBADu);
            EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(size + 1, '#')) << "buffer written";
            return std::nullopt;
        }
        EXPECT_LT(written, size);
        EXPECT_EQ(buffer[written], '#') << "no terminator is written";
        return std::string(buffer.data(), written);
    }

    std::optional<FakeRegistry> registry;
    FakeWmi wmi;
};

struct FactCase {
    uint32_t code;
    const wchar_t* registryValue;  // null: never read from the registry
    const wchar_t* query;
    const wchar_t* property;
};
const FactCase kFacts[] = {
    {0, L"BaseBoardProduct", L"SELECT Product FROM Win32_BaseBoard", L"Product"},
    {1, L"BaseBoardManufacturer", L"SELECT Manufacturer FROM Win32_BaseBoard", L"Manufacturer"},
    {2, L"BaseBoardVersion", L"SELECT Version FROM Win32_BaseBoard", L"Version"},
    {3, nullptr, L"SELECT SerialNumber FROM Win32_BaseBoard", L"SerialNumber"},
    {4, L"BIOSVersion", L"SELECT SMBIOSBIOSVersion FROM Win32_BIOS", L"SMBIOSBIOSVersion"},
    {5, L"BIOSVendor", L"SELECT Manufacturer FROM Win32_BIOS", L"Manufacturer"},
};

TEST_F(MainboardTest, RegistryValueAnswersWithoutWmi) {
    for (const FactCase& c : kFacts) {
        if (c.registryValue == nullptr) continue;
        SCOPED_TRACE(c.code);
        wmi.Reset();
        Bios({{c.registryValue, L" From registry "}});
        Wmi(c.query, c.property, L"from WMI");
        EXPECT_EQ(Ask(c.code), " From registry ") << "passed through untrimmed";
        EXPECT_TRUE(QueryTexts().empty());
    }
}

TEST_F(MainboardTest, EmptyOrMissingRegistryValueFallsBackToWmi) {
    for (const bool present : {true, false}) {
        for (const FactCase& c : kFacts) {
            SCOPED_TRACE(std::to_string(c.code) + (present ? " empty value" : " missing value"));
            wmi.Reset();
            if (present && c.registryValue)
                Bios({{c.registryValue, L""}});
            else
                Bios({});
            Wmi(c.query, c.property, L"WMI answer  ");
            EXPECT_EQ(Ask(c.code), "WMI answer  ");
            EXPECT_EQ(QueryTexts(), std::vector<std::wstring>{c.query});
            EXPECT_EQ(wmi.Connections(), std::vector<std::wstring>{kCimv2});
            wmi.Reset();
            EXPECT_EQ(Ask(c.code), std::nullopt) << "nothing anywhere";
        }
    }
}

TEST_F(MainboardTest, SerialNumberAlwaysComesFromWmi) {
    Bios({{L"BaseBoardSerialNumber", L"REGISTRY-SERIAL"}, {L"SerialNumber", L"REGISTRY-SERIAL"}});
    Wmi(L"SELECT SerialNumber FROM Win32_BaseBoard", L"SerialNumber", L"WMI-SERIAL");
    EXPECT_EQ(Ask(3), "WMI-SERIAL");
    EXPECT_TRUE(registry->OpenAccess().empty()) << "the registry is not consulted";
}

TEST_F(MainboardTest, ReleaseDateFromTheRegistryForm) {
    struct Case {
        const wchar_t* registry;
        std::optional<std::string> answer;  // nullopt: falls back to WMI, which has nothing
    };
    const Case cases[] = {
        {L"05/17/2023", "20230517"},
        {L"12-31-1999", "19991231"},  // the separators are not looked at
        {L"ab/cd/efgh", "efghabcd"},  // nor are the digits checked
        {L"5/17/2023", std::nullopt},
        {L"05/17/20231", std::nullopt},
        {L"", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(c.registry)));
        wmi.Reset();
        Bios({{L"BIOSReleaseDate", c.registry}});
        EXPECT_EQ(Ask(6), c.answer);
        EXPECT_EQ(QueryTexts().empty(), c.answer.has_value());
    }
}

TEST_F(MainboardTest, ReleaseDateFromTheWmiForm) {
    struct Case {
        const wchar_t* wmiDate;
        std::optional<std::string> answer;
    };
    const Case cases[] = {
        {L"20230517000000.000000+000", "20230517"},
        {L"   20230517000000.000000+000", "20230517"},
        {L"202305170", "20230517"},  // nine characters: the shortest accepted
        {L"20230517", std::nullopt},  // eight: refused on purpose
        {L"  20230517", std::nullopt},
        {L"    ", std::nullopt},
        {L"", std::nullopt},
        {L"\t20230517000000", "\t2023051"},  // only the blank is skipped
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(c.wmiDate)));
        wmi.Reset();
        Bios({{L"BIOSReleaseDate", L"5/17/2023"}});  // not the 10-character form
        Wmi(L"SELECT ReleaseDate FROM Win32_BIOS", L"ReleaseDate", c.wmiDate);
        EXPECT_EQ(Ask(6), c.answer);
        EXPECT_EQ(QueryTexts(), std::vector<std::wstring>{L"SELECT ReleaseDate FROM Win32_BIOS"});
    }
}

TEST_F(MainboardTest, AnswerNeedsRoomForATerminatorItNeverWrites) {
    Bios({{L"BaseBoardProduct", L"X570-PRO"}, {L"BIOSReleaseDate", L"05/17/2023"}});
    EXPECT_EQ(Ask(0, 8), std::nullopt);
    EXPECT_EQ(Ask(0, 9), "X570-PRO");
    EXPECT_EQ(Ask(6, 8), std::nullopt);
    EXPECT_EQ(Ask(6, 9), "20230517");
    EXPECT_EQ(Ask(0, 0), std::nullopt);
}

TEST_F(MainboardTest, Refusals) {
    Bios({{L"BaseBoardProduct", L"Board"}});
    char buffer[16];
    uint32_t written = 0;
    EXPECT_EQ(MbQueryInformation(7, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MbQueryInformation(0xFFFFFFFF, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MbQueryInformation(0, nullptr, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MbQueryInformation(0, buffer, sizeof(buffer), nullptr), 0u);
    EXPECT_TRUE(QueryTexts().empty());

    // Reached through the Hal API too; the device argument is dropped.
    ASSERT_EQ(HalQueryInformation(4, reinterpret_cast<void*>(0x1234), 0, buffer, sizeof(buffer), &written), 1u);
    EXPECT_EQ(std::string(buffer, written), "Board");

    std::memset(buffer, '#', sizeof(buffer));
    written = 0xBAD;
    for (uint32_t code = 0; code <= 7; ++code)
        EXPECT_EQ(MbSetInformation(code, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(written, 0xBADu);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(MbInit(), 1u);
}

// Wine's BIOS key holds empty values, so every answer comes from its WMI.
TEST(MainboardOnWine, EmptyRegistryValuesLetWmiAnswer) {
    char buffer[260];
    uint32_t written = 0;
    ASSERT_EQ(MbQueryInformation(6, buffer, sizeof(buffer), &written), 1u);
    ASSERT_EQ(written, 8u);
    for (uint32_t i = 0; i < written; ++i) EXPECT_TRUE(buffer[i] >= '0' && buffer[i] <= '9') << i;

    for (uint32_t code : {0u, 1u, 4u, 5u}) {
        SCOPED_TRACE(code);
        written = 0;
        EXPECT_EQ(MbQueryInformation(code, buffer, sizeof(buffer), &written), 1u);
        EXPECT_GT(written, 0u);
    }
}

}  // namespace
