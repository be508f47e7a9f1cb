#include "support/fake_wlan.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace torvex::test {
namespace {

FakeWlan* g_wlan = nullptr;

DWORD WINAPI FakeOpen(DWORD version, PVOID, PDWORD negotiated, PHANDLE client) {
    g_wlan->openedVersion = version;
    *negotiated = version;
    *client = g_wlan->client;
    return g_wlan->openResult;
}

DWORD WINAPI FakeEnum(HANDLE, PVOID, PWLAN_INTERFACE_INFO_LIST* list) {
    if (g_wlan->enumResult != ERROR_SUCCESS) return g_wlan->enumResult;
    const size_t count = g_wlan->interfaces.size();
    auto* block = static_cast<WLAN_INTERFACE_INFO_LIST*>(
        std::calloc(1, sizeof(WLAN_INTERFACE_INFO_LIST) + count * sizeof(WLAN_INTERFACE_INFO)));
    block->dwNumberOfItems = static_cast<DWORD>(count);
    for (size_t i = 0; i < count; ++i) block->InterfaceInfo[i] = g_wlan->interfaces[i];
    ++g_wlan->outstanding;
    *list = block;
    return ERROR_SUCCESS;
}

DWORD WINAPI FakeQuery(HANDLE, const GUID* iface, WLAN_INTF_OPCODE opcode, PVOID, PDWORD size, PVOID* data,
                       PWLAN_OPCODE_VALUE_TYPE) {
    g_wlan->queriedInterface = *iface;
    if (opcode != wlan_intf_opcode_radio_state) return ERROR_INVALID_PARAMETER;
    if (g_wlan->queryResult != ERROR_SUCCESS) return g_wlan->queryResult;
    *size = sizeof(WLAN_RADIO_STATE);
    if (!g_wlan->queryGivesData) {
        *data = nullptr;
        return ERROR_SUCCESS;
    }
    auto* block = static_cast<WLAN_RADIO_STATE*>(std::malloc(sizeof(WLAN_RADIO_STATE)));
    *block = g_wlan->radio;
    ++g_wlan->outstanding;
    *data = block;
    return ERROR_SUCCESS;
}

DWORD WINAPI FakeSet(HANDLE, const GUID*, WLAN_INTF_OPCODE opcode, DWORD size, const PVOID data, PVOID) {
    ++g_wlan->setCalls;
    g_wlan->setSize = size;
    if (opcode == wlan_intf_opcode_radio_state && size >= sizeof(WLAN_PHY_RADIO_STATE)) {
        std::memcpy(&g_wlan->setBlock, data, sizeof(WLAN_PHY_RADIO_STATE));
        if (g_wlan->setResult == ERROR_SUCCESS)
            g_wlan->radio.PhyRadioState[0].dot11SoftwareRadioState = g_wlan->setBlock.dot11SoftwareRadioState;
    }
    return g_wlan->setResult;
}

VOID WINAPI FakeFree(PVOID memory) {
    if (memory == nullptr) return;
    --g_wlan->outstanding;
    std::free(memory);
}

DWORD WINAPI FakeClose(HANDLE client, PVOID) {
    g_wlan->closed.push_back(client);
    return ERROR_SUCCESS;
}

}  // namespace

FakeWlan::FakeWlan() : previous_(g_wlan) {
    g_wlan = this;
    patches_.push_back(Redirect("WlanOpenHandle", &FakeOpen));
    patches_.push_back(Redirect("WlanEnumInterfaces", &FakeEnum));
    patches_.push_back(Redirect("WlanQueryInterface", &FakeQuery));
    patches_.push_back(Redirect("WlanSetInterface", &FakeSet));
    patches_.push_back(Redirect("WlanFreeMemory", &FakeFree));
    patches_.push_back(Redirect("WlanCloseHandle", &FakeClose));
}

FakeWlan::~FakeWlan() {
    while (!patches_.empty()) patches_.pop_back();
    g_wlan = previous_;
}

WLAN_INTERFACE_INFO MakeWlanInterface(unsigned char seed, const wchar_t* description, WLAN_INTERFACE_STATE state) {
    WLAN_INTERFACE_INFO info{};
    for (int i = 0; i < 8; ++i) info.InterfaceGuid.Data4[i] = static_cast<unsigned char>(seed + i);
    info.InterfaceGuid.Data1 = 0x1000u * seed;
    wcsncpy(info.strInterfaceDescription, description, 255);
    info.isState = state;
    return info;
}

}  // namespace torvex::test
