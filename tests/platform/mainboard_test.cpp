// Mainboard and BIOS (class 4) over simulated machines, and on Wine's own.
#include "platform/platform_test.h"

using namespace platform_test;

namespace {

constexpr char kBiosKey[] = "HARDWARE\\DESCRIPTION\\System\\BIOS";

// A machine whose BIOS key holds these texts and whose WMI answers one
// property per query, in one row.
Json Board(const Json& bios, const Json& wmi = Json::object()) {
    Json values = Json::object(), queries = Json::object();
    for (const auto& [name, text] : bios.items()) values[name] = {{"sz", text}};
    for (const auto& [query, row] : wmi.items()) queries[query] = {{"rows", Json::array({row})}};
    return {{"registry", {{kBiosKey, values}}}, {"wmi", {{"ROOT\\CIMV2", {{"queries", queries}}}}}};
}

// The answer as text, or nullopt when the call failed (then nothing was written).
std::optional<std::string> Ask(uint32_t code, uint32_t size = 64) {
    return platform_test::Ask([code](void* b, uint32_t s, uint32_t* w) { return MbQueryInformation(code, b, s, w); }, size);
}

TEST(MainboardTest, ReleaseDateFromTheRegistryForm) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"05/17/2023", "20230517"},
        {"12-31-1999", "19991231"},  // the separators are not looked at
        {"ab/cd/efgh", "efghabcd"},  // nor are the digits checked
        {"5/17/2023", std::nullopt},
        {"05/17/20231", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [registry, answer] : cases) {
        SCOPED_TRACE(registry);
        Machine machine(Board({{"BIOSReleaseDate", registry}}));
        EXPECT_EQ(Ask(6), answer);
        EXPECT_TRUE(!answer || (!Ask(6, 8) && Ask(6, 9) == answer)) << "one spare byte";
        EXPECT_EQ(machine.Asked("wmi").empty(), answer.has_value());
    }
}

TEST(MainboardTest, ReleaseDateFromTheWmiForm) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"20230517000000.000000+000", "20230517"},
        {"   20230517000000.000000+000", "20230517"},
        {"202305170", "20230517"},    // nine characters: the shortest accepted
        {"20230517", std::nullopt},   // eight: refused on purpose
        {"  20230517", std::nullopt},
        {"    ", std::nullopt},
        {"\t20230517000000", "\t2023051"},  // only the blank is skipped
    };
    for (const auto& [date, answer] : cases) {
        SCOPED_TRACE(date);
        Machine machine(Board({{"BIOSReleaseDate", "5/17/2023"}}, {{"SELECT ReleaseDate FROM Win32_BIOS", {{"ReleaseDate", date}}}}));
        EXPECT_EQ(Ask(6), answer);
        EXPECT_EQ(machine.Asked("wmi"), Lines{Wmi("ROOT\\CIMV2", "SELECT ReleaseDate FROM Win32_BIOS")});
    }
}

TEST(MainboardTest, ReachedThroughTheHalApiAndNothingIsSet) {
    Machine machine(Board({{"BaseBoardProduct", "Board"}}));
    auto hal = [](void* b, uint32_t s, uint32_t* w) { return HalQueryInformation(4, &s, 0, b, s, w); };
    EXPECT_EQ(platform_test::Ask(hal, 16), "Board") << "the device is dropped";
    uint32_t value = 7, written = kUntouched;
    for (uint32_t code = 0; code <= 7; ++code) EXPECT_EQ(MbSetInformation(code, &value, 4, &written), 0u);
    EXPECT_TRUE(value == 7 && written == kUntouched);
    EXPECT_EQ(MbInit(), 1u);
}

// Wine's BIOS key holds empty values, so every answer comes from its WMI.
TEST(MainboardOnWine, EmptyRegistryValuesLetWmiAnswer) {
    const std::string date = Ask(6, 260).value_or("");
    EXPECT_TRUE(date.size() == 8 && date.find_first_not_of("0123456789") == std::string::npos) << date;
    for (uint32_t code : {0u, 1u, 4u, 5u}) EXPECT_NE(Ask(code, 260).value_or(""), "") << code;
}

}  // namespace
