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

std::string Wmi(const std::string& query) { return platform_test::Wmi("ROOT\\CIMV2", query); }

struct FactCase {
    uint32_t code;
    const char* registryValue;  // null: never read from the registry
    const char* query;
    const char* property;
};
const FactCase kFacts[] = {
    {0, "BaseBoardProduct", "SELECT Product FROM Win32_BaseBoard", "Product"},
    {1, "BaseBoardManufacturer", "SELECT Manufacturer FROM Win32_BaseBoard", "Manufacturer"},
    {2, "BaseBoardVersion", "SELECT Version FROM Win32_BaseBoard", "Version"},
    {3, nullptr, "SELECT SerialNumber FROM Win32_BaseBoard", "SerialNumber"},
    {4, "BIOSVersion", "SELECT SMBIOSBIOSVersion FROM Win32_BIOS", "SMBIOSBIOSVersion"},
    {5, "BIOSVendor", "SELECT Manufacturer FROM Win32_BIOS", "Manufacturer"},
};

TEST(MainboardTest, RegistryAnswersFirstAndWmiWhenItIsEmptyOrMissing) {
    for (const FactCase& c : kFacts) {
        SCOPED_TRACE(c.code);
        const Json wmi = {{c.query, {{c.property, "WMI answer  "}}}};
        if (c.registryValue != nullptr) {
            Machine machine(Board({{c.registryValue, " From registry "}}, wmi));
            EXPECT_EQ(Ask(c.code), " From registry ") << "passed through untrimmed";
            EXPECT_TRUE(machine.Asked("wmi").empty());
            EXPECT_EQ(machine.Calls("registry").front(),
                      "HKLM\\" + std::string(kBiosKey) + " [access 0x20119] -> opened") << "64-bit view, read only";
        }
        for (const Json& bios : {Json::object(), Json{{c.registryValue ? c.registryValue : "BIOSVendor", ""}}}) {
            Machine machine(Board(bios, wmi));
            EXPECT_EQ(Ask(c.code), "WMI answer  ");
            EXPECT_EQ(machine.Asked("wmi"), std::vector<std::string>{Wmi(c.query)});
            if (c.registryValue == nullptr) {
                EXPECT_TRUE(machine.Asked("registry").empty());
            }
        }
        Machine nothing(Board(Json::object()));
        EXPECT_EQ(Ask(c.code), std::nullopt) << "nothing anywhere";
    }
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
        Machine machine(Board({{"BIOSReleaseDate", "5/17/2023"}},
                                         {{"SELECT ReleaseDate FROM Win32_BIOS", {{"ReleaseDate", date}}}}));
        EXPECT_EQ(Ask(6), answer);
        EXPECT_EQ(machine.Asked("wmi"), std::vector<std::string>{Wmi("SELECT ReleaseDate FROM Win32_BIOS")});
    }
}

TEST(MainboardTest, AnswerNeedsRoomForATerminatorItNeverWrites) {
    Machine machine(Board({{"BaseBoardProduct", "X570-PRO"}, {"BIOSReleaseDate", "05/17/2023"}}));
    EXPECT_EQ(Ask(0, 8), std::nullopt);
    EXPECT_EQ(Ask(0, 9), "X570-PRO");
    EXPECT_EQ(Ask(6, 8), std::nullopt);
    EXPECT_EQ(Ask(6, 9), "20230517");
    EXPECT_EQ(Ask(0, 0), std::nullopt);
}

TEST(MainboardTest, Refusals) {
    Machine machine(Board({{"BaseBoardProduct", "Board"}}));
    char buffer[16];
    uint32_t written = 0;
    EXPECT_EQ(MbQueryInformation(7, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MbQueryInformation(0xFFFFFFFF, buffer, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MbQueryInformation(0, nullptr, sizeof(buffer), &written), 0u);
    EXPECT_EQ(MbQueryInformation(0, buffer, sizeof(buffer), nullptr), 0u);

    // Reached through the Hal API too; the device argument is dropped.
    ASSERT_EQ(HalQueryInformation(4, reinterpret_cast<void*>(0x1234), 0, buffer, sizeof(buffer), &written), 1u);
    EXPECT_EQ(std::string(buffer, written), "Board");

    std::memset(buffer, '#', sizeof(buffer));
    written = 0xBAD;
    for (uint32_t code = 0; code <= 7; ++code) EXPECT_EQ(MbSetInformation(code, buffer, sizeof(buffer), &written), 0u);
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
        EXPECT_EQ(MbQueryInformation(code, buffer, sizeof(buffer), &written), 1u);
        EXPECT_GT(written, 0u);
    }
}

}  // namespace
