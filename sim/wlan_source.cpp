// Native Wifi: whether the service opens, its wireless interfaces and the
// radio state of each. A radio switch under replay changes the state that
// later queries see.
//
//   "wlan": {"version": 2, "interfaces": [{"guid": "{...}", "description": "Intel(R) Wi-Fi 6 AX201",
//            "state": "connected", "radio": [{"phy": 0, "software": "on", "hardware": "on"}]}]}
#include <windows.h>
#include <wlanapi.h>

#include <cstdlib>
#include <cstring>
#include <set>

#include "source.h"

namespace torvex::sim::detail {
namespace {

#define TORVEX_FN(name) decltype(&::name) g_##name = nullptr;
TORVEX_FN(WlanOpenHandle)
TORVEX_FN(WlanEnumInterfaces)
TORVEX_FN(WlanQueryInterface)
TORVEX_FN(WlanSetInterface)
TORVEX_FN(WlanFreeMemory)
TORVEX_FN(WlanCloseHandle)
#undef TORVEX_FN

constexpr DWORD kNoService = ERROR_SERVICE_NOT_ACTIVE;
const char* const kStates[] = {"not_ready", "connected", "ad_hoc_network_formed", "disconnecting",
                               "disconnected", "associating", "discovering", "authenticating"};
const char* const kRadio[] = {"unknown", "on", "off"};

std::set<void*> g_blocks;     // memory handed out under this machine
std::set<HANDLE> g_clients;   // client handles made up under replay

template <size_t N>
Json Named(const char* const (&names)[N], DWORD value) {
    return value < N ? Json(names[value]) : Json(value);
}

template <size_t N>
DWORD Number(const char* const (&names)[N], const Json& value) {
    if (value.is_number()) return value.get<DWORD>();
    for (size_t i = 0; i < N; ++i)
        if (value == names[i]) return static_cast<DWORD>(i);
    return 0;
}

template <size_t N>
void ExpectNamed(const char* const (&names)[N], const Json& value, const At& at) {
    if (value.is_number_unsigned()) return ExpectUnsigned(value, at, 0xFFFFFFFFu);
    for (const char* name : names)
        if (value == name) return;
    std::string list;
    for (const char* name : names) list += (list.empty() ? "\"" : ", \"") + std::string(name) + "\"";
    Expected(at, "one of " + list + " or a number");
}

void* Block(size_t size) {
    void* block = std::calloc(1, size);
    if (block != nullptr) g_blocks.insert(block);
    return block;
}

void Validate(const Json& wlan, const At& at) {
    ExpectObject(wlan, at);
    ExpectOnly(wlan, at, {"open_error", "version", "enum_error", "interfaces"});
    if (wlan.contains("version")) ExpectUnsigned(wlan["version"], at / "version", 0xFFFFFFFFu);
    for (const char* field : {"open_error", "enum_error"})
        if (wlan.contains(field)) ExpectError(wlan[field], at / field);
    if (!wlan.contains("interfaces")) return;
    ExpectArray(wlan["interfaces"], at / "interfaces");
    for (size_t i = 0; i < wlan["interfaces"].size(); ++i) {
        const Json& item = wlan["interfaces"][i];
        const At a = at / "interfaces" / i;
        ExpectObject(item, a);
        ExpectOnly(item, a, {"guid", "description", "state", "radio", "radio_error", "set_error"});
        if (!item.contains("guid")) Expected(a / "guid", "the interface GUID");
        ExpectGuid(item["guid"], a / "guid");
        if (item.contains("description")) ExpectString(item["description"], a / "description");
        if (item.contains("state")) ExpectNamed(kStates, item["state"], a / "state");
        for (const char* field : {"radio_error", "set_error"})
            if (item.contains(field)) ExpectError(item[field], a / field);
        if (!item.contains("radio")) continue;
        ExpectArray(item["radio"], a / "radio");
        if (item["radio"].size() > WLAN_MAX_PHY_INDEX) Expected(a / "radio", "at most 64 radios");
        for (size_t p = 0; p < item["radio"].size(); ++p) {
            const Json& phy = item["radio"][p];
            ExpectObject(phy, a / "radio" / p);
            ExpectOnly(phy, a / "radio" / p, {"phy", "software", "hardware"});
            if (phy.contains("phy")) ExpectUnsigned(phy["phy"], a / "radio" / p / "phy", 0xFFFFFFFFu);
            for (const char* field : {"software", "hardware"})
                if (phy.contains(field)) ExpectNamed(kRadio, phy[field], a / "radio" / p / field);
        }
    }
}

// The interface entry of the replay profile (or of the recording, live).
Json* InterfaceEntry(Json* wlan, const GUID* guid) {
    if (wlan == nullptr || guid == nullptr || !wlan->contains("interfaces")) return nullptr;
    for (Json& item : (*wlan)["interfaces"])
        if (Lower(item.value("guid", "")) == Lower(GuidText(*guid))) return &item;
    return nullptr;
}

DWORD WINAPI HookOpen(DWORD version, PVOID reserved, PDWORD negotiated, PHANDLE client) {
    Lock lock(Active().mutex);
    const std::string asked = "version " + std::to_string(version);  // the client version asked for
    if (Active().live()) {
        const DWORD result = g_WlanOpenHandle(version, reserved, negotiated, client);
        if (result == ERROR_SUCCESS) {
            if (Json* wlan = KeepObject({"wlan"})) {
                wlan->erase("open_error");
                (*wlan)["version"] = negotiated != nullptr ? *negotiated : version;
            }
        } else {
            Keep({"wlan"}, Json{{"open_error", HresultText(static_cast<long>(result))}});
        }
        Note("wlan", "open", result == 0 ? "opened" : "error " + std::to_string(result), result != 0, asked);
        return result;
    }
    const Json* wlan = Replayed({"wlan"});
    const Json* openError = Child(wlan, "open_error");
    const DWORD result = wlan == nullptr ? kNoService : openError != nullptr ? static_cast<DWORD>(ErrorCode(*openError)) : 0;
    if (wlan != nullptr && result != 0) Keep({"wlan", "open_error"}, HresultText(static_cast<long>(result)));
    if (result != ERROR_SUCCESS) {
        Note("wlan", "open", wlan == nullptr ? "not in the profile" : "error " + std::to_string(result), true, asked);
        return result;
    }
    Keep({"wlan", "version"}, wlan->value("version", 2u));
    if (negotiated != nullptr) *negotiated = wlan->value("version", 2u);
    HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    g_clients.insert(handle);
    if (client != nullptr) *client = handle;
    Note("wlan", "open", "opened", false, asked);
    return ERROR_SUCCESS;
}

DWORD WINAPI HookEnum(HANDLE client, PVOID reserved, PWLAN_INTERFACE_INFO_LIST* list) {
    Lock lock(Active().mutex);
    Json interfaces = Json::array();
    if (Active().live()) {
        PWLAN_INTERFACE_INFO_LIST live = nullptr;
        const DWORD result = g_WlanEnumInterfaces(client, reserved, &live);
        if (result != ERROR_SUCCESS) {
            Keep({"wlan", "enum_error"}, HresultText(static_cast<long>(result)));
            Note("wlan", "interfaces", "error " + std::to_string(result), true);
            return result;
        }
        Json* kept = KeepNode({"wlan"});
        for (DWORD i = 0; live != nullptr && i < live->dwNumberOfItems; ++i) {
            const WLAN_INTERFACE_INFO& info = live->InterfaceInfo[i];
            Json item{{"guid", GuidText(info.InterfaceGuid)}, {"description", Utf8(info.strInterfaceDescription)},
                      {"state", Named(kStates, info.isState)}};
            if (kept != nullptr)
                if (const Json* old = InterfaceEntry(kept, &info.InterfaceGuid))
                    for (const char* field : {"radio", "radio_error", "set_error"})
                        if (old->contains(field)) item[field] = (*old)[field];
            interfaces.push_back(item);
        }
        if (live != nullptr) g_WlanFreeMemory(live);
        if (kept != nullptr) (*kept)["interfaces"] = interfaces;
    } else {
        const Json* wlan = Replayed({"wlan"});
        if (wlan == nullptr || !g_clients.count(client)) return ERROR_INVALID_HANDLE;
        if (wlan->contains("enum_error")) {
            Keep({"wlan", "enum_error"}, (*wlan)["enum_error"]);
            const auto result = static_cast<DWORD>(ErrorCode((*wlan)["enum_error"]));
            Note("wlan", "interfaces", "error " + std::to_string(result), true);
            return result;
        }
        if (wlan->contains("interfaces")) interfaces = (*wlan)["interfaces"];
        Keep({"wlan", "interfaces"}, interfaces);
    }
    auto* result = static_cast<PWLAN_INTERFACE_INFO_LIST>(
        Block(offsetof(WLAN_INTERFACE_INFO_LIST, InterfaceInfo) + sizeof(WLAN_INTERFACE_INFO) * std::max<size_t>(1, interfaces.size())));
    if (result == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    result->dwNumberOfItems = static_cast<DWORD>(interfaces.size());
    for (size_t i = 0; i < interfaces.size(); ++i) {
        WLAN_INTERFACE_INFO& info = result->InterfaceInfo[i];
        ParseGuid(interfaces[i]["guid"].get<std::string>(), info.InterfaceGuid);
        const std::wstring text = Wide(interfaces[i].value("description", ""));
        wcsncpy(info.strInterfaceDescription, text.c_str(), WLAN_MAX_NAME_LENGTH - 1);
        info.isState = static_cast<WLAN_INTERFACE_STATE>(Number(kStates, interfaces[i].value("state", Json(0))));
    }
    if (list != nullptr) *list = result;
    Note("wlan", "interfaces", std::to_string(interfaces.size()) + " interfaces", interfaces.empty());
    return ERROR_SUCCESS;
}

DWORD WINAPI HookQuery(HANDLE client, const GUID* guid, WLAN_INTF_OPCODE opcode, PVOID reserved, PDWORD size,
                       PVOID* data, PWLAN_OPCODE_VALUE_TYPE type) {
    Lock lock(Active().mutex);
    const std::string call = "radio state of " + (guid != nullptr ? GuidText(*guid) : std::string("(none)"));
    if (opcode != wlan_intf_opcode_radio_state) {
        if (Active().live()) return g_WlanQueryInterface(client, guid, opcode, reserved, size, data, type);
        Note("wlan", "query " + std::to_string(opcode), "not in the profile", true);
        return ERROR_NOT_SUPPORTED;
    }
    Json radio;
    if (Active().live()) {
        DWORD liveSize = 0;
        PVOID live = nullptr;
        const DWORD result = g_WlanQueryInterface(client, guid, opcode, reserved, &liveSize, &live, type);
        Json* item = InterfaceEntry(KeepNode({"wlan"}), guid);
        if (result != ERROR_SUCCESS) {
            if (item != nullptr) (*item)["radio_error"] = HresultText(static_cast<long>(result));
            Note("wlan", call, "error " + std::to_string(result), true);
            return result;
        }
        radio = Json::array();
        const auto* state = static_cast<const WLAN_RADIO_STATE*>(live);
        for (DWORD i = 0; state != nullptr && i < state->dwNumberOfPhys && i < WLAN_MAX_PHY_INDEX; ++i)
            radio.push_back(Json{{"phy", state->PhyRadioState[i].dwPhyIndex},
                                 {"software", Named(kRadio, state->PhyRadioState[i].dot11SoftwareRadioState)},
                                 {"hardware", Named(kRadio, state->PhyRadioState[i].dot11HardwareRadioState)}});
        if (live != nullptr) g_WlanFreeMemory(live);
        if (item != nullptr) (*item)["radio"] = radio;
    } else {
        const Json* item = InterfaceEntry(const_cast<Json*>(Replayed({"wlan"})), guid);
        if (item == nullptr || !g_clients.count(client)) {
            Note("wlan", call, "no such interface in the profile", true);
            return ERROR_INVALID_PARAMETER;
        }
        Json* kept = InterfaceEntry(KeepNode({"wlan"}), guid);
        if (item->contains("radio_error")) {
            if (kept != nullptr) (*kept)["radio_error"] = (*item)["radio_error"];
            const auto result = static_cast<DWORD>(ErrorCode((*item)["radio_error"]));
            Note("wlan", call, "error " + std::to_string(result), true);
            return result;
        }
        radio = item->value("radio", Json::array());
        if (kept != nullptr) (*kept)["radio"] = radio;
    }
    auto* state = static_cast<WLAN_RADIO_STATE*>(Block(sizeof(WLAN_RADIO_STATE)));
    if (state == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    state->dwNumberOfPhys = static_cast<DWORD>(radio.size());
    for (size_t i = 0; i < radio.size(); ++i) {
        state->PhyRadioState[i].dwPhyIndex = radio[i].value("phy", static_cast<DWORD>(i));
        state->PhyRadioState[i].dot11SoftwareRadioState =
            static_cast<DOT11_RADIO_STATE>(Number(kRadio, radio[i].value("software", Json(0))));
        state->PhyRadioState[i].dot11HardwareRadioState =
            static_cast<DOT11_RADIO_STATE>(Number(kRadio, radio[i].value("hardware", Json(0))));
    }
    if (size != nullptr) *size = sizeof(WLAN_RADIO_STATE);
    if (data != nullptr) *data = state;
    if (type != nullptr) *type = wlan_opcode_value_type_query_only;
    Note("wlan", call, radio.dump(), false);
    return ERROR_SUCCESS;
}

DWORD WINAPI HookSet(HANDLE client, const GUID* guid, WLAN_INTF_OPCODE opcode, DWORD size, const PVOID data,
                     PVOID reserved) {
    Lock lock(Active().mutex);
    const std::string call = "switch radio of " + (guid != nullptr ? GuidText(*guid) : std::string("(none)"));
    // The opcode, the size and the block's three words as the library passed them.
    std::string detail = "opcode " + std::to_string(opcode) + ", size " + std::to_string(size);
    if (data != nullptr && size >= sizeof(WLAN_PHY_RADIO_STATE)) {
        const auto* words = static_cast<const DWORD*>(data);
        detail += ", words " + std::to_string(words[0]) + " " + std::to_string(words[1]) + " " + std::to_string(words[2]);
    }
    if (Unchangeable("wlan", call)) return ERROR_ACCESS_DENIED;
    if (Active().live()) {
        const DWORD result = g_WlanSetInterface(client, guid, opcode, size, data, reserved);
        Note("wlan", call, result == 0 ? "switched" : "error " + std::to_string(result), result != 0, detail);
        return result;
    }
    Json* item = InterfaceEntry(ReplayedForChange({"wlan"}), guid);
    if (item == nullptr || opcode != wlan_intf_opcode_radio_state || data == nullptr ||
        size < sizeof(WLAN_PHY_RADIO_STATE)) {
        Note("wlan", call, "refused", true, detail);
        return ERROR_INVALID_PARAMETER;
    }
    if (item->contains("set_error")) {
        const auto result = static_cast<DWORD>(ErrorCode((*item)["set_error"]));
        Note("wlan", call, "error " + std::to_string(result), true, detail);
        return result;
    }
    const auto* wanted = static_cast<const WLAN_PHY_RADIO_STATE*>(data);
    for (Json& phy : (*item)["radio"])
        if (phy.value("phy", 0u) == wanted->dwPhyIndex) phy["software"] = Named(kRadio, wanted->dot11SoftwareRadioState);
    Note("wlan", call, "switched", false, detail);
    return ERROR_SUCCESS;
}

VOID WINAPI HookFree(PVOID memory) {
    Lock lock(Active().mutex);
    if (g_blocks.erase(memory) != 0) return std::free(memory);
    g_WlanFreeMemory(memory);
}

DWORD WINAPI HookClose(HANDLE client, PVOID reserved) {
    Lock lock(Active().mutex);
    if (g_clients.erase(client) == 0) return g_WlanCloseHandle(client, reserved);
    CloseHandle(client);
    return ERROR_SUCCESS;
}

void Install(Installer& installer) {
    installer.Hook("WlanOpenHandle", &HookOpen, g_WlanOpenHandle);
    installer.Hook("WlanEnumInterfaces", &HookEnum, g_WlanEnumInterfaces);
    installer.Hook("WlanQueryInterface", &HookQuery, g_WlanQueryInterface);
    installer.Hook("WlanSetInterface", &HookSet, g_WlanSetInterface);
    installer.Hook("WlanFreeMemory", &HookFree, g_WlanFreeMemory);
    installer.Hook("WlanCloseHandle", &HookClose, g_WlanCloseHandle);
}

// Blocks and clients the library still holds stay valid: they are released
// when it hands them back, through the real functions then.
void Reset() {
    g_blocks.clear();
    g_clients.clear();
}

}  // namespace

size_t HeldWlanMemory() { return g_blocks.size(); }

const SourceDef kWlanSource = {"wlan", Validate, Install, Reset};

}  // namespace torvex::sim::detail
