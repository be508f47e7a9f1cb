// Device drivers (class 20): problem devices from the fake WMI, and Wine's own.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "support/fake_wmi.h"
#include "support/torvex_test.h"

using torvex::test::FakeWmi;
using torvex::test::WmiRow;
using torvex::test::WmiValue;

namespace {

const std::wstring kCimv2 = L"ROOT\\CIMV2";
const std::wstring kProblemQuery = L"SELECT Caption FROM Win32_PnPEntity WHERE ConfigManagerErrorCode !=0";

class DeviceDriverTest : public ::testing::Test {
protected:
    void Captions(const std::vector<std::wstring>& captions) {
        std::vector<WmiRow> rows;
        for (const auto& caption : captions) rows.push_back({{L"Caption", WmiValue::Str(caption)}});
        wmi.On(kCimv2, kProblemQuery, rows);
    }
    HalDriverProblemList* Init() {
        void* out = nullptr;
        EXPECT_EQ(HalInit(HAL_CLASS_DRIVER, &out), 1u);
        return static_cast<HalDriverProblemList*>(out);
    }
    void TearDown() override { EXPECT_EQ(wmi.LiveObjects(), 0); }
    FakeWmi wmi;
};

TEST_F(DeviceDriverTest, TheListHoldsOneCaptionFieldPerProblemDevice) {
    Captions({L"A", L"B"});
    HalDriverProblemList* list = Init();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->size, 1048u);
    EXPECT_EQ(list->count, 2u);
    auto* bytes = reinterpret_cast<uint8_t*>(list);
    EXPECT_EQ(std::wstring(reinterpret_cast<wchar_t*>(bytes + 8)), L"A");
    EXPECT_EQ(std::wstring(reinterpret_cast<wchar_t*>(bytes + 528)), L"B");
    std::free(list);
}

TEST_F(DeviceDriverTest, CaptionsSplitAtEverySeparatorAndTooLongOnesAreZeroed) {
    Captions({L"Bad;Device", std::wstring(300, L'x'), std::wstring(259, L'y'), L"Last;"});
    HalDriverProblemList* list = Init();
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count, 5u) << "Bad, Device, the long one, the 259 one, Last";
    EXPECT_EQ(std::wstring(list->captions[0]), L"Bad");
    EXPECT_EQ(std::wstring(list->captions[1]), L"Device");
    for (wchar_t c : list->captions[2]) ASSERT_EQ(c, L'\0') << "a caption that does not fit is all zeros";
    EXPECT_EQ(std::wstring(list->captions[3]), std::wstring(259, L'y'));
    EXPECT_EQ(std::wstring(list->captions[4]), L"Last");
    std::free(list);
}

TEST_F(DeviceDriverTest, NoProblemDeviceLeavesOutUntouched) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_DRIVER, &out), 0u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(DeviceDriverInit(nullptr), 0u);
}

TEST_F(DeviceDriverTest, TextFactsUseTheCaptionInTheirQuery) {
    wchar_t caption[] = L"Unknown USB Device";
    const std::pair<uint32_t, const wchar_t*> cases[] = {
        {HAL_DRIVER_DEVICE_ID, L"DeviceID"}, {HAL_DRIVER_CLASS_GUID, L"ClassGuid"},
        {HAL_DRIVER_MANUFACTURER, L"Manufacturer"}, {HAL_DRIVER_SERVICE, L"Service"}, {HAL_DRIVER_STATUS, L"Status"}};
    for (const auto& [code, property] : cases) {
        const std::wstring query =
            std::wstring(L"SELECT ") + property + L" FROM Win32_PnPEntity WHERE Caption='Unknown USB Device'";
        wmi.On(kCimv2, query, {{{property, WmiValue::Str(L"value-" + std::to_wstring(code))}}});
        char buffer[32];
        std::memset(buffer, '#', sizeof(buffer));
        uint32_t written = 0;
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, code, buffer, 7, &written), 0u) << "7 == length";
        ASSERT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, code, buffer, 8, &written), 1u) << property;
        EXPECT_EQ(std::string(buffer, 8), "value-" + std::to_string(code) + "#");
        EXPECT_EQ(written, 7u);
        EXPECT_EQ(wmi.Queries().back().text, query);
    }
    char buffer[32] = {};
    uint32_t written = 0;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_CAPTION, buffer, 19, &written), 1u);
    EXPECT_EQ(std::string(buffer, written), "Unknown USB Device");
}

TEST_F(DeviceDriverTest, ErrorCodeLeavesWrittenAlone) {
    wchar_t caption[] = L"Camera";
    wmi.On(kCimv2, L"SELECT ConfigManagerErrorCode FROM Win32_PnPEntity WHERE Caption='Camera'",
           {{{L"ConfigManagerErrorCode", WmiValue::U32(28)}}});
    uint32_t value = 0;
    uint32_t written = 55;
    ASSERT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_ERROR_CODE, &value, 4, &written), 1u);
    EXPECT_EQ(value, 28u);
    EXPECT_EQ(written, 55u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_ERROR_CODE, &value, 3, &written), 0u);
    wchar_t other[] = L"It's broken";  // the apostrophe breaks the query: nothing answers
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, other, HAL_DRIVER_ERROR_CODE, &value, 4, &written), 0u);
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, other, HAL_DRIVER_STATUS, &value, 4, &written), 0u);
}

TEST_F(DeviceDriverTest, Refusals) {
    wchar_t caption[] = L"Camera";
    wchar_t empty[] = L"";
    char buffer[16];
    std::memset(buffer, '#', sizeof(buffer));
    uint32_t written = 9;
    EXPECT_EQ(DeviceDriverQueryInformation(nullptr, 0, buffer, 16, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(empty, 0, buffer, 16, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(caption, 7, buffer, 16, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(caption, 0, nullptr, 16, &written), 0u);
    EXPECT_EQ(DeviceDriverQueryInformation(caption, 0, buffer, 16, nullptr), 0u);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(written, 9u);
    EXPECT_TRUE(wmi.Queries().empty());
}

// Wine's WMI refuses the problem-device query.
TEST(DeviceDriverOnWine, NothingIsListedAndQueriesFailCleanly) {
    void* out = reinterpret_cast<void*>(0x1234);
    EXPECT_EQ(HalInit(HAL_CLASS_DRIVER, &out), 0u);
    EXPECT_EQ(out, reinterpret_cast<void*>(0x1234));
    wchar_t caption[] = L"No Such Device";
    char buffer[64];
    uint32_t written = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_DRIVER, caption, HAL_DRIVER_DEVICE_ID, buffer, 64, &written), 0u);
}

}  // namespace
