// Wi-Fi radio (class 1) over simulated Native Wifi services, and on Wine's own.
#include <windows.h>
#include <malloc.h>
#include <wlanapi.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>

#include "support/simulated_machine.h"
#include "support/torvex_test.h"

using torvex::test::Json;

namespace {

constexpr GUID kFirst = {0x6B1C3A01, 0x5E2D, 0x4F10, {0x8A, 0x3B, 0x00, 0xAA, 0x00, 0xBB, 0x00, 0x01}};
constexpr GUID kSecond = {0x6B1C3A01, 0x5E2D, 0x4F10, {0x8A, 0x3B, 0x00, 0xAA, 0x00, 0xBB, 0x00, 0x07}};
const std::string kFirstText = "{6B1C3A01-5E2D-4F10-8A3B-00AA00BB0001}";
const std::wstring kQueryError = L"[WifiQueryInformation] WlanQueryInterface <wlan_intf_opcode_radio_state> Error:";
const std::vector<uint32_t> kUntouched(4, 0xEEEEEEEE);

// Two interfaces; PHY 0 of the first one has its radio off.
Json Laptop() {
    Json one = {{"guid", kFirstText}, {"description", "Radio One"}, {"state", "connected"},
                {"radio", {{{"phy", 0}, {"software", "off"}, {"hardware", "on"}}, {{"phy", 1}, {"software", "on"}}}}};
    Json two = {{"guid", "{6B1C3A01-5E2D-4F10-8A3B-00AA00BB0007}"}, {"description", "Radio Two"}, {"state", 4}};
    return {{"wlan", {{"interfaces", {one, two}}}}};
}

// Every test leaves no Wlan memory and, over the suite, no handle behind.
class WifiTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { handles_ = torvex::test::OpenHandleCount(); }
    static void TearDownTestSuite() { EXPECT_EQ(torvex::test::OpenHandleCount(), handles_) << "a handle left open"; }
    void TearDown() override {
        if (record != nullptr) HalCloseDevice(HAL_CLASS_WIFI, record);
        torvex::test::FreeRecord(record);
        torvex::test::ExpectNothingHeld();  // while the machine still counts what it handed out
        machine.reset();
    }
    // Boots the machine (none: Wine's own) and initialises the class on it.
    void Init(const Json& profile) {
        if (!profile.is_null()) machine.emplace(profile);
        void* out = nullptr;
        ASSERT_EQ(HalInit(HAL_CLASS_WIFI, &out), 1u);
        record = static_cast<HalWifiRecord*>(out);
    }
    // The radio-state query into 16 bytes of 0xEE: its result and the 16 bytes.
    std::pair<uint32_t, std::vector<uint32_t>> Query() {
        uint32_t words[4] = {0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE, 0xEEEEEEEE}, returned = 77;
        const uint32_t result = HalQueryInformation(HAL_CLASS_WIFI, record, 0, words, sizeof(words), &returned);
        EXPECT_EQ(returned, result == 1 ? 12u : 77u);
        return {result, std::vector<uint32_t>(words, words + 4)};
    }
    uint32_t Set(uint32_t on) { return HalSetInformation(HAL_CLASS_WIFI, record, 0, &on, 4, nullptr, 0); }

    std::optional<torvex::test::SimulatedMachine> machine;
    HalWifiRecord* record = nullptr;
    torvex::test::DebugCapture debug;
    static inline DWORD handles_ = 0;
};

TEST_F(WifiTest, InitSnapshotsEveryInterfaceBehindTheClientHandle) {
    Init(Laptop());
    EXPECT_TRUE(record->size == 532 * 2 + 16 && record->count == 2) << record->size << " bytes";
    const WLAN_INTERFACE_INFO slots[2] = {{kFirst, L"Radio One", wlan_interface_state_connected},
                                          {kSecond, L"Radio Two", wlan_interface_state_disconnected}};
    EXPECT_EQ(std::memcmp(record->interfaces, slots, sizeof(slots)), 0) << "the platform's entries, as they are";
    EXPECT_EQ(machine->Calls("wlan"),
              (std::vector<std::string>{"open [version 2] -> opened", "interfaces -> 2 interfaces"}));
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_WIFI, record), 1u);
    EXPECT_EQ(record->clientHandle, nullptr);
}

// A machine without wireless interfaces: a 16-byte record, header only (a host
// must not query or set on it: both address the first slot regardless).
TEST_F(WifiTest, AnEmptyRecordIsItsHeaderAlone) {
    Init({{"wlan", {{"interfaces", Json::array()}}}});
    EXPECT_EQ(torvex_ucrt_msize(record), 16u);
    EXPECT_EQ(record->size, 16u);
    EXPECT_EQ(record->count, 0u);
}

TEST_F(WifiTest, InitFailuresReportOnTheDebuggerAndLeaveOutUntouched) {
    const std::tuple<Json, bool, std::wstring> cases[] = {  // the machine, a null client handle, the message
        {Json::object(), false, L"WlanOpenHandle Error Result:1062"},  // no Native Wifi service
        {{{"wlan", {{"open_error", "0x00000005"}}}}, false, L"WlanOpenHandle Error Result:5"},
        {{{"wlan", {{"enum_error", "0x00000490"}}}}, false, L"WlanEnumInterfaces Error Result:1168"},  // the client is closed
        {Laptop(), true, L"WlanOpenHandle Error Result:0"}};
    for (const auto& [profile, nullClient, message] : cases) {
        machine.emplace(profile);
        std::optional<torvex::test::ImportPatch> opens;
        if (nullClient)
            opens.emplace(torvex::test::Redirect("WlanOpenHandle", +[](DWORD, PVOID, PDWORD, PHANDLE client) {
                *client = nullptr;
                return DWORD{0};
            }));
        debug.Clear();
        void* out = &debug;
        EXPECT_EQ(HalInit(HAL_CLASS_WIFI, &out), 0u) << message;
        EXPECT_EQ(out, &debug);
        EXPECT_EQ(debug.Messages(), std::vector<std::wstring>{L"[WifiInit] " + message + L"(WifiInit)\n"});
    }
    EXPECT_EQ(HalInit(HAL_CLASS_WIFI, nullptr), 0u);
}

TEST_F(WifiTest, QueryGivesTheFirstTwelveBytesOfTheFirstInterfacesRadioState) {
    Init(Laptop());
    EXPECT_EQ(Query(), std::make_pair(1u, std::vector<uint32_t>{2, 0, dot11_radio_state_off, 0xEEEEEEEE}));
    EXPECT_EQ(machine->Asked("wlan").back(), "radio state of " + kFirstText);
    auto noData = torvex::test::Redirect("WlanQueryInterface", +[](HANDLE, const GUID*, WLAN_INTF_OPCODE, PVOID,
                                                                   PDWORD, PVOID* data, PWLAN_OPCODE_VALUE_TYPE) {
        *data = nullptr;
        return DWORD{0};
    });
    EXPECT_EQ(Query(), std::make_pair(1u, std::vector<uint32_t>(4, 0))) << "no data: the whole buffer zeroed";
    EXPECT_EQ(debug.Messages(), std::vector<std::wstring>{L"memcpy fail(WifiQueryInformation)\n"});
}

TEST_F(WifiTest, RefusalsComeBeforeThePlatformAndLeaveTheBufferAndCountUntouched) {
    Init(Laptop());
    uint32_t buffer[3] = {7, 7, 7}, returned = 77, on = 1;
    const std::tuple<void*, uint32_t, uint32_t, void*, uint32_t*> queries[] = {  // record, code, size, buffer, count
        {record, 0, 11, buffer, &returned}, {record, 1, 12, buffer, &returned}, {nullptr, 0, 12, buffer, &returned},
        {record, 0, 12, nullptr, &returned}, {record, 0, 12, buffer, nullptr}};
    for (const auto& [device, code, size, out, count] : queries)
        EXPECT_EQ(HalQueryInformation(HAL_CLASS_WIFI, device, code, out, size, count), 0u);
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 1, &on, 4, nullptr, 0), 0u) << "unknown code";
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 0, &on, 3, nullptr, 0), 0u) << "short input";
    EXPECT_EQ(HalSetInformation(HAL_CLASS_WIFI, record, 0, nullptr, 4, nullptr, 0), 0u) << "no input";
    EXPECT_TRUE(buffer[0] == 7 && buffer[1] == 7 && buffer[2] == 7 && returned == 77);
    EXPECT_TRUE(debug.Messages().empty() && machine->Calls("wlan").size() == 2) << "a platform call was made";
    machine->profile.doc()["wlan"]["interfaces"][0]["radio_error"] = 5;
    EXPECT_EQ(Query(), std::make_pair(0u, kUntouched)) << "the platform refuses";
    EXPECT_TRUE(Set(1) == 0 && machine->Calls("wlan").size() == 4) << "the state cannot be read: no switch";
    const std::wstring refused = kQueryError + L"5(WifiQueryInformation)\n";
    EXPECT_EQ(debug.Messages(), (std::vector<std::wstring>{refused, refused,
              L"[WifiSetInformation] HalQueryInformation <WIFI_RADIO_STATE> Error:0(WifiSetInformation)\n"}));
    EXPECT_EQ(HalCloseDevice(HAL_CLASS_WIFI, record), 1u);
    EXPECT_EQ(Query(), std::make_pair(0u, kUntouched)) << "a closed record";
}

// The set writes PHY 0's block back as a WLAN_PHY_RADIO_STATE whose third word is
// the software state it read; the replay follows. A failed switch is only reported.
TEST_F(WifiTest, SetSwitchesTheSoftwareRadioOnlyWhenItChanges) {
    Init(Laptop());
    EXPECT_EQ(Set(5), 1u);
    EXPECT_EQ(Query().second[2], static_cast<uint32_t>(dot11_radio_state_on));
    EXPECT_EQ(Set(0), 1u);
    EXPECT_EQ(Query().second[2], static_cast<uint32_t>(dot11_radio_state_off));
    EXPECT_EQ(Set(0), 1u);
    machine->profile.doc()["wlan"]["interfaces"][0]["set_error"] = "0x00000005";
    EXPECT_EQ(Set(1), 1u);
    const auto calls = machine->Calls("wlan");  // open, interfaces, then each set's read before its switch
    const std::string call = "switch radio of " + kFirstText + " [opcode 4, size 12, words ";
    ASSERT_EQ(calls.size(), 11u) << "no switch to the current state";
    EXPECT_EQ(calls[3], call + "0 1 2] -> switched");
    EXPECT_EQ(calls[6], call + "0 2 1] -> switched");
    EXPECT_EQ(calls[10], call + "0 1 2] -> error 5");
    EXPECT_EQ(debug.Messages(),
              (std::vector<std::wstring>{
                  L"[WifiSetInformation] state.dot11HardwareRadioState == "
                  L"state.dot11SoftwareRadioState(WifiSetInformation)\n",
                  L"[WifiSetInformation] WlanSetInterface Result:5 wlan_intf_opcode_radio_state "
                  L"dot11HardwareRadioState:2 dot11SoftwareRadioState:1(WifiSetInformation)\n"}));
}

// Wine's own Native Wifi service opens and has no wireless interface.
TEST_F(WifiTest, OnWineInitGivesAHeaderOnlyRecordWithAnOpenClient) {
    Init(nullptr);
    EXPECT_TRUE(record->size == 16 && record->count == 0 && record->clientHandle != nullptr);
    EXPECT_EQ(torvex_ucrt_msize(record), 16u);
}

}  // namespace
