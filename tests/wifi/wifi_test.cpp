// Wi-Fi radio (class 1) against a fake Native Wifi service, and against Wine's own.
#include <windows.h>
#include <wlanapi.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "support/fake_wlan.h"
#include "support/torvex_test.h"

using torvex::test::DebugCapture;
using torvex::test::FakeWlan;
using torvex::test::MakeWlanInterface;
using torvex::test::ImportPatch;
using torvex::test::Redirect;

namespace {

class WifiTest : public ::testing::Test {
protected:
    void SetUp() override {
        wlan.interfaces = {MakeWlanInterface(1, L"Radio One", wlan_interface_state_connected),
                           MakeWlanInterface(7, L"Radio Two", wlan_interface_state_disconnected)};
        wlan.radio.dwNumberOfPhys = 2;
        wlan.radio.PhyRadioState[0].dwPhyIndex = 0;
        wlan.radio.PhyRadioState[0].dot11SoftwareRadioState = dot11_radio_state_off;
        wlan.radio.PhyRadioState[0].dot11HardwareRadioState = dot11_radio_state_on;
    }
    void TearDown() override {
        EXPECT_EQ(wlan.outstanding, 0) << "a Native Wifi block was not freed";
    }

    HalWifiRecord* Init() {
        void* out = nullptr;
        EXPECT_EQ(HalInit(HAL_CLASS_WIFI, &out), 1u);
        return static_cast<HalWifiRecord*>(out);
    }

    FakeWlan wlan;
    DebugCapture debug;
};

TEST_F(WifiTest, InitSnapshotsEveryInterfaceBehindTheClientHandle) {
    HalWifiRecord* record = Init();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(wlan.openedVersion, 2u);
    EXPECT_EQ(record->size, 532u * 2 + 16);
    EXPECT_EQ(record->count, 2u);
    EXPECT_EQ(record->clientHandle, wlan.client);
    for (size_t i = 0; i < 2; ++i)
        EXPECT_EQ(std::memcmp(&record->interfaces[i], &wlan.interfaces[i], 532), 0) << "slot " << i;
    EXPECT_TRUE(wlan.closed.empty()) << "the handle stays open in the record";
    EXPECT_TRUE(debug.Messages().empty());
    std::free(record);
}

TEST_F(WifiTest, InitWithoutInterfacesGivesAHeaderOnlyRecord) {
    wlan.interfaces.clear();
    HalWifiRecord* record = Init();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->size, 16u);
    EXPECT_EQ(record->count, 0u);
    std::free(record);
}

TEST_F(WifiTest, InitFailuresReportOnTheDebuggerAndLeaveOutUntouched) {
    void* const untouched = reinterpret_cast<void*>(0xABCD);
    struct Case {
        DWORD openResult;
        HANDLE client;
        DWORD enumResult;
        const wchar_t* message;
        size_t closes;
    };
    const Case cases[] = {
        {1062, reinterpret_cast<HANDLE>(0x5150), 0, L"[WifiInit] WlanOpenHandle Error Result:1062(WifiInit)\n", 0},
        {0, nullptr, 0, L"[WifiInit] WlanOpenHandle Error Result:0(WifiInit)\n", 0},
        {0, reinterpret_cast<HANDLE>(0x5150), 5, L"[WifiInit] WlanEnumInterfaces Error Result:5(WifiInit)\n", 1},
    };
    for (const Case& c : cases) {
        wlan.openResult = c.openResult;
        wlan.client = c.client;
        wlan.enumResult = c.enumResult;
        wlan.closed.clear();
        debug.Clear();
        void* out = untouched;
        EXPECT_EQ(HalInit(HAL_CLASS_WIFI, &out), 0u) << c.message;
        EXPECT_EQ(out, untouched);
        EXPECT_EQ(debug.Messages(), std::vector<std::wstring>{c.message});
        EXPECT_EQ(wlan.closed.size(), c.closes);
    }
    EXPECT_EQ(HalInit(HAL_CLASS_WIFI, nullptr), 0u);
}

TEST_F(WifiTest, QueryReturnsTheFirstTwelveBytesOfTheRadioStateOfTheFirstInterface) {
    HalWifiRecord* record = Init();
    uint8_t buffer[16];
    std::memset(buffer, 0xEE, sizeof(buffer));
    uint32_t returned = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_WIFI, record, HAL_WIFI_RADIO_STATE, buffer, sizeof(buffer), &returned),
              1u);
    EXPECT_EQ(returned, 12u);
    EXPECT_EQ(std::memcmp(buffer, &wlan.radio, 12), 0);
    EXPECT_EQ(buffer[12], 0xEE) << "nothing past the 12-byte block";
    ASSERT_TRUE(wlan.queriedInterface.has_value());
    EXPECT_EQ(std::memcmp(&*wlan.queriedInterface, &wlan.interfaces[0].InterfaceGuid, sizeof(GUID)), 0);
    std::free(record);
}

TEST_F(WifiTest, QueryRefusalsLeaveTheBufferUntouched) {
    HalWifiRecord* record = Init();
    uint8_t buffer[12];
    uint32_t returned = 77;
    struct Case {
        void* record;
        uint32_t code;
        uint32_t size;
        bool withBuffer;
        bool withReturned;
    };
    const Case cases[] = {
        {record, 0, 11, true, true},  {record, 1, 12, true, true},   {nullptr, 0, 12, true, true},
        {record, 0, 12, false, true}, {record, 0, 12, true, false},
    };
    for (const Case& c : cases) {
        std::memset(buffer, 0xEE, sizeof(buffer));
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_WIFI, c.record, c.code, c.withBuffer ? buffer : nullptr, c.size,
                                      c.withReturned ? &returned : nullptr),
                  0u);
        EXPECT_EQ(buffer[0], 0xEE);
        EXPECT_EQ(returned, 77u);
    }
    EXPECT_FALSE(wlan.queriedInterface.has_value()) << "refusals come before the platform call";
    std::free(record);
}

TEST_F(WifiTest, QueryOfAClosedRecordIsRefused) {
    HalWifiRecord* record = Init();
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_WIFI, record), 1u);
    EXPECT_EQ(record->clientHandle, nullptr);
    EXPECT_EQ(wlan.closed, std::vector<HANDLE>{wlan.client});
    HalWifiRadioState state{};
    uint32_t returned = 0;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_WIFI, record, 0, &state, sizeof(state), &returned), 0u);
    std::free(record);
}

TEST_F(WifiTest, QueryFailureAndMissingDataAreReported) {
    HalWifiRecord* record = Init();
    uint8_t buffer[20];
    uint32_t returned = 0;

    wlan.queryResult = ERROR_ACCESS_DENIED;
    std::memset(buffer, 0xEE, sizeof(buffer));
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_WIFI, record, 0, buffer, sizeof(buffer), &returned), 0u);
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(debug.Messages(),
              std::vector<std::wstring>{L"[WifiQueryInformation] WlanQueryInterface <wlan_intf_opcode_radio_state> "
                                        L"Error:5(WifiQueryInformation)\n"});

    // No data block: the whole buffer is zero-filled and the call still succeeds.
    debug.Clear();
    wlan.queryResult = ERROR_SUCCESS;
    wlan.queryGivesData = false;
    EXPECT_EQ(HalQueryInformation(HAL_CLASS_WIFI, record, 0, buffer, sizeof(buffer), &returned), 1u);
    EXPECT_EQ(returned, 12u);
    for (uint8_t byte : buffer) EXPECT_EQ(byte, 0);
    EXPECT_EQ(debug.Messages(), std::vector<std::wstring>{L"memcpy fail(WifiQueryInformation)\n"});
    std::free(record);
}

TEST_F(WifiTest, SetSwitchesTheSoftwareRadioWithTheBlockItRead) {
    HalWifiRecord* record = Init();
    struct Case {
        DWORD current;
        uint32_t request;
        DWORD expected;
    };
    const Case cases[] = {{dot11_radio_state_off, 5, dot11_radio_state_on},
                          {dot11_radio_state_on, 0, dot11_radio_state_off}};
    for (const Case& c : cases) {
        wlan.radio.PhyRadioState[0].dot11SoftwareRadioState = static_cast<DOT11_RADIO_STATE>(c.current);
        wlan.setCalls = 0;
        uint32_t value = c.request;
        EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 0, &value, 4, nullptr, 0), 1u);
        ASSERT_EQ(wlan.setCalls, 1);
        EXPECT_EQ(wlan.setSize, 12u);
        EXPECT_EQ(wlan.setBlock.dwPhyIndex, 0u);
        EXPECT_EQ(static_cast<DWORD>(wlan.setBlock.dot11SoftwareRadioState), c.expected);
        // The third word carries PHY 0's current software state, as read.
        EXPECT_EQ(static_cast<DWORD>(wlan.setBlock.dot11HardwareRadioState), c.current);
    }
    EXPECT_TRUE(debug.Messages().empty());
    std::free(record);
}

TEST_F(WifiTest, SetToTheCurrentStateMakesNoPlatformCall) {
    HalWifiRecord* record = Init();
    wlan.radio.PhyRadioState[0].dot11SoftwareRadioState = dot11_radio_state_on;
    uint32_t on = 1;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 0, &on, 4, nullptr, 0), 1u);
    EXPECT_EQ(wlan.setCalls, 0);
    EXPECT_EQ(debug.Messages(), std::vector<std::wstring>{L"[WifiSetInformation] state.dot11HardwareRadioState == "
                                                          L"state.dot11SoftwareRadioState(WifiSetInformation)\n"});
    std::free(record);
}

TEST_F(WifiTest, AFailedSwitchIsStillReportedAsSuccess) {
    HalWifiRecord* record = Init();
    wlan.setResult = ERROR_ACCESS_DENIED;
    uint32_t on = 1;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 0, &on, 4, nullptr, 0), 1u);
    EXPECT_EQ(debug.Messages(),
              std::vector<std::wstring>{L"[WifiSetInformation] WlanSetInterface Result:5 wlan_intf_opcode_radio_state "
                                        L"dot11HardwareRadioState:2 dot11SoftwareRadioState:1(WifiSetInformation)\n"});
    std::free(record);
}

TEST_F(WifiTest, SetRefusals) {
    HalWifiRecord* record = Init();
    uint32_t on = 1;
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 1, &on, 4, nullptr, 0), 0u) << "unknown code";
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 0, &on, 3, nullptr, 0), 0u) << "short input";
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, nullptr, 0, &on, 4, nullptr, 0), 0u) << "no record";
    EXPECT_EQ(wlan.setCalls, 0);

    // A failing state read stops the set and says so.
    wlan.queryResult = ERROR_NOT_FOUND;
    debug.Clear();
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 0, &on, 4, nullptr, 0), 0u);
    EXPECT_EQ(wlan.setCalls, 0);
    const auto messages = debug.Messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1],
              L"[WifiSetInformation] HalQueryInformation <WIFI_RADIO_STATE> Error:0(WifiSetInformation)\n");
    std::free(record);
}

// Wine's Native Wifi service has no wireless interface.
TEST(WifiOnWine, InitGivesAnEmptyRecordWithAnOpenClient) {
    void* out = nullptr;
    ASSERT_EQ(HalInit(HAL_CLASS_WIFI, &out), 1u);
    auto* record = static_cast<HalWifiRecord*>(out);
    EXPECT_EQ(record->size, 16u);
    EXPECT_EQ(record->count, 0u);
    EXPECT_NE(record->clientHandle, nullptr);
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_WIFI, record), 1u);
    EXPECT_EQ(record->clientHandle, nullptr);
    std::free(record);
}

}  // namespace
