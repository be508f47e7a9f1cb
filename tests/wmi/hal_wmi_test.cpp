// HalWmi's select calls against the scripted fake WMI and against Wine's own.
#include <windows.h>
#include <comdef.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeWmi;
using torvex::test::WmiRow;
using torvex::test::WmiValue;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kQuery = L"SELECT Thing FROM Test_Class";

class HalWmiTest : public ::testing::Test {
protected:
    void Rows(std::vector<WmiRow> rows) { wmi.On(kCimv2, kQuery, std::move(rows)); }
    void TearDown() override { EXPECT_EQ(wmi.LiveObjects(), 0) << "a WMI object was left referenced"; }
    FakeWmi wmi;
};

WmiRow Thing(WmiValue value) { return WmiRow{{L"Thing", value}}; }
WmiRow NoThing() { return WmiRow{{L"Other", WmiValue::Str(L"x")}}; }

TEST_F(HalWmiTest, TextSelectsJoinEveryRowOrTakeTheFirst) {
    Rows({Thing(WmiValue::Str(L"A")), Thing(WmiValue::NullValue()), NoThing(), Thing(WmiValue::Str(L"")),
          Thing(WmiValue::Str(L"B"))});
    HalWmi query(kCimv2);
    // A NULL or missing value contributes nothing; an empty text is joined like any other.
    EXPECT_EQ(query.SelectStrB(kQuery, L"Thing"), L"A;;B");
    EXPECT_EQ(query.SelectStr(kQuery, L"thing"), L"A") << "property names match without case";
    wmi.On(kCimv2, L"SELECT Thing FROM Test_Class", {Thing(WmiValue::Str(L"x")), Thing(WmiValue::Str(L"y"))});
    EXPECT_EQ(query.SelectStrA(L"Test_Class", L"Thing"), L"x;y");
    EXPECT_EQ(wmi.Queries().back().text, L"SELECT Thing FROM Test_Class");
    Rows({Thing(WmiValue::Str(L"")), Thing(WmiValue::Str(L"B"))});
    EXPECT_EQ(query.SelectStrB(kQuery, L"Thing"), L"B") << "no separator before the first visible text";
}

TEST_F(HalWmiTest, TheFirstRowDecidesForSingleValueSelects) {
    Rows({Thing(WmiValue::NullValue()), Thing(WmiValue::U32(7))});
    HalWmi query(kCimv2);
    EXPECT_EQ(query.SelectUInt(kQuery, L"Thing"), 0xFFFFFFFFu) << "a NULL first row is no value";
    EXPECT_EQ(query.SelectStr(kQuery, L"Thing"), L"");
}

TEST_F(HalWmiTest, NumberSelects) {
    Rows({Thing(WmiValue::U32(8)), Thing(WmiValue::U32(0)), Thing(WmiValue::I32(-3)), Thing(WmiValue::NullValue())});
    HalWmi query(kCimv2);
    EXPECT_EQ(query.SelectUInt(kQuery, L"Thing"), 8u);
    EXPECT_EQ(query.SelectUintForCpuCacheL1AndL2(kQuery, L"Thing"), 5u) << "8 + 0 + (2^32 - 3) wraps";

    wmi.On(kCimv2, L"SELECT Thing FROM Test_Class",
           {Thing(WmiValue::I64(8)), Thing(WmiValue::I64(0)), Thing(WmiValue::I64(-3)),
            Thing(WmiValue::I64(5000000000LL))});
    EXPECT_EQ(query.SelectUIntArray(L"Test_Class", L"Thing"), L"8;-3;5000000000");
}

TEST_F(HalWmiTest, BoolIsTrueOnlyForVariantTrue) {
    HalWmi query(kCimv2);
    const std::pair<WmiValue, bool> cases[] = {{WmiValue::Bool(true), true},
                                               {WmiValue::Bool(false), false},
                                               {WmiValue::BoolBits(1), false},
                                               {WmiValue::NullValue(), false}};
    for (const auto& [value, expected] : cases) {
        Rows({Thing(value)});
        EXPECT_EQ(query.SelectBool(kQuery, L"Thing"), expected);
    }
}

TEST_F(HalWmiTest, NoRowsGiveTheDefaults) {
    HalWmi query(kCimv2);
    unsigned char buffer[4] = {9, 9, 9, 9};
    EXPECT_EQ(query.SelectStr(kQuery, L"Thing"), L"");
    EXPECT_EQ(query.SelectStrB(kQuery, L"Thing"), L"");
    EXPECT_EQ(query.SelectStrA(L"Test_Class", L"Thing"), L"");
    EXPECT_EQ(query.SelectUIntArray(L"Test_Class", L"Thing"), L"");
    EXPECT_EQ(query.SelectUInt(kQuery, L"Thing"), 0xFFFFFFFFu);
    EXPECT_EQ(query.SelectUintForCpuCacheL1AndL2(kQuery, L"Thing"), 0u);
    EXPECT_FALSE(query.SelectBool(kQuery, L"Thing"));
    EXPECT_FALSE(query.Select(kQuery, L"Thing", buffer, 4));
    EXPECT_EQ(buffer[0], 9);
}

TEST_F(HalWmiTest, EveryCallConnectsAnewWithTheFixedQueryShape) {
    Rows({Thing(WmiValue::Str(L"A"))});
    HalWmi query(L"ROOT\\Something");
    wmi.On(L"root\\something", kQuery, {Thing(WmiValue::Str(L"A"))});
    query.SelectStr(kQuery, L"Thing");
    query.SelectStr(kQuery, L"Thing");
    EXPECT_EQ(wmi.Connections(), (std::vector<std::wstring>{L"ROOT\\Something", L"ROOT\\Something"}));
    const auto queries = wmi.Queries();
    ASSERT_EQ(queries.size(), 2u);
    EXPECT_EQ(queries[0].language, L"WQL");
    EXPECT_EQ(queries[0].flags, 48);
}

TEST_F(HalWmiTest, SelectCopiesExactlyTheRequestedBytes) {
    Rows({Thing(WmiValue::Bytes({1, 2, 3, 4, 5, 6}))});
    HalWmi query(kCimv2);
    unsigned char buffer[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_TRUE(query.Select(kQuery, L"Thing", buffer, 4));
    EXPECT_EQ(std::vector<unsigned char>(buffer, buffer + 6), (std::vector<unsigned char>{1, 2, 3, 4, 0xEE, 0xEE}));
    EXPECT_TRUE(query.Select(kQuery, L"Thing", buffer, 0)) << "nothing asked, nothing copied";
    EXPECT_FALSE(query.Select(kQuery, L"Thing", nullptr, 4));
    Rows({Thing(WmiValue::Str(L"not an array"))});
    EXPECT_FALSE(query.Select(kQuery, L"Thing", buffer, 4));
}

TEST_F(HalWmiTest, FailuresGiveDefaultsAndPartialJoinsStand) {
    Rows({Thing(WmiValue::Str(L"A")), Thing(WmiValue::Str(L"B")), Thing(WmiValue::Str(L"C"))});
    HalWmi query(kCimv2);
    wmi.FailFetchAfter(kQuery, 2);
    EXPECT_EQ(query.SelectStrB(kQuery, L"Thing"), L"A;B");
    wmi.FailGet(L"Thing");
    EXPECT_EQ(query.SelectStrB(kQuery, L"Thing"), L"");
    wmi.FailQuery(kQuery);
    EXPECT_EQ(query.SelectUInt(kQuery, L"Thing"), 0xFFFFFFFFu);
    wmi.FailConnect(kCimv2);
    EXPECT_EQ(query.SelectStr(kQuery, L"Thing"), L"");
    wmi.FailCreate();
    EXPECT_FALSE(query.SelectBool(kQuery, L"Thing"));
}

TEST_F(HalWmiTest, AStringThatCannotBeAllocatedRunsNoQuery) {
    Rows({Thing(WmiValue::U32(7))});
    torvex::test::BstrRefusal refusal;
    HalWmi query(kCimv2);
    // Only the cache sum raises, and only for its "WQL" and query strings.
    const std::pair<std::wstring, HRESULT> cases[] = {
        {L"WQL", E_OUTOFMEMORY}, {kQuery, E_OUTOFMEMORY}, {L"Thing", S_OK}, {kCimv2, S_OK}};
    for (const auto& [refused, raised] : cases) {
        refusal.Refuse(refused);
        HRESULT error = S_OK;
        try {
            EXPECT_EQ(query.SelectUintForCpuCacheL1AndL2(kQuery, L"Thing"), 0u);
        } catch (const _com_error& e) {
            error = e.Error();
        }
        EXPECT_EQ(error, raised) << refused;
        EXPECT_EQ(query.SelectUInt(kQuery, L"Thing"), 0xFFFFFFFFu) << refused;
        EXPECT_TRUE(wmi.Connections().empty() && wmi.Queries().empty()) << refused;
        EXPECT_EQ(wmi.LiveObjects(), 0) << refused;
        EXPECT_EQ(refusal.LiveStrings(), 0u) << refused;
    }
    refusal.Refuse(L"");
    EXPECT_EQ(query.SelectUintForCpuCacheL1AndL2(kQuery, L"Thing"), 7u);
    EXPECT_EQ(refusal.LiveStrings(), 0u);
}

// COM pairing, counted at Torvex.dll's CoUninitialize import.
std::atomic<int> g_uninitialized{0};
void WINAPI CountingCoUninitialize() {
    ++g_uninitialized;
    CoUninitialize();
}

TEST_F(HalWmiTest, EveryCopyThatCarriesTheFlagUninitialisesOnce) {
    auto patch = torvex::test::Redirect("CoUninitialize", &CountingCoUninitialize);
    g_uninitialized = 0;
    {
        HalWmi first(kCimv2);  // the test thread is in the MTA: S_FALSE, owed
        HalWmi second(first);
        HalWmi third(L"ROOT\\WMI");
        third = first;
    }
    EXPECT_EQ(g_uninitialized, 3);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);  // the copy's extra uninitialisation was the test thread's own
}

TEST_F(HalWmiTest, AnObjectInASingleThreadedApartmentWorksAndOwesNothing) {
    // Classes registered from the MTA are not seen here: this reads Wine's own WMI.
    auto patch = torvex::test::Redirect("CoUninitialize", &CountingCoUninitialize);
    g_uninitialized = 0;
    std::wstring text;
    std::thread sta([&] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        {
            HalWmi query(kCimv2);
            EXPECT_TRUE(query.Init());
            text = query.SelectStr(L"SELECT Name FROM Win32_Processor", L"Name");
        }
        CoUninitialize();
    });
    sta.join();
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(g_uninitialized, 0);
}

TEST(HalWmiOnWine, ProcessorNameAgreesWithTheRegistry) {
    wchar_t name[256] = {};
    DWORD size = sizeof(name);
    ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0",
                           L"ProcessorNameString", RRF_RT_REG_SZ, nullptr, name, &size),
              ERROR_SUCCESS);
    HalWmi query(kCimv2);
    EXPECT_EQ(query.SelectStr(L"SELECT Name FROM Win32_Processor", L"Name"), std::wstring(name));
    EXPECT_NE(query.SelectUInt(L"SELECT NumberOfLogicalProcessors FROM Win32_Processor", L"NumberOfLogicalProcessors"),
              0xFFFFFFFFu);
    EXPECT_EQ(query.SelectStr(L"SELECT Nothing FROM No_Such_Class", L"Nothing"), L"");
}

}  // namespace
