// Wi-Fi radio (class 1): snapshot of the wireless interfaces, radio state of
// the first one, and switching its software radio through Native Wifi.
#include <windows.h>
#include <wlanapi.h>

#include <cstring>

#include "common/codec.h"
#include "common/debug_message.h"
#include "common/win_resource.h"
#include "torvex.h"
#include "wifi/wifi.h"

namespace {

using torvex::WlanMemory;

constexpr DWORD kClientVersion = 2;
constexpr uint32_t kRadioStateBytes = sizeof(HalWifiRadioState);  // the first 12 bytes of WLAN_RADIO_STATE
constexpr DWORD kRadioOn = 1;   // dot11_radio_state_on
constexpr DWORD kRadioOff = 2;  // dot11_radio_state_off

static_assert(sizeof(WLAN_INTERFACE_INFO) == sizeof(HalWifiInterface), "slot is a WLAN_INTERFACE_INFO");
static_assert(sizeof(GUID) == sizeof(HalGuid), "the interface GUID is the platform's");

HalWifiRecord* AsRecord(void* record) { return static_cast<HalWifiRecord*>(record); }

const GUID* FirstInterface(void* record) {
    return reinterpret_cast<const GUID*>(&AsRecord(record)->interfaces[0].interfaceGuid);
}

// The 12-byte block as WifiSetInformation reads it: the caller's radio-state
// block under the names of a WLAN_PHY_RADIO_STATE. Its "hardware" word is
// therefore PHY 0's current software state, which is what the unchanged-state
// test compares against on purpose.
struct PhyRadioBlock {
    DWORD phyIndex;
    DWORD softwareRadioState;
    DWORD hardwareRadioState;
};
static_assert(sizeof(PhyRadioBlock) == sizeof(WLAN_PHY_RADIO_STATE), "same block as the platform's");

}  // namespace

uint32_t WifiInit(void** out) {
    constexpr const char* kFunction = "WifiInit";
    DWORD negotiated = 0;
    HANDLE opened = nullptr;
    const DWORD result = WlanOpenHandle(kClientVersion, nullptr, &negotiated, &opened);
    if (result != ERROR_SUCCESS || opened == nullptr) {
        torvex::DebugReport("[WifiInit] WlanOpenHandle Error Result:", result, kFunction);
        return 0;
    }
    torvex::WlanClient client(opened);

    WLAN_INTERFACE_INFO_LIST* rawList = nullptr;
    const DWORD enumerated = WlanEnumInterfaces(client.get(), nullptr, &rawList);
    if (enumerated != ERROR_SUCCESS) {
        torvex::DebugReport("[WifiInit] WlanEnumInterfaces Error Result:", enumerated, kFunction);
        return 0;
    }
    WlanMemory list(rawList);

    const uint32_t count = rawList != nullptr ? rawList->dwNumberOfItems : 0;
    if (!torvex::FitsSizeField(torvex::ListBytes<HalWifiRecord>(count))) return 0;
    auto* record = torvex::NewList<HalWifiRecord>(count);
    if (record == nullptr) {
        torvex::DebugReport("[WifiInit] malloc Error", kFunction);
        return 0;
    }
    *out = record;

    for (uint32_t i = 0; i < count; ++i) {
        if (!torvex::BoundedCopy(&record->interfaces[i], sizeof(HalWifiInterface), &rawList->InterfaceInfo[i],
                                 sizeof(WLAN_INTERFACE_INFO)))
            torvex::DebugReport("[WifiInit] memcpy error", kFunction);
    }
    record->clientHandle = client.release();  // open in the record until HalCloseDevice(1)
    return 1;
}

uint32_t WifiQueryInformation(void* record, uint32_t code, void* buffer, uint32_t size, uint32_t* returned) {
    constexpr const char* kFunction = "WifiQueryInformation";
    if (record == nullptr || buffer == nullptr || returned == nullptr || code != HAL_WIFI_RADIO_STATE ||
        size < kRadioStateBytes || AsRecord(record)->clientHandle == nullptr)
        return 0;

    DWORD dataSize = 0;
    void* rawData = nullptr;
    const DWORD queried = WlanQueryInterface(AsRecord(record)->clientHandle, FirstInterface(record),
                                             wlan_intf_opcode_radio_state, nullptr, &dataSize, &rawData, nullptr);
    if (queried != ERROR_SUCCESS) {
        torvex::DebugReport("[WifiQueryInformation] WlanQueryInterface <wlan_intf_opcode_radio_state> Error:",
                            queried, kFunction);
        return 0;
    }
    WlanMemory data(rawData);
    // A missing data block zero-fills the caller's buffer and still counts as success.
    if (!torvex::BoundedCopy(buffer, size, data.get(), kRadioStateBytes))
        torvex::DebugReport("memcpy fail", kFunction);
    *returned = kRadioStateBytes;
    return 1;
}

uint32_t WifiSetInformation(void* record, uint32_t code, const void* buffer, uint32_t size) {
    constexpr const char* kFunction = "WifiSetInformation";
    if (code != HAL_WIFI_RADIO_STATE || size < sizeof(uint32_t) || buffer == nullptr) return 0;

    PhyRadioBlock block{};
    uint32_t blockSize = 0;
    const uint32_t read = WifiQueryInformation(record, HAL_WIFI_RADIO_STATE, &block, sizeof(block), &blockSize);
    if (read == 0) {
        torvex::DebugReport("[WifiSetInformation] HalQueryInformation <WIFI_RADIO_STATE> Error:",
                            static_cast<int>(read), kFunction);
        return 0;
    }

    uint32_t wanted = 0;
    std::memcpy(&wanted, buffer, sizeof(wanted));
    block.phyIndex = 0;
    block.softwareRadioState = wanted != 0 ? kRadioOn : kRadioOff;
    if (block.hardwareRadioState == block.softwareRadioState) {
        torvex::DebugReport("[WifiSetInformation] state.dot11HardwareRadioState == state.dot11SoftwareRadioState",
                            kFunction);
        return read;
    }

    const DWORD set = WlanSetInterface(AsRecord(record)->clientHandle, FirstInterface(record),
                                       wlan_intf_opcode_radio_state, sizeof(block), &block, nullptr);
    if (set != ERROR_SUCCESS) {
        torvex::DebugMessage()
            .Text("[WifiSetInformation] WlanSetInterface Result:")
            .Value(set)
            .Text(" wlan_intf_opcode_radio_state dot11HardwareRadioState:")
            .Value(static_cast<int>(block.hardwareRadioState))
            .Text(" dot11SoftwareRadioState:")
            .Value(static_cast<int>(block.softwareRadioState))
            .Send(kFunction);
    }
    // A failed switch is reported on the debugger channel only: the caller
    // still sees the result of the state read. Hosts depend on this.
    return read;
}

uint32_t WifiClose(void* record) {
    if (record == nullptr) return 0;
    WlanCloseHandle(AsRecord(record)->clientHandle, nullptr);
    AsRecord(record)->clientHandle = nullptr;
    return 1;
}
