// The Setup API and the configuration manager: device sets by setup class or
// interface class and flags (the devices' instance IDs, in order), and per
// device the properties the library read, its interfaces and its node status.
//
//   "devices": {"sets": {"{4D36E96C-E325-11CE-BFC1-08002BE10318} DIGCF_PRESENT": ["HDAUDIO\\FUNC_01&...\\4&1&0001"]},
//               "nodes": {"HDAUDIO\\FUNC_01&...\\4&1&0001": {"properties": {"DEVPKEY_Device_HardwareIds": {"string_list": [...]}},
//                                                           "status": {"flags": 25174026, "problem": 0}}}}
//
// Sets are kept whole when the library opens them; properties as it reads
// them. A removal under replay takes the device out of every set.
#include <windows.h>
#include <cfgmgr32.h>
#include <devpropdef.h>
#include <setupapi.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "source.h"

namespace torvex::sim::detail {
namespace {

#define TORVEX_FN(name) decltype(&::name) g_##name = nullptr;
TORVEX_FN(SetupDiGetClassDevsW)
TORVEX_FN(SetupDiEnumDeviceInfo)
TORVEX_FN(SetupDiGetDevicePropertyW)
TORVEX_FN(SetupDiEnumDeviceInterfaces)
TORVEX_FN(SetupDiGetDeviceInterfaceDetailW)
TORVEX_FN(SetupDiDestroyDeviceInfoList)
TORVEX_FN(SetupDiGetDeviceInfoListDetailW)
TORVEX_FN(SetupDiRemoveDevice)
TORVEX_FN(SetupDiSetClassInstallParamsW)
TORVEX_FN(SetupDiCallClassInstaller)
TORVEX_FN(SetupDiGetDeviceInstallParamsW)
TORVEX_FN(CM_Get_Device_ID_ExW)
TORVEX_FN(CM_Get_DevNode_Status)
#undef TORVEX_FN

// Property keys by name, as they appear in profiles; others read "{GUID} pid".
// Spelled out here rather than taken from the library's constants, so that a
// wrong byte in one of those finds no answer.
struct KeyName {
    DEVPROPKEY key;
    const char* name;
};
constexpr GUID kDevice = {0xA45C254E, 0xDF1C, 0x4EFD, {0x80, 0x20, 0x67, 0xD1, 0x46, 0xA8, 0x50, 0xE0}};
constexpr GUID kDriver = {0xA8B865DD, 0x2E3D, 0x4094, {0xAD, 0x97, 0xE5, 0x93, 0xA7, 0x0C, 0x75, 0xD6}};
constexpr GUID kInstance = {0x78C34FC8, 0x104A, 0x4ACA, {0x9E, 0xA4, 0x52, 0x4D, 0x52, 0x99, 0x6E, 0x57}};
constexpr GUID kNameSet = {0xB725F130, 0x47EF, 0x101A, {0xA5, 0xF1, 0x02, 0x60, 0x8C, 0x9E, 0xEB, 0xAC}};
constexpr GUID kStack = {0x540B947E, 0x8B40, 0x45BC, {0xA8, 0xA2, 0x6A, 0x0B, 0x89, 0x4C, 0xBD, 0xA2}};
constexpr GUID kNode = {0x4340A6C5, 0x93FA, 0x4706, {0x97, 0x2C, 0x7B, 0x64, 0x80, 0x08, 0xA5, 0xA7}};
constexpr GUID kInstall = {0x83DA6326, 0x97A6, 0x4088, {0x94, 0x53, 0xA1, 0x92, 0x3F, 0x57, 0x3B, 0x29}};
constexpr KeyName kKeyNames[] = {
    {{kDevice, 2}, "DEVPKEY_Device_DeviceDesc"},       {{kDevice, 3}, "DEVPKEY_Device_HardwareIds"},
    {{kDevice, 4}, "DEVPKEY_Device_CompatibleIds"},    {{kDevice, 9}, "DEVPKEY_Device_Class"},
    {{kDevice, 10}, "DEVPKEY_Device_ClassGuid"},       {{kDevice, 13}, "DEVPKEY_Device_Manufacturer"},
    {{kDevice, 14}, "DEVPKEY_Device_FriendlyName"},    {{kDevice, 24}, "DEVPKEY_Device_EnumeratorName"},
    {{kDevice, 30}, "DEVPKEY_Device_Address"},         {{kDriver, 3}, "DEVPKEY_Device_DriverVersion"},
    {{kDriver, 5}, "DEVPKEY_Device_DriverInfPath"},    {{kDriver, 9}, "DEVPKEY_Device_DriverProvider"},
    {{kInstance, 256}, "DEVPKEY_Device_InstanceId"},   {{kNameSet, 10}, "DEVPKEY_NAME"},
    {{kStack, 14}, "DEVPKEY_Device_Stack"},            {{kNode, 2}, "DEVPKEY_Device_DevNodeStatus"},
    {{kNode, 3}, "DEVPKEY_Device_ProblemCode"},        {{kNode, 8}, "DEVPKEY_Device_Parent"},
    {{kInstall, 100}, "DEVPKEY_Device_InstallDate"},   {{kInstall, 101}, "DEVPKEY_Device_FirstInstallDate"},
};

std::string KeyText(const DEVPROPKEY& key) {
    for (const KeyName& entry : kKeyNames)
        if (entry.key.pid == key.pid && IsEqualGUID(entry.key.fmtid, key.fmtid)) return entry.name;
    return GuidText(key.fmtid) + " " + std::to_string(key.pid);
}

bool ValidKeyText(const std::string& text) {
    for (const KeyName& entry : kKeyNames)
        if (text == entry.name) return true;
    GUID guid;
    if (text.size() < 40 || text[38] != ' ' || !ParseGuid(text.substr(0, 38), guid)) return false;
    for (size_t i = 39; i < text.size(); ++i)
        if (text[i] < '0' || text[i] > '9') return false;
    return text.size() < 49;
}

struct FlagName {
    DWORD flag;
    const char* name;
};
constexpr FlagName kFlags[] = {{DIGCF_DEFAULT, "DIGCF_DEFAULT"},
                               {DIGCF_PRESENT, "DIGCF_PRESENT"},
                               {DIGCF_ALLCLASSES, "DIGCF_ALLCLASSES"},
                               {DIGCF_PROFILE, "DIGCF_PROFILE"},
                               {DIGCF_DEVICEINTERFACE, "DIGCF_DEVICEINTERFACE"}};

std::string SetKey(const GUID* guid, DWORD flags) {
    std::string key = guid != nullptr ? GuidText(*guid) : "*";
    std::string names;
    for (const FlagName& entry : kFlags)
        if ((flags & entry.flag) != 0) {
            if (!names.empty()) names += '|';
            names += entry.name;
        }
    if (flags == 0) names = "0";
    return key + " " + names;
}

// ---------------------------------------------------------------- values

struct PropertyType {
    DEVPROPTYPE type;
    const char* name;
};
constexpr PropertyType kPropertyTypes[] = {{DEVPROP_TYPE_STRING, "string"},
                                           {DEVPROP_TYPE_STRING_LIST, "string_list"},
                                           {DEVPROP_TYPE_UINT32, "uint32"},
                                           {DEVPROP_TYPE_GUID, "guid"},
                                           {DEVPROP_TYPE_FILETIME, "filetime"},
                                           {DEVPROP_TYPE_BOOLEAN, "boolean"}};

std::wstring WideAt(const std::vector<uint8_t>& bytes, size_t from) {
    const size_t chars = bytes.size() / 2;
    std::wstring text(reinterpret_cast<const wchar_t*>(bytes.data()) + from, chars - from);
    return text.substr(0, text.find(L'\0'));
}

Json EncodeProperty(DEVPROPTYPE type, const std::vector<uint8_t>& bytes) {
    if (type == DEVPROP_TYPE_STRING) return Json{{"string", Utf8(WideAt(bytes, 0))}};
    if (type == DEVPROP_TYPE_STRING_LIST) {
        Json list = Json::array();
        for (size_t at = 0; at < bytes.size() / 2;) {
            const std::wstring entry = WideAt(bytes, at);
            if (entry.empty()) break;
            list.push_back(Utf8(entry));
            at += entry.size() + 1;
        }
        return Json{{"string_list", list}};
    }
    if (type == DEVPROP_TYPE_UINT32 && bytes.size() == 4) {
        uint32_t value;
        std::memcpy(&value, bytes.data(), 4);
        return Json{{"uint32", value}};
    }
    if (type == DEVPROP_TYPE_GUID && bytes.size() == sizeof(GUID)) {
        GUID value;
        std::memcpy(&value, bytes.data(), sizeof(value));
        return Json{{"guid", GuidText(value)}};
    }
    if (type == DEVPROP_TYPE_FILETIME && bytes.size() == 8) {
        uint64_t value;
        std::memcpy(&value, bytes.data(), 8);
        return Json{{"filetime", value}};
    }
    if (type == DEVPROP_TYPE_BOOLEAN && bytes.size() == 1) return Json{{"boolean", bytes[0] != 0}};
    return Json{{"type", type}, {"binary", Hex(bytes.data(), bytes.size())}};
}

void DecodeProperty(const Json& value, DEVPROPTYPE& type, std::vector<uint8_t>& bytes) {
    auto wide = [&](const std::string& text) {
        const std::wstring w = Wide(text);
        const auto* data = reinterpret_cast<const uint8_t*>(w.c_str());
        bytes.insert(bytes.end(), data, data + (w.size() + 1) * 2);
    };
    auto raw = [&](const void* data, size_t size) {
        bytes.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
    };
    bytes.clear();
    type = DEVPROP_TYPE_BINARY;
    if (value.contains("type")) type = value["type"].get<DEVPROPTYPE>();
    if (value.contains("binary")) ParseHex(value["binary"].get<std::string>(), bytes);
    for (const PropertyType& entry : kPropertyTypes) {
        if (!value.contains(entry.name)) continue;
        type = entry.type;
        const Json& data = value[entry.name];
        if (entry.type == DEVPROP_TYPE_STRING) {
            wide(data.get<std::string>());
        } else if (entry.type == DEVPROP_TYPE_STRING_LIST) {
            for (const Json& item : data) wide(item.get<std::string>());
            wide("");
        } else if (entry.type == DEVPROP_TYPE_UINT32) {
            const auto number = data.get<uint32_t>();
            raw(&number, 4);
        } else if (entry.type == DEVPROP_TYPE_GUID) {
            GUID guid{};
            ParseGuid(data.get<std::string>(), guid);
            raw(&guid, sizeof(guid));
        } else if (entry.type == DEVPROP_TYPE_FILETIME) {
            const auto number = data.get<uint64_t>();
            raw(&number, 8);
        } else {
            const uint8_t flag = data.get<bool>() ? 0xFF : 0;
            raw(&flag, 1);
        }
    }
}

void ValidateProperty(const Json& value, const At& at) {
    if (value.is_null()) return;
    const char* shape = "null, {\"error\": \"0x...\"}, or one of {\"string\": ...}, {\"string_list\": [...]}, "
                        "{\"uint32\": n}, {\"guid\": ...}, {\"filetime\": n}, {\"boolean\": b}, "
                        "{\"type\": n, \"binary\": hex}";
    if (!value.is_object() || value.empty()) Expected(at, shape);
    ExpectOnly(value, at, {"error", "string", "string_list", "uint32", "guid", "filetime", "boolean", "type", "binary"});
    if (value.contains("error")) {
        ExpectError(value["error"], at / "error");
        if (value.size() != 1) Expected(at, shape);
        return;
    }
    size_t forms = value.contains("binary") ? 1 : 0;
    for (const PropertyType& entry : kPropertyTypes) forms += value.contains(entry.name) ? 1 : 0;
    if (forms != 1 || (value.contains("binary") != value.contains("type"))) Expected(at, shape);
    if (value.contains("type")) ExpectUnsigned(value["type"], at / "type", 0xFFFFFFFFu);
    if (value.contains("binary")) ExpectHex(value["binary"], at / "binary");
    if (value.contains("string")) ExpectString(value["string"], at / "string");
    if (value.contains("string_list")) {
        ExpectArray(value["string_list"], at / "string_list");
        for (size_t i = 0; i < value["string_list"].size(); ++i) ExpectString(value["string_list"][i], at / "string_list" / i);
    }
    if (value.contains("uint32")) ExpectUnsigned(value["uint32"], at / "uint32", 0xFFFFFFFFu);
    if (value.contains("guid")) ExpectGuid(value["guid"], at / "guid");
    if (value.contains("filetime")) ExpectUnsigned(value["filetime"], at / "filetime");
    if (value.contains("boolean")) ExpectBool(value["boolean"], at / "boolean");
}

void Validate(const Json& devices, const At& at) {
    ExpectObject(devices, at);
    ExpectOnly(devices, at, {"sets", "nodes"});
    if (devices.contains("sets")) {
        ExpectObject(devices["sets"], at / "sets");
        for (const auto& [key, ids] : devices["sets"].items()) {
            GUID guid;
            if (key.size() < 3 || (key.rfind("* ", 0) != 0 && !(key.size() > 39 && ParseGuid(key.substr(0, 38), guid) && key[38] == ' ')))
                Expected(at / "sets" / key, "a set named \"{GUID} FLAGS\" or \"* FLAGS\"");
            ExpectArray(ids, at / "sets" / key);
            for (size_t i = 0; i < ids.size(); ++i) ExpectString(ids[i], at / "sets" / key / i);
        }
    }
    if (!devices.contains("nodes")) return;
    ExpectObject(devices["nodes"], at / "nodes");
    for (const auto& [id, node] : devices["nodes"].items()) {
        const At n = at / "nodes" / id;
        ExpectObject(node, n);
        ExpectOnly(node, n, {"properties", "status", "interfaces"});
        if (node.contains("properties")) {
            ExpectObject(node["properties"], n / "properties");
            for (const auto& [key, value] : node["properties"].items()) {
                if (!ValidKeyText(key)) Expected(n / "properties" / key, "a property key such as DEVPKEY_Device_HardwareIds or \"{GUID} 3\"");
                ValidateProperty(value, n / "properties" / key);
            }
        }
        if (node.contains("status")) {
            const Json& status = node["status"];
            ExpectObject(status, n / "status");
            ExpectOnly(status, n / "status", {"flags", "problem", "error"});
            for (const char* field : {"flags", "problem"})
                if (status.contains(field)) ExpectUnsigned(status[field], n / "status" / field, 0xFFFFFFFFu);
            if (status.contains("error")) ExpectError(status["error"], n / "status" / "error");
        }
        if (node.contains("interfaces")) {
            ExpectObject(node["interfaces"], n / "interfaces");
            for (const auto& [guid, paths] : node["interfaces"].items()) {
                ExpectGuid(Json(guid), n / "interfaces" / guid);
                ExpectArray(paths, n / "interfaces" / guid);
                for (size_t i = 0; i < paths.size(); ++i) ExpectString(paths[i], n / "interfaces" / guid / i);
            }
        }
    }
}

// ---------------------------------------------------------------- state

// A set made from the profile (replay); the handle is its address.
struct SimSet {
    std::string key;
    GUID classGuid{};
    bool interfaces = false;
    std::vector<std::string> ids;
    std::vector<std::pair<std::string, std::string>> paths;  // (device, interface path)
};

std::map<HDEVINFO, std::unique_ptr<SimSet>> g_simSets;
std::vector<std::string> g_nodeIds;                  // replay: DevInst i + 1 -> instance ID
std::unordered_map<std::string, DEVINST> g_nodeOf;  // replay: instance ID -> DevInst
std::map<DEVINST, std::string> g_liveIds;           // live: DevInst -> instance ID

DEVINST NodeOf(const std::string& id) {
    const auto [at, added] = g_nodeOf.try_emplace(id, static_cast<DEVINST>(g_nodeIds.size() + 1));
    if (added) g_nodeIds.push_back(id);
    return at->second;
}

SimSet* Sim(HDEVINFO set) {
    auto it = g_simSets.find(set);
    return it != g_simSets.end() ? it->second.get() : nullptr;
}

// The instance ID of a device the library holds.
std::string IdOf(HDEVINFO set, const SP_DEVINFO_DATA* data) {
    if (data == nullptr) return {};
    if (Sim(set) != nullptr)
        return data->DevInst >= 1 && data->DevInst <= g_nodeIds.size() ? g_nodeIds[data->DevInst - 1] : std::string();
    auto known = g_liveIds.find(data->DevInst);
    if (known != g_liveIds.end()) return known->second;
    wchar_t id[MAX_DEVICE_ID_LEN + 1] = {};
    if (CM_Get_Device_IDW(data->DevInst, id, MAX_DEVICE_ID_LEN, 0) != CR_SUCCESS) return {};
    return g_liveIds[data->DevInst] = Utf8(id);
}

// Live: the whole set, kept in the recording; the number of devices (or
// interfaces) it holds.
size_t KeepLiveSet(HDEVINFO set, const GUID* guid, DWORD flags) {
    Json scratch;
    Json* kept = KeepNode({"devices", "sets", SetKey(guid, flags)});
    if (kept == nullptr) kept = &scratch;
    *kept = Json::array();
    size_t interfaces = 0;
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof(data);
    if ((flags & DIGCF_DEVICEINTERFACE) == 0) {
        for (DWORD i = 0; g_SetupDiEnumDeviceInfo(set, i, &data); ++i) kept->push_back(IdOf(set, &data));
        return kept->size();
    }
    SP_DEVICE_INTERFACE_DATA item{};
    item.cbSize = sizeof(item);
    for (DWORD i = 0; guid != nullptr && g_SetupDiEnumDeviceInterfaces(set, nullptr, guid, i, &item); ++i) {
        DWORD size = 0;
        g_SetupDiGetDeviceInterfaceDetailW(set, &item, nullptr, 0, &size, nullptr);
        std::vector<uint8_t> block(std::max<DWORD>(size, sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)));
        auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(block.data());
        detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
        if (!g_SetupDiGetDeviceInterfaceDetailW(set, &item, detail, size, &size, &data)) continue;
        ++interfaces;
        const std::string id = IdOf(set, &data);
        if (kept->empty() || kept->back() != id) kept->push_back(id);
        Json* paths = KeepNode({"devices", "nodes", id, "interfaces", GuidText(*guid)});
        if (paths == nullptr) continue;
        if (!paths->is_array()) *paths = Json::array();
        const std::string path = Utf8(detail->DevicePath);
        if (std::find(paths->begin(), paths->end(), path) == paths->end()) paths->push_back(path);
    }
    return interfaces;
}

// Replay: a set built from the profile (empty when the profile has none).
HDEVINFO OpenSimSet(const GUID* guid, DWORD flags, bool& known) {
    auto sim = std::make_unique<SimSet>();
    sim->key = SetKey(guid, flags);
    sim->interfaces = (flags & DIGCF_DEVICEINTERFACE) != 0;
    if (guid != nullptr) sim->classGuid = *guid;
    const Json* ids = Replayed({"devices", "sets", sim->key});
    known = ids != nullptr;
    if (ids != nullptr) {
        for (const Json& id : *ids) sim->ids.push_back(id.get<std::string>());
        Keep({"devices", "sets", sim->key}, *ids);
    }
    for (const std::string& id : sim->ids) {
        NodeOf(id);
        if (!sim->interfaces) continue;
        const Json* paths = Replayed({"devices", "nodes", id, "interfaces", GuidText(sim->classGuid)});
        if (paths == nullptr) continue;
        Keep({"devices", "nodes", id, "interfaces", GuidText(sim->classGuid)}, *paths);
        for (const Json& path : *paths) sim->paths.emplace_back(id, path.get<std::string>());
    }
    auto handle = reinterpret_cast<HDEVINFO>(sim.get());
    g_simSets[handle] = std::move(sim);
    return handle;
}

// ---------------------------------------------------------------- hooks

HDEVINFO WINAPI HookGetClassDevs(const GUID* guid, PCWSTR enumerator, HWND parent, DWORD flags) {
    Lock lock(Active().mutex);
    const std::string call = SetKey(guid, flags);
    if (Active().live()) {
        HDEVINFO set = g_SetupDiGetClassDevsW(guid, enumerator, parent, flags);
        if (set == INVALID_HANDLE_VALUE) {
            Note("setupapi", "open " + call, "error " + std::to_string(GetLastError()), true);
            return set;
        }
        const size_t count = KeepLiveSet(set, guid, flags);
        Note("setupapi", "open " + call, std::to_string(count) + (flags & DIGCF_DEVICEINTERFACE ? " interfaces" : " devices"),
             count == 0);
        return set;
    }
    bool known = false;
    HDEVINFO set = OpenSimSet(guid, flags, known);
    const SimSet& sim = *Sim(set);
    const size_t count = sim.interfaces ? sim.paths.size() : sim.ids.size();
    Note("setupapi", "open " + call,
         known ? std::to_string(count) + (sim.interfaces ? " interfaces" : " devices") : "not in the profile", count == 0);
    return set;
}

BOOL WINAPI HookEnumDeviceInfo(HDEVINFO set, DWORD index, PSP_DEVINFO_DATA data) {
    Lock lock(Active().mutex);
    SimSet* sim = Sim(set);
    if (sim == nullptr) return g_SetupDiEnumDeviceInfo(set, index, data);
    if (data == nullptr || data->cbSize != sizeof(SP_DEVINFO_DATA)) {
        SetLastError(ERROR_INVALID_USER_BUFFER);
        return FALSE;
    }
    if (index >= sim->ids.size()) {
        SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    data->DevInst = NodeOf(sim->ids[index]);
    data->ClassGuid = sim->classGuid;
    data->Reserved = 0;
    return TRUE;
}

std::string Room(DWORD size) { return "room " + std::to_string(size) + " bytes"; }

// Answers a property read from its value, with the caller's room.
BOOL AnswerProperty(const Json& value, const std::string& call, DEVPROPTYPE* type, PBYTE buffer, DWORD size,
                    PDWORD required) {
    if (value.is_null() || value.contains("error")) {
        const DWORD error = value.is_null() ? ERROR_NOT_FOUND : static_cast<DWORD>(ErrorCode(value["error"]));
        Note("setupapi", call, value.is_null() ? "missing" : "error " + std::to_string(error), true, Room(size));
        SetLastError(error);
        return FALSE;
    }
    DEVPROPTYPE kind = 0;
    std::vector<uint8_t> bytes;
    DecodeProperty(value, kind, bytes);
    if (type != nullptr) *type = kind;
    if (required != nullptr) *required = static_cast<DWORD>(bytes.size());
    if (buffer == nullptr || size < bytes.size()) {
        Note("setupapi", call, std::to_string(bytes.size()) + " bytes, more than the room", buffer != nullptr, Room(size));
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
    Note("setupapi", call, value.dump(), false, Room(size));
    return TRUE;
}

BOOL WINAPI HookGetProperty(HDEVINFO set, PSP_DEVINFO_DATA data, const DEVPROPKEY* key, DEVPROPTYPE* type,
                            PBYTE buffer, DWORD size, PDWORD required, DWORD flags) {
    Lock lock(Active().mutex);
    if (key == nullptr || data == nullptr) return g_SetupDiGetDevicePropertyW(set, data, key, type, buffer, size, required, flags);
    const std::string id = IdOf(set, data), name = KeyText(*key);
    const std::string call = id + " " + name;
    Json value;
    if (Sim(set) == nullptr) {
        DEVPROPTYPE kind = 0;
        DWORD needed = 0;
        std::vector<uint8_t> bytes;
        BOOL read = g_SetupDiGetDevicePropertyW(set, data, key, &kind, nullptr, 0, &needed, flags);
        DWORD error = read ? ERROR_SUCCESS : GetLastError();
        if (!read && error == ERROR_INSUFFICIENT_BUFFER) {
            bytes.resize(needed);
            read = g_SetupDiGetDevicePropertyW(set, data, key, &kind, bytes.data(), needed, &needed, flags);
            error = read ? ERROR_SUCCESS : GetLastError();
        }
        if (read) value = EncodeProperty(kind, bytes);
        else if (error != ERROR_NOT_FOUND) value = Json{{"error", HresultText(static_cast<long>(error))}};
    } else {
        if (id.empty()) {  // a record the set never filled: refused, as Windows refuses it
            Note("setupapi", "a record of no device " + name, "error 87", true, Room(size));
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        const Json* found = Replayed({"devices", "nodes", id, "properties", name});
        if (found == nullptr) {
            Note("setupapi", call, "not in the profile", true, Room(size));
            SetLastError(ERROR_NOT_FOUND);
            return FALSE;
        }
        value = *found;
    }
    Keep({"devices", "nodes", id, "properties", name}, value);
    return AnswerProperty(value, call, type, buffer, size, required);
}

BOOL WINAPI HookEnumInterfaces(HDEVINFO set, PSP_DEVINFO_DATA device, const GUID* guid, DWORD index,
                               PSP_DEVICE_INTERFACE_DATA data) {
    Lock lock(Active().mutex);
    SimSet* sim = Sim(set);
    if (sim == nullptr) return g_SetupDiEnumDeviceInterfaces(set, device, guid, index, data);
    if (data == nullptr || data->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA) || guid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!sim->interfaces || index >= sim->paths.size() || !IsEqualGUID(*guid, sim->classGuid)) {
        SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    data->InterfaceClassGuid = *guid;
    data->Flags = SPINT_ACTIVE;
    data->Reserved = index + 1;
    return TRUE;
}

BOOL WINAPI HookInterfaceDetail(HDEVINFO set, PSP_DEVICE_INTERFACE_DATA item, PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail,
                                DWORD size, PDWORD required, PSP_DEVINFO_DATA device) {
    Lock lock(Active().mutex);
    SimSet* sim = Sim(set);
    if (sim == nullptr) {
        const BOOL done = g_SetupDiGetDeviceInterfaceDetailW(set, item, detail, size, required, device);
        if (done && detail != nullptr) Note("setupapi", "interface path", Utf8(detail->DevicePath), false);
        return done;
    }
    if (item == nullptr || item->Reserved == 0 || item->Reserved > sim->paths.size()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const auto& [id, path] = sim->paths[item->Reserved - 1];
    const std::wstring wide = Wide(path);
    const DWORD needed = static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) +
                                            (wide.size() + 1) * sizeof(wchar_t));
    if (required != nullptr) *required = needed;
    if (detail == nullptr || size < needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    if (detail->cbSize != sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) {
        SetLastError(ERROR_INVALID_USER_BUFFER);
        return FALSE;
    }
    std::memcpy(detail->DevicePath, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
    if (device != nullptr && device->cbSize == sizeof(SP_DEVINFO_DATA)) {
        device->DevInst = NodeOf(id);
        device->ClassGuid = GUID{};
    }
    Note("setupapi", "interface path", path, false);
    return TRUE;
}

BOOL WINAPI HookDestroy(HDEVINFO set) {
    Lock lock(Active().mutex);
    auto it = g_simSets.find(set);
    if (it == g_simSets.end()) return g_SetupDiDestroyDeviceInfoList(set);
    g_simSets.erase(it);
    return TRUE;
}

BOOL WINAPI HookListDetail(HDEVINFO set, PSP_DEVINFO_LIST_DETAIL_DATA_W detail) {
    Lock lock(Active().mutex);
    SimSet* sim = Sim(set);
    if (sim == nullptr) return g_SetupDiGetDeviceInfoListDetailW(set, detail);
    if (detail == nullptr || detail->cbSize != sizeof(SP_DEVINFO_LIST_DETAIL_DATA_W)) {
        SetLastError(ERROR_INVALID_USER_BUFFER);
        return FALSE;
    }
    detail->ClassGuid = sim->classGuid;
    detail->RemoteMachineHandle = nullptr;
    detail->RemoteMachineName[0] = L'\0';
    return TRUE;
}

// Replay: the device leaves every set of the profile.
void RemoveFromProfile(const std::string& id) {
    Json* sets = ReplayedForChange({"devices", "sets"});
    if (sets == nullptr) return;
    for (auto& [key, ids] : sets->items()) {
        for (auto it = ids.begin(); it != ids.end();) it = *it == id ? ids.erase(it) : it + 1;
    }
}

BOOL WINAPI HookRemove(HDEVINFO set, PSP_DEVINFO_DATA data) {
    Lock lock(Active().mutex);
    const std::string id = IdOf(set, data);
    if (Unchangeable("setupapi", "remove " + id)) return SetLastError(ERROR_ACCESS_DENIED), FALSE;
    if (Sim(set) == nullptr) {
        const BOOL removed = g_SetupDiRemoveDevice(set, data);
        Note("setupapi", "remove " + id, removed ? "removed" : "error " + std::to_string(GetLastError()), !removed);
        return removed;
    }
    RemoveFromProfile(id);
    Note("setupapi", "remove " + id, "removed", false);
    return TRUE;
}

// Traced with the parameters: the header, and a removal's scope and profile.
BOOL WINAPI HookSetInstallParams(HDEVINFO set, PSP_DEVINFO_DATA data, PSP_CLASSINSTALL_HEADER header, DWORD size) {
    Lock lock(Active().mutex);
    std::string detail = "no header";
    if (header != nullptr) {
        detail = "header " + std::to_string(header->cbSize) + " bytes, function " + std::to_string(header->InstallFunction) +
                 ", " + std::to_string(size) + " bytes";
        if (header->InstallFunction == DIF_REMOVE && size >= sizeof(SP_REMOVEDEVICE_PARAMS)) {
            const auto* params = reinterpret_cast<const SP_REMOVEDEVICE_PARAMS*>(header);
            detail += ", scope " + std::to_string(params->Scope) + ", profile " + std::to_string(params->HwProfile);
        }
    }
    const std::string call = "class install params on " + IdOf(set, data);
    const BOOL done = Sim(set) == nullptr ? g_SetupDiSetClassInstallParamsW(set, data, header, size) : header != nullptr;
    const DWORD error = GetLastError();
    Note("setupapi", call, done ? "set" : "error " + std::to_string(error), !done, detail);
    SetLastError(error);
    return done;
}

BOOL WINAPI HookCallInstaller(DI_FUNCTION function, HDEVINFO set, PSP_DEVINFO_DATA data) {
    Lock lock(Active().mutex);
    const std::string id = IdOf(set, data);
    const std::string call = "class installer " + std::to_string(function) + " on " + id;
    if (Unchangeable("setupapi", call)) return SetLastError(ERROR_ACCESS_DENIED), FALSE;
    if (Sim(set) == nullptr) {
        const BOOL done = g_SetupDiCallClassInstaller(function, set, data);
        Note("setupapi", call, done ? "done" : "error " + std::to_string(GetLastError()), !done);
        return done;
    }
    if (function == DIF_REMOVE) RemoveFromProfile(id);
    Note("setupapi", call, "done", false);
    return TRUE;
}

BOOL WINAPI HookGetInstallParams(HDEVINFO set, PSP_DEVINFO_DATA data, PSP_DEVINSTALL_PARAMS_W params) {
    if (Sim(set) == nullptr) return g_SetupDiGetDeviceInstallParamsW(set, data, params);
    if (params == nullptr || params->cbSize != sizeof(SP_DEVINSTALL_PARAMS_W)) {
        SetLastError(ERROR_INVALID_USER_BUFFER);
        return FALSE;
    }
    const DWORD cbSize = params->cbSize;
    *params = SP_DEVINSTALL_PARAMS_W{};
    params->cbSize = cbSize;
    return TRUE;
}

CONFIGRET WINAPI HookDeviceId(DEVINST node, PWSTR buffer, ULONG length, ULONG flags, HMACHINE machine) {
    Lock lock(Active().mutex);
    if (Active().live()) {
        const CONFIGRET result = g_CM_Get_Device_ID_ExW(node, buffer, length, flags, machine);
        Note("cfgmgr", "device ID", result == CR_SUCCESS ? Utf8(buffer) : "error " + std::to_string(result),
             result != CR_SUCCESS, "room " + std::to_string(length) + " chars");
        return result;
    }
    if (node < 1 || node > g_nodeIds.size()) return CR_INVALID_DEVNODE;
    const std::wstring id = Wide(g_nodeIds[node - 1]);
    if (buffer == nullptr || length <= id.size()) return CR_BUFFER_SMALL;
    std::memcpy(buffer, id.c_str(), (id.size() + 1) * sizeof(wchar_t));
    Note("cfgmgr", "device ID", g_nodeIds[node - 1], false, "room " + std::to_string(length) + " chars");
    return CR_SUCCESS;
}

CONFIGRET WINAPI HookNodeStatus(PULONG status, PULONG problem, DEVINST node, ULONG flags) {
    Lock lock(Active().mutex);
    Json answer;
    std::string id;
    if (Active().live()) {
        ULONG liveStatus = 0, liveProblem = 0;
        const CONFIGRET result = g_CM_Get_DevNode_Status(&liveStatus, &liveProblem, node, flags);
        SP_DEVINFO_DATA data{};
        data.DevInst = node;
        id = IdOf(nullptr, &data);
        answer = result == CR_SUCCESS ? Json{{"flags", liveStatus}, {"problem", liveProblem}}
                                      : Json{{"error", HresultText(static_cast<long>(result))}};
    } else {
        id = node >= 1 && node <= g_nodeIds.size() ? g_nodeIds[node - 1] : std::string();
        const Json* found = Replayed({"devices", "nodes", id, "status"});
        if (found == nullptr) {
            Note("cfgmgr", "status of " + id, "not in the profile", true);
            return CR_NO_SUCH_DEVNODE;
        }
        answer = *found;
    }
    if (!id.empty()) Keep({"devices", "nodes", id, "status"}, answer);
    if (answer.contains("error")) {
        const auto result = static_cast<CONFIGRET>(ErrorCode(answer["error"]));
        Note("cfgmgr", "status of " + id, "error " + std::to_string(result), true);
        return result;
    }
    if (status != nullptr) *status = answer.value("flags", 0u);
    if (problem != nullptr) *problem = answer.value("problem", 0u);
    Note("cfgmgr", "status of " + id, answer.dump(), false);
    return CR_SUCCESS;
}

void Install(Installer& installer) {
    installer.Hook("SetupDiGetClassDevsW", &HookGetClassDevs, g_SetupDiGetClassDevsW);
    installer.Hook("SetupDiEnumDeviceInfo", &HookEnumDeviceInfo, g_SetupDiEnumDeviceInfo);
    installer.Hook("SetupDiGetDevicePropertyW", &HookGetProperty, g_SetupDiGetDevicePropertyW);
    installer.Hook("SetupDiEnumDeviceInterfaces", &HookEnumInterfaces, g_SetupDiEnumDeviceInterfaces);
    installer.Hook("SetupDiGetDeviceInterfaceDetailW", &HookInterfaceDetail, g_SetupDiGetDeviceInterfaceDetailW);
    installer.Hook("SetupDiDestroyDeviceInfoList", &HookDestroy, g_SetupDiDestroyDeviceInfoList);
    installer.Hook("SetupDiGetDeviceInfoListDetailW", &HookListDetail, g_SetupDiGetDeviceInfoListDetailW);
    installer.Hook("SetupDiRemoveDevice", &HookRemove, g_SetupDiRemoveDevice);
    installer.Hook("SetupDiSetClassInstallParamsW", &HookSetInstallParams, g_SetupDiSetClassInstallParamsW);
    installer.Hook("SetupDiCallClassInstaller", &HookCallInstaller, g_SetupDiCallClassInstaller);
    installer.Hook("SetupDiGetDeviceInstallParamsW", &HookGetInstallParams, g_SetupDiGetDeviceInstallParamsW);
    installer.Hook("CM_Get_Device_ID_ExW", &HookDeviceId, g_CM_Get_Device_ID_ExW);
    installer.Hook("CM_Get_DevNode_Status", &HookNodeStatus, g_CM_Get_DevNode_Status);
}

void Reset() {
    g_simSets.clear();
    g_nodeIds.clear();
    g_nodeOf.clear();
    g_liveIds.clear();
}

}  // namespace

size_t HeldSets() { return g_simSets.size(); }

const SourceDef kDeviceSource = {"devices", Validate, Install, Reset};

}  // namespace torvex::sim::detail
