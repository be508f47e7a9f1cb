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
static_assert(sizeof(Entry) == 16);

Entry EntryFor(uint32_t index) {
    Entry entry;
    std::memset(&entry, 0xEE, sizeof(entry));
    entry.index = index;
    return entry;
}

std::vector<WmiRow> Rows(const wchar_t* property, const std::vector<std::wstring>& values) {
    std::vector<WmiRow> rows;
    for (const auto& v : values) rows.push_back(WmiRow{{property, WmiValue::Str(v)}});
    return rows;
}

class MemoryTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(wmi.LiveObjects(), 0) << "a WMI object was left referenced"; }

    void Slots(const std::vector<std::wstring>& locators, const std::vector<std::wstring>& banks = {}) {
        wmi.On(kCimv2, kLocators, Rows(L"DeviceLocator", locators));
        wmi.On(kCimv2, kBanks, Rows(L"BankLabel", banks));
    }
    void Answer(const std::wstring& query, const wchar_t* property, WmiValue value) {
        wmi.On(kCimv2, query, {WmiRow{{property, value}}});
    }
    std::vector<std::wstring> QueryTexts() const {
        std::vector<std::wstring> texts;
        for (const auto& q : wmi.Queries()) texts.push_back(q.text);
        return texts;
    }
    // Narrow text answer of a per-module code, or nullopt-like "" with ok=false.
    struct Text {
        uint32_t result;
        std::string text;
    };
    Text QueryText(uint32_t index, uint32_t code, uint32_t size = 64) {
        Entry entry = EntryFor(index);
        std::vector<char> buffer(size + 1, '#');
        uint32_t written = 0xBAD;
        const uint32_t result = MmQueryInformation(&entry, code, buffer.data(), size, &written);
        if (result == 0) {
            EXPECT_EQ(written, 0xBADu);
            EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(size + 1, '#')) << "buffer written";
            return {0, ""};
        }
        EXPECT_LT(written, size);
        EXPECT_EQ(buffer[written], '#') << "no terminator is written";
        return {result, std::string(buffer.data(), written)};
    }

    FakeWmi wmi;
};

TEST_F(MemoryTest, ChannelLocatorsKeyModulesByDeviceLocator) {
    Slots({L"ChannelA-DIMM0", L"ChannelB-DIMM0"}, {L"BANK 0", L"BANK 1"});
    const std::wstring serialQuery =
        L"SELECT SerialNumber FROM Win32_PhysicalMemory WHERE DeviceLocator='ChannelA-DIMM0'";
    Answer(serialQuery, L"SerialNumber", WmiValue::Str(L"1234ABCD  "));

    EXPECT_EQ(QueryText(1, 1).text, "ChannelB-DIMM0");
    const Text serial = QueryText(0, 3);
    EXPECT_EQ(serial.result, 1u);
    EXPECT_EQ(serial.text, "1234ABCD  ") << "vendor blanks are passed through";
    EXPECT_EQ(QueryTexts().back(), serialQuery);
    for (const auto& text : QueryTexts()) EXPECT_NE(text, kBanks) << "bank labels are not needed";
}

TEST_F(MemoryTest, KeyModeFollowsAnyCaseOfChannel) {
    struct Case {
        std::vector<std::wstring> locators;
        const char* slot0;
        const wchar_t* filter;
    };
    const Case cases[] = {
        {{L"ChannelA-DIMM0"}, "ChannelA-DIMM0", L"DeviceLocator='ChannelA-DIMM0"},
        {{L"DIMM 0", L"cpu0 channel b"}, "DIMM 0", L"DeviceLocator='DIMM 0"},
        {{L"CHANNELX"}, "CHANNELX", L"DeviceLocator='CHANNELX"},
        {{L"DIMM 0", L"DIMM 1"}, "BANK 0", L"BankLabel='BANK 0"},
        {{L"Chan nel"}, "BANK 0", L"BankLabel='BANK 0"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.slot0);
        wmi.Reset();
        Slots(c.locators, {L"BANK 0", L"BANK 1"});
        EXPECT_EQ(QueryText(0, 1).text, c.slot0);
        QueryText(0, 2);
        EXPECT_EQ(QueryTexts().back(),
                  std::wstring(L"SELECT Manufacturer FROM Win32_PhysicalMemory WHERE ") + c.filter + L"'");
    }
}

TEST_F(MemoryTest, EveryPerModuleCodeAsksItsOwnQueryAfterTwoEnumerations) {
    struct Case {
        uint32_t code;
        const wchar_t* property;
    };
    const Case cases[] = {{2, L"Manufacturer"}, {3, L"SerialNumber"}, {4, L"PartNumber"},
                          {5, L"Capacity"},     {6, L"ConfiguredClockSpeed"}};
    struct Mode {
        std::vector<std::wstring> locators;
        const wchar_t* key;
        const wchar_t* id;
        std::vector<std::wstring> enumeration;
    };
    const Mode modes[] = {
        {{L"ChannelA-DIMM0", L"ChannelA-DIMM1"}, L"DeviceLocator", L"ChannelA-DIMM1", {kLocators}},
        {{L"DIMM 0", L"DIMM 1"}, L"BankLabel", L"P0 CHANNEL A'x", {kLocators, kBanks}},
    };
    for (const Mode& mode : modes) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::wstring(mode.key) + L" " + c.property);
            wmi.Reset();
            Slots(mode.locators, {L"BANK 0", L"P0 CHANNEL A'x"});
            Entry entry = EntryFor(1);
            uint8_t buffer[64];
            uint32_t written = 0;
            MmQueryInformation(&entry, c.code, buffer, sizeof(buffer), &written);

            std::vector<std::wstring> expected = mode.enumeration;  // the call's own enumeration
            expected.insert(expected.end(), mode.enumeration.begin(), mode.enumeration.end());  // the code's
            // The identifier goes in as it is, apostrophe and all.
            expected.push_back(std::wstring(L"SELECT ") + c.property + L" FROM Win32_PhysicalMemory WHERE " +
                               mode.key + L"='" + mode.id + L"'");
            EXPECT_EQ(QueryTexts(), expected);
        }
    }
}

TEST_F(MemoryTest, SlotListSplitsAtEverySeparator) {
    struct Case {
        std::vector<std::wstring> banks;
        std::vector<std::string> slots;  // "" where code 1 fails on an empty identifier
    };
    const Case cases[] = {
        {{L"A", L"", L"B"}, {"A", "", "B"}},
        {{L"A;"}, {"A"}},
        {{L"A;;B;"}, {"A", "", "B"}},
        {{L";"}, {""}},
        {{L""}, {}},
        {{}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.slots.size());
        wmi.Reset();
        Slots({L"DIMM 0"}, c.banks);
        uint32_t count = 0xBAD;
        uint32_t written = 0;
        EXPECT_EQ(MmQueryInformation(nullptr, 0, &count, sizeof(count), &written), c.slots.empty() ? 0u : 1u);
        if (!c.slots.empty()) {
            EXPECT_EQ(count, c.slots.size());
        }
        for (size_t i = 0; i < c.slots.size(); ++i) {
            const Text slot = QueryText(static_cast<uint32_t>(i), 1);
            EXPECT_EQ(slot.result, c.slots[i].empty() ? 0u : 1u) << i;
            EXPECT_EQ(slot.text, c.slots[i]);
        }
        EXPECT_EQ(QueryText(static_cast<uint32_t>(c.slots.size()), 1).result, 0u);
    }
}

TEST_F(MemoryTest, InitListsEveryModuleWithItsIndex) {
    Slots({L"DIMM 0", L"DIMM 1", L"DIMM 2"}, {L"BANK 0", L"BANK 1", L"BANK 2"});
    void* list = reinterpret_cast<void*>(0x1);
    ASSERT_EQ(MmInit(&list), 1u);
    const auto* words = static_cast<const uint32_t*>(list);
    EXPECT_EQ(words[0], 56u);
    EXPECT_EQ(words[1], 3u);
    const auto* entries = reinterpret_cast<const Entry*>(words + 2);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(entries[i].index, i);

    // The entries go back in as they are.
    EXPECT_EQ(QueryText(0, 1).text, "BANK 0");
    uint32_t written = 0;
    char text[16];
    ASSERT_EQ(MmQueryInformation(const_cast<Entry*>(&entries[2]), 1, text, sizeof(text), &written), 1u);
    EXPECT_EQ(std::string(text, written), "BANK 2");

    void* viaHal = nullptr;
    ASSERT_EQ(HalInit(13, &viaHal), 1u);
    EXPECT_EQ(static_cast<const uint32_t*>(viaHal)[1], 3u);
    ASSERT_EQ(HalQueryInformation(13, static_cast<char*>(viaHal) + 8 + 16, 1, text, sizeof(text), &written), 1u);
    EXPECT_EQ(std::string(text, written), "BANK 1");
    std::free(viaHal);
    std::free(list);
}

TEST_F(MemoryTest, InitRefusals) {
    void* list = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(MmInit(&list), 0u) << "no modules";
    EXPECT_EQ(list, reinterpret_cast<void*>(0x1));

    Slots({L"DIMM 0"}, {L"BANK 0"});
    EXPECT_EQ(MmInit(nullptr), 0u);

    wmi.FailConnect(kCimv2);
    EXPECT_EQ(MmInit(&list), 0u) << "a WMI failure gives an empty list";
    EXPECT_EQ(list, reinterpret_cast<void*>(0x1));
}

TEST_F(MemoryTest, CountCode) {
    Slots({L"DIMM 0", L"DIMM 1"}, {L"BANK 0", L"BANK 1"});
    uint8_t buffer[8];
    std::memset(buffer, 0xAA, sizeof(buffer));
    uint32_t written = 0;
    ASSERT_EQ(MmQueryInformation(nullptr, 0, buffer, 8, &written), 1u);
    uint32_t count = 0;
    std::memcpy(&count, buffer, 4);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(written, 4u);
    EXPECT_EQ(buffer[4], 0xAA);

    // Too small: the bytes it has are zeroed before the call fails.
    std::memset(buffer, 0xAA, sizeof(buffer));
    written = 0xBAD;
    EXPECT_EQ(MmQueryInformation(nullptr, 0, buffer, 2, &written), 0u);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(buffer[1], 0);
    EXPECT_EQ(buffer[2], 0xAA);
    EXPECT_EQ(written, 0xBADu);

    // No modules: nothing is written at all.
    wmi.Reset();
    std::memset(buffer, 0xAA, sizeof(buffer));
    EXPECT_EQ(MmQueryInformation(nullptr, 0, buffer, 2, &written), 0u);
    EXPECT_EQ(MmQueryInformation(nullptr, 0, buffer, 8, &written), 0u);
    EXPECT_EQ(buffer[0], 0xAA);
}

TEST_F(MemoryTest, TextNeedsRoomForATerminatorItNeverWrites) {
    Slots({L"DIMM 0"}, {L"BANK 0"});  // "BANK 0" is 6 bytes
    EXPECT_EQ(QueryText(0, 1, 6).result, 0u);
    const Text fits = QueryText(0, 1, 7);
    EXPECT_EQ(fits.result, 1u);
    EXPECT_EQ(fits.text, "BANK 0");

    const std::wstring part = L"SELECT PartNumber FROM Win32_PhysicalMemory WHERE BankLabel='BANK 0'";
    Answer(part, L"PartNumber", WmiValue::Str(L""));
    EXPECT_EQ(QueryText(0, 4).result, 0u) << "an empty answer fails";
    Answer(part, L"PartNumber", WmiValue::NullValue());
    EXPECT_EQ(QueryText(0, 4).result, 0u);
    Answer(part, L"PartNumber", WmiValue::Str(L"M471A1K43DB1-CWE"));
    EXPECT_EQ(QueryText(0, 4, 17).text, "M471A1K43DB1-CWE");
    EXPECT_EQ(QueryText(0, 4, 16).result, 0u);
}

TEST_F(MemoryTest, CapacityIsTheByteTextInMiB) {
    Slots({L"DIMM 0"}, {L"BANK 0"});
    const std::wstring query = L"SELECT Capacity FROM Win32_PhysicalMemory WHERE BankLabel='BANK 0'";
    struct Case {
        const wchar_t* text;
        uint64_t mib;  // 0: the code fails
    };
    const Case cases[] = {
        {L"8589934592", 8192},   {L"17179869184 bytes", 16384}, {L"1048576", 1},
        {L"1048575", 0},         {L"abc", 0},                   {L"", 0},
        {L"  4294967296", 4096},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Answer(query, L"Capacity", WmiValue::Str(c.text));
        Entry entry = EntryFor(0);
        uint8_t buffer[12];
        std::memset(buffer, 0xAA, sizeof(buffer));
        uint32_t written = 0xBAD;
        // Eight bytes are written whatever size the caller states.
        const uint32_t result = MmQueryInformation(&entry, 5, buffer, 1, &written);
        if (c.mib == 0) {
            EXPECT_EQ(result, 0u);
            EXPECT_EQ(buffer[0], 0xAA);
            EXPECT_EQ(written, 0xBADu);
            continue;
        }
        EXPECT_EQ(result, 1u);
        uint64_t mib = 0;
        std::memcpy(&mib, buffer, 8);
        EXPECT_EQ(mib, c.mib);
        EXPECT_EQ(written, 8u);
        EXPECT_EQ(buffer[8], 0xAA);
    }
}

TEST_F(MemoryTest, ClockRefusesZeroAndNoValue) {
    Slots({L"ChannelA-DIMM0"});
    const std::wstring query =
        L"SELECT ConfiguredClockSpeed FROM Win32_PhysicalMemory WHERE DeviceLocator='ChannelA-DIMM0'";
    struct Case {
        std::vector<WmiRow> rows;
        uint32_t clock;  // 0: the code fails
    };
    const Case cases[] = {
        {{WmiRow{{L"ConfiguredClockSpeed", WmiValue::U32(3200)}}}, 3200},
        {{WmiRow{{L"ConfiguredClockSpeed", WmiValue::U32(0)}}}, 0},
        {{WmiRow{{L"ConfiguredClockSpeed", WmiValue::U32(0xFFFFFFFF)}}}, 0},
        {{WmiRow{{L"ConfiguredClockSpeed", WmiValue::NullValue()}}}, 0},
        {{}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.clock);
        wmi.On(kCimv2, query, c.rows);
        Entry entry = EntryFor(0);
        uint8_t buffer[8];
        std::memset(buffer, 0xAA, sizeof(buffer));
        uint32_t written = 0xBAD;
        const uint32_t result = MmQueryInformation(&entry, 6, buffer, 0, &written);
        if (c.clock == 0) {
            EXPECT_EQ(result, 0u);
            EXPECT_EQ(buffer[0], 0xAA);
            continue;
        }
        EXPECT_EQ(result, 1u);
        uint32_t clock = 0;
        std::memcpy(&clock, buffer, 4);
        EXPECT_EQ(clock, c.clock);
        EXPECT_EQ(written, 4u);
        EXPECT_EQ(buffer[4], 0xAA);
    }
}

TEST_F(MemoryTest, QueryRefusals) {
    Slots({L"DIMM 0", L"DIMM 1"}, {L"BANK 0", L"BANK 1"});
    const std::wstring capacity = L"SELECT Capacity FROM Win32_PhysicalMemory WHERE BankLabel='BANK 1'";
    Answer(capacity, L"Capacity", WmiValue::Str(L"8589934592"));
    uint8_t buffer[64];
    uint32_t written = 0;
    Entry entry = EntryFor(1);
    ASSERT_EQ(MmQueryInformation(&entry, 5, buffer, sizeof(buffer), &written), 1u);

    for (uint32_t code = 1; code <= 6; ++code) {
        SCOPED_TRACE(code);
        EXPECT_EQ(QueryText(2, code).result, 0u) << "index equal to the count";
        EXPECT_EQ(QueryText(0xFFFFFFFF, code).result, 0u);
        EXPECT_EQ(MmQueryInformation(nullptr, code, buffer, sizeof(buffer), &written), 0u);
    }
    Entry beyond = EntryFor(2);
    EXPECT_EQ(MmQueryInformation(&beyond, 0, buffer, sizeof(buffer), &written), 1u) << "code 0 needs no entry";
    EXPECT_EQ(MmQueryInformation(&entry, 7, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MmQueryInformation(&entry, 0xFFFFFFFF, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MmQueryInformation(&entry, 5, nullptr, 8, &written), 0u);
    EXPECT_EQ(MmQueryInformation(&entry, 5, buffer, 8, nullptr), 0u);
    EXPECT_EQ(MmQueryInformation(nullptr, 0, nullptr, 8, &written), 0u);
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
    const std::string slot(text, written);
    EXPECT_EQ(slot, "BANK 0") << "keyed by the bank label, not by DeviceLocator \"DIMM 0\"";

    uint64_t mib = 0;
    ASSERT_EQ(MmQueryInformation(entry, 5, &mib, sizeof(mib), &written), 1u);
    EXPECT_GT(mib, 0u);
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    ASSERT_TRUE(::GlobalMemoryStatusEx(&status));
    EXPECT_LE(mib, (status.ullTotalPhys >> 20) + 1);

    uint32_t clock = 0;
    EXPECT_EQ(MmQueryInformation(entry, 6, &clock, sizeof(clock), &written), 1u);
    EXPECT_NE(clock, 0u);
    std::free(list);
}

}  // namespace
