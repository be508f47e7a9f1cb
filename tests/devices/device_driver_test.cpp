// Device drivers (class 20): problem devices and their facts from
// Win32_PnPEntity over simulated WMI, and Wine's own.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

namespace torvex::test {
namespace {

const std::string kProblemQuery = "SELECT Caption FROM Win32_PnPEntity WHERE ConfigManagerErrorCode !=0";
std::string Asked(const std::string& query) { return "ROOT\\CIMV2 \"" + query + "\""; }

class DeviceDriverTest : public ::testing::Test {
protected:
    void TearDown() override { ExpectNothingHeld(); }
    // ROOT\CIMV2 answers the query with these rows, and nothing else.
    void Answer(const std::string& query, const Json& rows) {
        machine.profile.doc()["wmi"]["ROOT\\CIMV2"]["queries"] = {{query, {{"rows", rows}}}};
        machine.trace.Clear();
    }
    // HalInit(20)'s list: size, count, captions (an empty one as its whole field); none when refused.
    std::vector<std::wstring> List(const std::vector<std::string>& captions) {
        Json rows = Json::array();
        for (const std::string& caption : captions) rows.push_back({{"Caption", caption}});
        Answer(kProblemQuery, rows);
        void* out = reinterpret_cast<void*>(0x1234);
        if (HalInit(HAL_CLASS_DRIVER, &out) == 0) {
            EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
            return {};
        }
        uint32_t header[2];
        std::memcpy(header, out, 8);
        std::vector<std::wstring> list = {std::to_wstring(header[0]), std::to_wstring(header[1])};
        for (uint32_t i = 0; i < header[1]; ++i) {
            const auto* field = reinterpret_cast<const wchar_t*>(static_cast<uint8_t*>(out) + 8 + 520 * i);
            list.emplace_back(field, wcsnlen(field, 260) != 0 ? wcsnlen(field, 260) : 260);
        }
        torvex::test::FreeRecord(out);
        return list;
    }
    SimulatedMachine machine{Json{{"wmi", {{"ROOT\\CIMV2", {{"queries", Json::object()}}}}}}};
};

TEST_F(DeviceDriverTest, OneCaptionFieldPerProblemDeviceSplitAtEverySeparator) {
    EXPECT_EQ(List({"A", "B"}), (std::vector<std::wstring>{L"1048", L"2", L"A", L"B"}));
    const std::wstring y(259, L'y');
    EXPECT_EQ(List({"Bad;Device", std::string(300, 'x'), std::string(259, 'y'), "Last;"}),
              (std::vector<std::wstring>{L"2608", L"5", L"Bad", L"Device", std::wstring(260, L'\0'), y, L"Last"}))
        << "a caption that does not fit is all zeros";
    // Texts are joined before they are cut: an empty one vanishes while nothing precedes it and stays a caption after.
    const std::vector<std::wstring> joined = List({"", "A", "", "B;", ""});
    ASSERT_EQ(joined.size(), 6u);
    EXPECT_EQ(std::vector<std::wstring>({joined[0], joined[1], joined[2], joined[4]}),
              (std::vector<std::wstring>{L"2088", L"4", L"A", L"B"}));
    EXPECT_TRUE(List({}).empty()) << "no problem device";
    EXPECT_EQ(DeviceDriverInit(nullptr), 0u);
}

TEST_F(DeviceDriverTest, TextFactsAskWithTheCaptionAndNeedRoomForATerminator) {
    wchar_t caption[] = L"Unknown USB Device";
    const std::pair<uint32_t, const char*> cases[] = {{HAL_DRIVER_DEVICE_ID, "DeviceID"}, {HAL_DRIVER_CLASS_GUID, "ClassGuid"},
        {HAL_DRIVER_MANUFACTURER, "Manufacturer"}, {HAL_DRIVER_SERVICE, "Service"}, {HAL_DRIVER_STATUS, "Status"}};
    for (const auto& [code, property] : cases) {
        const std::string query = "SELECT " + std::string(property) + " FROM Win32_PnPEntity WHERE Caption='Unknown USB Device'";
        Answer(query, {{{property, "value-" + std::to_string(code)}}});
        char buffer[32];
        std::memset(buffer, '#', sizeof(buffer));
        uint32_t written = 0xBAD;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, code, buffer, 7, &written), 0u) << "7 == length";
        EXPECT_TRUE(buffer[0] == '#' && written == 0xBADu) << property;
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, code, buffer, 8, &written), 1u) << property;
        EXPECT_EQ(std::string(buffer, 8), "value-" + std::to_string(code) + "#");
        EXPECT_EQ(written, 7u);
        Answer(query, {{{property, ""}}});
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, code, buffer, 32, &written), 0u) << "an empty answer";
        EXPECT_EQ(written, 7u);
    }
}

TEST_F(DeviceDriverTest, ErrorCodeLeavesWrittenAlone) {
    wchar_t caption[] = L"Camera";
    const std::string query = "SELECT ConfigManagerErrorCode FROM Win32_PnPEntity WHERE Caption='Camera'";
    for (const auto& [answer, result] : {std::pair{Json(28), 1u}, {Json(0xFFFFFFFFu), 0u}, {Json(nullptr), 0u}}) {
        Answer(query, {{{"ConfigManagerErrorCode", answer}}});
        uint32_t value = 77, written = 55;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_ERROR_CODE, &value, 3, &written), 0u);
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_ERROR_CODE, &value, 4, &written), result);
        EXPECT_TRUE(value == (result != 0 ? 28u : 77u) && written == 55) << answer;
    }
    // The caption goes into the query as it is: an apostrophe breaks it.
    wchar_t other[] = L"It's broken";
    uint32_t value = 77, written = 55;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, other, HAL_DRIVER_STATUS, &value, 4, &written), 0u);
    EXPECT_EQ(machine.Asked("wmi").back(), Asked("SELECT Status FROM Win32_PnPEntity WHERE Caption='It's broken'"));
    EXPECT_TRUE(value == 77 && written == 55);
}

TEST_F(DeviceDriverTest, TheCaptionNeedsNoQueryAndRefusalsAskNothing) {
    wchar_t caption[] = L"Unknown USB Device", empty[] = L"";
    char buffer[32];
    uint32_t written = 0xBAD;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_CAPTION, buffer, 19, &written), 1u);
    EXPECT_EQ(std::string(buffer, written), "Unknown USB Device");
    std::memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(DeviceDriverQueryInformation(caption, HAL_DRIVER_CAPTION, buffer, 18, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(nullptr, 0, buffer, 32, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(empty, 0, buffer, 32, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(caption, 7, buffer, 32, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(caption, 0xFFFFFFFF, buffer, 32, &written), 0u);
    for (uint32_t code = 0; code <= 6; ++code) {
        EXPECT_EQ(DeviceDriverQueryInformation(caption, code, nullptr, 32, &written), 0u) << code;
        EXPECT_EQ(DeviceDriverQueryInformation(caption, code, buffer, 32, nullptr), 0u) << code;
    }
    EXPECT_EQ(std::string(buffer, 32), std::string(32, '#'));
    EXPECT_EQ(written, 18u);
    EXPECT_TRUE(machine.Asked("wmi").empty());
}

// Wine's WMI refuses the problem-device query.
TEST(DeviceDriverOnWine, NothingIsListedAndQueriesFailCleanly) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_DRIVER, &out), 0u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    wchar_t caption[] = L"No Such Device";
    char buffer[64];
    uint32_t written = 9;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_DEVICE_ID, buffer, 64, &written), 0u);
    EXPECT_EQ(written, 9u);
}

}  // namespace
}  // namespace torvex::test
