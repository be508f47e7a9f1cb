// Memory modules (class 13) against the scripted fake WMI, and against Wine's own.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeWmi;
using torvex::test::WmiRow;
using torvex::test::WmiValue;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kLocators = L"SELECT DeviceLocator FROM Win32_PhysicalMemory";
const std::wstring kBanks = L"SELECT BankLabel FROM Win32_PhysicalMemory";

// An entry as MmInit lays it out: the index sits at offset 8.
struct Entry {
    uint8_t unused[8];
    uint32_t index;
    uint8_t tail[4];
};

Entry EntryFor(uint32_t index) {
    Entry entry;
    std::memset(&entry, 0xEE, sizeof(entry));
    entry.index = index;
    return entry;
}

class MemoryTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(wmi.LiveObjects(), 0) << "a WMI object was left referenced"; }

    void Slots(const std::vector<std::wstring>& locators, const std::vector<std::wstring>& banks = {}) {
        std::vector<WmiRow> locatorRows, bankRows;
        for (const auto& v : locators) locatorRows.push_back(WmiRow{{L"DeviceLocator", WmiValue::Str(v)}});
        for (const auto& v : banks) bankRows.push_back(WmiRow{{L"BankLabel", WmiValue::Str(v)}});
        wmi.On(kCimv2, kLocators, locatorRows);
        wmi.On(kCimv2, kBanks, bankRows);
    }
    void Answer(const std::wstring& query, const wchar_t* property, WmiValue value) {
        wmi.On(kCimv2, query, {WmiRow{{property, value}}});
    }
    std::vector<std::wstring> QueryTexts() const {
        std::vector<std::wstring> texts;
        for (const auto& q : wmi.Queries()) texts.push_back(q.text);
        return texts;
    }
    // Calls a code into a buffer of `size` bytes (plus guard bytes) and returns
    // what was written, or "FAILED" after checking that nothing was.
    std::string Query(uint32_t index, uint32_t code, uint32_t size = 64) {
        Entry entry = EntryFor(index);
        std::vector<char> buffer(size + 8, '#');
        uint32_t written = 0xBAD;
        if (MmQueryInformation(&entry, code, buffer.data(), size, &written) == 0) {
            EXPECT_EQ(written, 0xBADu);
            EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(size + 8, '#')) << "buffer written";
            return "FAILED";
        }
        EXPECT_EQ(buffer[written], '#') << "nothing beyond the answer is written";
        return std::string(buffer.data(), written);
    }

    FakeWmi wmi;
};

TEST_F(MemoryTest, ChannelLocatorsKeyModulesByDeviceLocator) {
    Slots({L"ChannelA-DIMM0", L"ChannelB-DIMM0"}, {L"BANK 0", L"BANK 1"});
    const std::wstring serial = L"SELECT SerialNumber FROM Win32_PhysicalMemory WHERE DeviceLocator='ChannelA-DIMM0'";
    Answer(serial, L"SerialNumber", WmiValue::Str(L"1234ABCD  "));
    EXPECT_EQ(Query(1, 1), "ChannelB-DIMM0");
    EXPECT_EQ(Query(0, 3), "1234ABCD  ") << "vendor blanks are passed through";
    EXPECT_EQ(QueryTexts().back(), serial);
    for (const auto& text : QueryTexts()) EXPECT_NE(text, kBanks) << "bank labels are not needed";
}

TEST_F(MemoryTest, EveryPerModuleCodeAsksItsOwnQueryAfterTwoEnumerations) {
    const std::pair<uint32_t, const wchar_t*> codes[] = {
        {2, L"Manufacturer"}, {3, L"SerialNumber"}, {4, L"PartNumber"}, {5, L"Capacity"}, {6, L"ConfiguredClockSpeed"}};
    struct Mode {
        std::vector<std::wstring> locators;
        const wchar_t* filter;  // the WHERE clause for module 1
        std::vector<std::wstring> enumeration;
    };
    const Mode modes[] = {
        {{L"ChannelA-DIMM0", L"ChannelA-DIMM1"}, L"DeviceLocator='ChannelA-DIMM1'", {kLocators}},
        {{L"DIMM 0", L"cpu0 channel b"}, L"DeviceLocator='cpu0 channel b'", {kLocators}},  // any case
        {{L"DIMM 0", L"DIMM 1"}, L"BankLabel='P0 CHANNEL A'x'", {kLocators, kBanks}},      // not escaped
        {{L"Chan nel", L"DIMM 1"}, L"BankLabel='P0 CHANNEL A'x'", {kLocators, kBanks}},
    };
    for (const Mode& mode : modes) {
        for (const auto& [code, property] : codes) {
            SCOPED_TRACE(std::wstring(mode.filter) + L" " + property);
            wmi.Reset();
            Slots(mode.locators, {L"BANK 0", L"P0 CHANNEL A'x"});
            Query(1, code);
            // The call's own enumeration, the code's, then the query.
            std::vector<std::wstring> expected = mode.enumeration;
            expected.insert(expected.end(), mode.enumeration.begin(), mode.enumeration.end());
            expected.push_back(std::wstring(L"SELECT ") + property + L" FROM Win32_PhysicalMemory WHERE " + mode.filter);
            EXPECT_EQ(QueryTexts(), expected);
        }
    }
}

TEST_F(MemoryTest, SlotListSplitsAtEverySeparator) {
    struct Case {
        std::vector<std::wstring> banks;
        std::vector<std::string> slots;
    };
    const Case cases[] = {
        {{L"A", L"", L"B"}, {"A", "FAILED", "B"}},  // an empty identifier is kept, and fails code 1
        {{L"A;"}, {"A"}},
        {{L"A;;B;"}, {"A", "FAILED", "B"}},
        {{L""}, {}},
        {{}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.slots.size());
        wmi.Reset();
        Slots({L"DIMM 0"}, c.banks);
        uint32_t count = 0xBAD, written = 0;
        EXPECT_EQ(MmQueryInformation(nullptr, 0, &count, 4, &written), c.slots.empty() ? 0u : 1u);
        EXPECT_EQ(count, c.slots.empty() ? 0xBADu : c.slots.size());
        for (size_t i = 0; i < c.slots.size(); ++i) EXPECT_EQ(Query(static_cast<uint32_t>(i), 1), c.slots[i]);
        EXPECT_EQ(Query(static_cast<uint32_t>(c.slots.size()), 1), "FAILED");
    }
}

TEST_F(MemoryTest, TextNeedsRoomForATerminatorItNeverWrites) {
    Slots({L"DIMM 0"}, {L"BANK 0"});
    EXPECT_EQ(Query(0, 1, 6), "FAILED");
    EXPECT_EQ(Query(0, 1, 7), "BANK 0");
    const std::wstring part = L"SELECT PartNumber FROM Win32_PhysicalMemory WHERE BankLabel='BANK 0'";
    Answer(part, L"PartNumber", WmiValue::Str(L""));
    EXPECT_EQ(Query(0, 4), "FAILED") << "an empty answer fails";
    Answer(part, L"PartNumber", WmiValue::Str(L"M471A1K43DB1-CWE"));
    EXPECT_EQ(Query(0, 4, 16), "FAILED");
    EXPECT_EQ(Query(0, 4, 17), "M471A1K43DB1-CWE");
}

TEST_F(MemoryTest, CapacityAndClockWriteTheirFullWidthWhateverTheSize) {
    Slots({L"DIMM 0"}, {L"BANK 0"});
    const std::wstring capacity = L"SELECT Capacity FROM Win32_PhysicalMemory WHERE BankLabel='BANK 0'";
    const std::wstring clock = L"SELECT ConfiguredClockSpeed FROM Win32_PhysicalMemory WHERE BankLabel='BANK 0'";
    auto u64 = [](uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); };
    auto u32 = [](uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); };
    struct Case {
        uint32_t code;
        WmiValue value;
        std::string answer;
    };
    const Case cases[] = {
        {5, WmiValue::Str(L"8589934592"), u64(8192)},
        {5, WmiValue::Str(L"17179869184 bytes"), u64(16384)},  // parsed like atoll
        {5, WmiValue::Str(L"1048576"), u64(1)},
        {5, WmiValue::Str(L"1048575"), "FAILED"},  // under 1 MiB is 0
        {5, WmiValue::Str(L"abc"), "FAILED"},
        {5, WmiValue::NullValue(), "FAILED"},
        {6, WmiValue::U32(3200), u32(3200)},
        {6, WmiValue::U32(0), "FAILED"},
        {6, WmiValue::U32(0xFFFFFFFF), "FAILED"},
        {6, WmiValue::NullValue(), "FAILED"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.answer));
        Answer(c.code == 5 ? capacity : clock, c.code == 5 ? L"Capacity" : L"ConfiguredClockSpeed", c.value);
        EXPECT_EQ(Query(0, c.code, 1), c.answer);
    }
}

TEST_F(MemoryTest, InitListsEveryModuleWithItsIndex) {
    void* list = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(MmInit(&list), 0u) << "no modules";
    EXPECT_EQ(list, reinterpret_cast<void*>(0x1));

    Slots({L"DIMM 0", L"DIMM 1", L"DIMM 2"}, {L"BANK 0", L"BANK 1", L"BANK 2"});
    EXPECT_EQ(MmInit(nullptr), 0u);
    ASSERT_EQ(MmInit(&list), 1u);
    const auto* words = static_cast<const uint32_t*>(list);
    EXPECT_EQ(words[0], 56u);
    EXPECT_EQ(words[1], 3u);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(words[2 + 4 * i + 2], i);

    // An entry goes back in as it is, directly or through the Hal API.
    char text[16];
    uint32_t written = 0;
    ASSERT_EQ(HalQueryInformation(13, static_cast<char*>(list) + 8 + 32, 1, text, sizeof(text), &written), 1u);
    EXPECT_EQ(std::string(text, written), "BANK 2");
    std::free(list);

    wmi.FailConnect(kCimv2);
    list = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(MmInit(&list), 0u) << "a WMI failure gives an empty list";
    EXPECT_EQ(list, reinterpret_cast<void*>(0x1));
}

TEST_F(MemoryTest, CountCodeAndRefusals) {
    uint8_t buffer[8];
    std::memset(buffer, 0xAA, sizeof(buffer));
    uint32_t written = 0xBAD;
    EXPECT_EQ(MmQueryInformation(nullptr, 0, buffer, 2, &written), 0u);
    EXPECT_EQ(buffer[0], 0xAA) << "no modules: nothing written";

    Slots({L"DIMM 0", L"DIMM 1"}, {L"BANK 0", L"BANK 1"});
    EXPECT_EQ(Query(2, 0, 4), std::string("\x02\0\0\0", 4)) << "code 0 needs no valid entry";
    // Too small: the bytes it has are zeroed before the call fails.
    EXPECT_EQ(MmQueryInformation(nullptr, 0, buffer, 2, &written), 0u);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 3), (std::vector<uint8_t>{0, 0, 0xAA}));
    EXPECT_EQ(written, 0xBADu);

    for (uint32_t code = 1; code <= 6; ++code) {
        SCOPED_TRACE(code);
        EXPECT_EQ(Query(2, code), "FAILED") << "index equal to the count";
        EXPECT_EQ(Query(0xFFFFFFFF, code), "FAILED");
        EXPECT_EQ(MmQueryInformation(nullptr, code, buffer, sizeof(buffer), &written), 0u);
    }
    EXPECT_EQ(Query(0, 7), "FAILED");
    Entry entry = EntryFor(0);
    EXPECT_EQ(MmQueryInformation(&entry, 1, nullptr, 8, &written), 0u);
    EXPECT_EQ(MmQueryInformation(&entry, 1, buffer, 8, nullptr), 0u);
}

// Wine describes one module; its DeviceLocator "DIMM 0" names no channel, so
// the module is keyed by its bank label.
TEST(MemoryOnWine, OneModuleWithCapacityAndClock) {
    void* list = nullptr;
    ASSERT_EQ(MmInit(&list), 1u);
    const auto* words = static_cast<const uint32_t*>(list);
    EXPECT_EQ(words[0], 24u);
    ASSERT_EQ(words[1], 1u);
    void* entry = static_cast<char*>(list) + 8;

    char text[260];
    uint32_t written = 0;
    ASSERT_EQ(MmQueryInformation(entry, 1, text, sizeof(text), &written), 1u);
    EXPECT_EQ(std::string(text, written), "BANK 0");

    uint64_t mib = 0;
    ASSERT_EQ(MmQueryInformation(entry, 5, &mib, sizeof(mib), &written), 1u);
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    ASSERT_TRUE(::GlobalMemoryStatusEx(&status));
    EXPECT_GT(mib, 0u);
    EXPECT_LE(mib, (status.ullTotalPhys >> 20) + 1);

    uint32_t clock = 0;
    EXPECT_EQ(MmQueryInformation(entry, 6, &clock, sizeof(clock), &written), 1u);
    EXPECT_NE(clock, 0u);
    std::free(list);
}

}  // namespace
