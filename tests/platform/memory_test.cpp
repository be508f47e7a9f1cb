// Memory modules (class 13) over simulated machines, and on Wine's own.
#include <cstdlib>

#include "platform/platform_test.h"

using namespace platform_test;

namespace {

constexpr char kCimv2[] = "ROOT\\CIMV2";
constexpr char kLocators[] = "SELECT DeviceLocator FROM Win32_PhysicalMemory";
constexpr char kBanks[] = "SELECT BankLabel FROM Win32_PhysicalMemory";

// Modules with these device locators and bank labels, one row each.
Json Memory(const std::vector<Json>& locators, const std::vector<Json>& banks) {
    return {{"wmi", {{kCimv2, {{"queries", {{kLocators, Rows("DeviceLocator", locators)}, {kBanks, Rows("BankLabel", banks)}}}}}}}};
}

// Through an entry as MmInit lays it out: the index at offset 8, the rest the caller's.
auto Module(uint32_t index, uint32_t code) {
    return [index, code](void* b, uint32_t s, uint32_t* w) {
        uint32_t entry[4] = {0xEEEEEEEE, 0xEEEEEEEE, index, 0xEEEEEEEE};
        return MmQueryInformation(entry, code, b, s, w);
    };
}
std::optional<std::string> Query(uint32_t index, uint32_t code, uint32_t size = 64, uint32_t width = 0) {
    return Ask(Module(index, code), size, width, width != 0 ? width : kUntouched);
}
std::string Bytes(uint64_t value, size_t width) { return std::string(reinterpret_cast<const char*>(&value), width); }

TEST(MemoryTest, ModulesAreKeyedByChannelLocatorsElseByBankLabels) {
    const std::pair<uint32_t, const char*> codes[] = {
        {2, "Manufacturer"}, {3, "SerialNumber"}, {4, "PartNumber"}, {5, "Capacity"}, {6, "ConfiguredClockSpeed"}};
    const std::pair<std::vector<Json>, const char*> modes[] = {
        {{"ChannelA-DIMM0", "ChannelA-DIMM1"}, "DeviceLocator='ChannelA-DIMM1'"},
        {{"DIMM 0", "cpu0 channel b"}, "DeviceLocator='cpu0 channel b'"},  // in any case
        {{"DIMM 0", "DIMM 1"}, "BankLabel='P0 CHANNEL A'x'"},  // the label is not escaped
        {{"Chan nel", "DIMM 1"}, "BankLabel='P0 CHANNEL A'x'"},
    };
    for (const auto& [locators, filter] : modes) {
        for (const auto& [code, property] : codes) {
            SCOPED_TRACE(std::string(filter) + " " + property);
            Machine machine(Memory(locators, {"BANK 0", "P0 CHANNEL A'x"}));
            EXPECT_EQ(Query(1, code), std::nullopt) << "no answer";
            // The call's enumeration, the code's own (bank labels when no locator names a channel), then the query.
            const Lines enumeration = filter[0] == 'D' ? Lines{Wmi(kCimv2, kLocators)} : Lines{Wmi(kCimv2, kLocators), Wmi(kCimv2, kBanks)};
            Lines asked = enumeration;
            asked.insert(asked.end(), enumeration.begin(), enumeration.end());
            asked.push_back(Wmi(kCimv2, std::string("SELECT ") + property + " FROM Win32_PhysicalMemory WHERE " + filter));
            EXPECT_EQ(machine.Asked("wmi"), asked);
        }
    }
}

TEST(MemoryTest, AnswersByCode) {
    const std::string where = " FROM Win32_PhysicalMemory WHERE BankLabel='BANK 0'";
    Machine machine(Memory({"DIMM 0"}, {"BANK 0"}));
    Json& queries = machine.profile.doc()["wmi"][kCimv2]["queries"];
    const std::tuple<uint32_t, const char*, Json, uint32_t, std::optional<std::string>> cases[] = {
        {2, "Manufacturer", "Samsung  ", 64, "Samsung  "},  // vendor blanks are passed through
        {3, "SerialNumber", "1234ABCD", 8, std::nullopt},   // one spare byte, never written
        {3, "SerialNumber", "1234ABCD", 9, "1234ABCD"},
        {4, "PartNumber", "", 64, std::nullopt},
        {5, "Capacity", "8589934592", 1, Bytes(8192, 8)},  // 8 bytes whatever the size
        {5, "Capacity", "17179869184 bytes", 1, Bytes(16384, 8)},
        {5, "Capacity", "1048576", 8, Bytes(1, 8)},
        {5, "Capacity", "1048575", 8, std::nullopt},
        {5, "Capacity", "abc", 8, std::nullopt},
        {6, "ConfiguredClockSpeed", 3200, 1, Bytes(3200, 4)},  // 4 bytes whatever the size
        {6, "ConfiguredClockSpeed", 0, 4, std::nullopt},
        {6, "ConfiguredClockSpeed", 0xFFFFFFFFu, 4, std::nullopt},
    };
    for (const auto& [code, property, value, size, answer] : cases) {
        SCOPED_TRACE(std::string(property) + " " + value.dump());
        queries[std::string("SELECT ") + property + where] = Rows(property, {value});
        EXPECT_EQ(Query(0, code, size, code == 5 ? 8 : code == 6 ? 4 : 0), answer);
    }
}

TEST(MemoryTest, SlotListSplitsAtEverySeparator) {
    const std::pair<std::vector<Json>, std::vector<std::optional<std::string>>> cases[] = {
        {{"A", "", "B"}, {"A", std::nullopt, "B"}},  // an empty identifier keeps its place
        {{"A;"}, {"A"}},
        {{"A;;B;"}, {"A", std::nullopt, "B"}},
        {{""}, {}},
        {{}, {}},
    };
    for (const auto& [banks, slots] : cases) {
        SCOPED_TRACE(Json(banks).dump());
        Machine machine(Memory({"DIMM 0"}, banks));
        EXPECT_EQ(AskNumber<uint32_t>(Module(9, 0), 4, 4), slots.empty() ? std::nullopt : std::optional(uint32_t(slots.size())));
        for (uint32_t i = 0; i < slots.size(); ++i) EXPECT_EQ(Query(i, 1), slots[i]);
        EXPECT_EQ(Query(static_cast<uint32_t>(slots.size()), 1), std::nullopt);
    }
}

TEST(MemoryTest, InitListsEveryModuleWithItsIndexAndEntriesOutsideItAreRefused) {
    void* list = &list;
    for (const Json& none : {Memory({}, {}), Json::object()}) {  // no modules; no WMI at all
        Machine machine(none);
        EXPECT_EQ(MmInit(&list) + HalInit(HAL_CLASS_MEMORY, &list), 0u);
        EXPECT_EQ(list, &list);
        EXPECT_EQ(Query(0, 0, 2), std::nullopt) << "no count, nothing written";
    }
    Machine machine(Memory({"DIMM 0", "DIMM 1", "DIMM 2"}, {"BANK 0", "BANK 1", "BANK 2"}));
    EXPECT_EQ(MmInit(nullptr), 0u);
    ASSERT_EQ(HalInit(HAL_CLASS_MEMORY, &list), 1u);
    const auto* words = static_cast<const uint32_t*>(list);
    EXPECT_EQ(words[0], 56u);
    EXPECT_EQ(words[1], 3u);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(words[2 + 4 * i + 2], i);
    // An entry goes back in as it is, directly or through the Hal API.
    void* third = static_cast<char*>(list) + 8 + 32;
    EXPECT_EQ(Ask([third](void* b, uint32_t s, uint32_t* w) { return HalQueryInformation(13, third, 1, b, s, w); }, 7),
              "BANK 2");
    torvex::test::FreeRecord(list);

    EXPECT_EQ(AskNumber<uint32_t>(Module(3, 0), 4, 4), 3u) << "code 0 needs no valid entry";
    // Too small: the bytes it has are zeroed, and the call fails without a count.
    uint8_t buffer[4] = {0xAA, 0xAA, 0xAA, 0xAA};
    uint32_t written = kUntouched;
    EXPECT_EQ(MmQueryInformation(nullptr, 0, buffer, 2, &written), 0u);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 4), (std::vector<uint8_t>{0, 0, 0xAA, 0xAA}));
    EXPECT_EQ(written, kUntouched);
    for (uint32_t code = 1; code <= 7; ++code) {
        EXPECT_EQ(Query(3, code), std::nullopt) << code << ": index equal to the count";
        EXPECT_EQ(Query(0xFFFFFFFF, code), std::nullopt) << code;
        EXPECT_EQ(Ask([code](void* b, uint32_t s, uint32_t* w) { return MmQueryInformation(nullptr, code, b, s, w); }, 8),
                  std::nullopt) << code;
    }
}

// Wine describes one module; its DeviceLocator "DIMM 0" names no channel, so
// the module is keyed by its bank label.
TEST(MemoryOnWine, OneModuleWithCapacityAndClock) {
    void* list = nullptr;
    ASSERT_EQ(MmInit(&list), 1u);
    const auto* words = static_cast<const uint32_t*>(list);
    EXPECT_EQ(words[0], 24u);
    ASSERT_EQ(words[1], 1u);
    const uint32_t index = words[4];
    torvex::test::FreeRecord(list);
    EXPECT_EQ(Query(index, 1), "BANK 0");
    EXPECT_NE(AskNumber<uint64_t>(Module(index, 5), 8, 8).value_or(0), 0u);
    EXPECT_NE(AskNumber<uint32_t>(Module(index, 6), 4, 4).value_or(0), 0u);
}

}  // namespace
