// The registry under HKEY_LOCAL_MACHINE: keys the library opened and the
// values it read, with their types. A key or value recorded as null does not
// exist on the machine.
//
//   "registry": {"HARDWARE\\DESCRIPTION\\System\\BIOS": {"BIOSVendor": {"sz": "Insyde"}, "BIOSVersion": null}}
#include <cstring>
#include <map>

#include "source.h"

namespace torvex::sim::detail {
namespace {

using RegOpenKeyExWFn = LSTATUS(WINAPI*)(HKEY, LPCWSTR, DWORD, REGSAM, PHKEY);
using RegQueryValueExWFn = LSTATUS(WINAPI*)(HKEY, LPCWSTR, LPDWORD, LPDWORD, LPBYTE, LPDWORD);
using RegSetKeyValueWFn = LSTATUS(WINAPI*)(HKEY, LPCWSTR, LPCWSTR, DWORD, LPCVOID, DWORD);
using RegCloseKeyFn = LSTATUS(WINAPI*)(HKEY);

RegOpenKeyExWFn g_open = nullptr;
RegQueryValueExWFn g_query = nullptr;
RegSetKeyValueWFn g_set = nullptr;
RegCloseKeyFn g_close = nullptr;

// Keys handed to the library: live keys and made-up ones, by their path.
std::map<HKEY, std::string> g_keys;
uintptr_t g_nextKey = 0x7E570000;

struct TypeName {
    DWORD type;
    const char* name;
};
constexpr TypeName kTypes[] = {{REG_SZ, "sz"},         {REG_EXPAND_SZ, "expand_sz"}, {REG_MULTI_SZ, "multi_sz"},
                               {REG_DWORD, "dword"},   {REG_QWORD, "qword"},         {REG_BINARY, "binary"}};

// A value as JSON from its type and bytes.
Json Encode(DWORD type, const std::vector<uint8_t>& bytes) {
    auto text = [&](size_t from, size_t chars) {
        return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()) + from, chars);
    };
    const size_t chars = bytes.size() / sizeof(wchar_t);
    if (type == REG_SZ || type == REG_EXPAND_SZ) {
        std::wstring value = text(0, chars);
        value = value.substr(0, value.find(L'\0'));
        return Json{{type == REG_SZ ? "sz" : "expand_sz", Utf8(value)}};
    }
    if (type == REG_MULTI_SZ) {
        Json list = Json::array();
        for (size_t at = 0; at < chars;) {
            std::wstring entry = text(at, chars - at);
            entry = entry.substr(0, entry.find(L'\0'));
            if (entry.empty()) break;
            list.push_back(Utf8(entry));
            at += entry.size() + 1;
        }
        return Json{{"multi_sz", list}};
    }
    if (type == REG_DWORD && bytes.size() == 4) {
        uint32_t value;
        std::memcpy(&value, bytes.data(), 4);
        return Json{{"dword", value}};
    }
    if (type == REG_QWORD && bytes.size() == 8) {
        uint64_t value;
        std::memcpy(&value, bytes.data(), 8);
        return Json{{"qword", value}};
    }
    if (type == REG_BINARY) return Json{{"binary", Hex(bytes.data(), bytes.size())}};
    return Json{{"type", type}, {"binary", Hex(bytes.data(), bytes.size())}};
}

void Decode(const Json& value, DWORD& type, std::vector<uint8_t>& bytes) {
    auto wide = [&](const std::wstring& text) {
        const auto* data = reinterpret_cast<const uint8_t*>(text.c_str());
        bytes.insert(bytes.end(), data, data + (text.size() + 1) * sizeof(wchar_t));
    };
    bytes.clear();
    type = value.contains("type") ? value["type"].get<DWORD>() : REG_BINARY;
    for (const TypeName& entry : kTypes) {
        if (!value.contains(entry.name)) continue;
        if (!value.contains("type")) type = entry.type;
        const Json& data = value[entry.name];
        if (entry.type == REG_SZ || entry.type == REG_EXPAND_SZ) {
            wide(Wide(data.get<std::string>()));
        } else if (entry.type == REG_MULTI_SZ) {
            for (const Json& item : data) wide(Wide(item.get<std::string>()));
            wide(L"");
        } else if (entry.type == REG_DWORD) {
            const auto number = data.get<uint32_t>();
            bytes.assign(reinterpret_cast<const uint8_t*>(&number), reinterpret_cast<const uint8_t*>(&number) + 4);
        } else if (entry.type == REG_QWORD) {
            const auto number = data.get<uint64_t>();
            bytes.assign(reinterpret_cast<const uint8_t*>(&number), reinterpret_cast<const uint8_t*>(&number) + 8);
        } else {
            ParseHex(data.get<std::string>(), bytes);
        }
    }
}

void Validate(const Json& registry, const At& at) {
    ExpectObject(registry, at);
    for (const auto& [path, values] : registry.items()) {
        if (values.is_null()) continue;
        ExpectObject(values, at / path);
        for (const auto& [name, value] : values.items()) {
            const At v = at / path / name;
            if (value.is_null()) continue;
            const char* shape = "null or one of {\"sz\": text}, {\"expand_sz\": text}, {\"multi_sz\": [texts]}, "
                                "{\"dword\": n}, {\"qword\": n}, {\"binary\": hex}";
            if (!value.is_object() || value.empty()) Expected(v, shape);
            ExpectOnly(value, v, {"sz", "expand_sz", "multi_sz", "dword", "qword", "binary", "type"});
            size_t forms = 0;
            for (const TypeName& entry : kTypes) forms += value.contains(entry.name) ? 1 : 0;
            if (forms != 1) Expected(v, shape);
            if (value.contains("type")) ExpectUnsigned(value["type"], v / "type", 0xFFFFFFFFu);
            for (const char* text : {"sz", "expand_sz"})
                if (value.contains(text)) ExpectString(value[text], v / text);
            if (value.contains("multi_sz")) {
                ExpectArray(value["multi_sz"], v / "multi_sz");
                for (size_t i = 0; i < value["multi_sz"].size(); ++i) ExpectString(value["multi_sz"][i], v / "multi_sz" / i);
            }
            if (value.contains("dword")) ExpectUnsigned(value["dword"], v / "dword", 0xFFFFFFFFu);
            if (value.contains("qword")) ExpectUnsigned(value["qword"], v / "qword");
            if (value.contains("binary")) ExpectHex(value["binary"], v / "binary");
        }
    }
}

std::string PathOf(HKEY key) {
    auto it = g_keys.find(key);
    return it != g_keys.end() ? it->second : std::string();
}

LSTATUS WINAPI HookOpen(HKEY root, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY out) {
    if (root != HKEY_LOCAL_MACHINE || out == nullptr) return g_open(root, subKey, options, access, out);
    Lock lock(Active().mutex);
    const std::string path = Utf8(subKey);
    const std::string call = "HKLM\\" + path;
    LSTATUS status = ERROR_SUCCESS;
    if (Active().live()) {
        status = g_open(root, subKey, options, access, out);
        if (status == ERROR_SUCCESS) {
            if (Json* kept = KeepNode({"registry", path}); kept != nullptr && !kept->is_object()) *kept = Json::object();
        } else if (status == ERROR_FILE_NOT_FOUND) {
            Keep({"registry", path}, nullptr);
        }
    } else {
        const Json* key = Replayed({"registry", path});
        status = key != nullptr && key->is_object() ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
        if (key != nullptr) {
            if (Json* kept = KeepNode({"registry", path}); kept != nullptr && !kept->is_object())
                *kept = key->is_object() ? Json::object() : Json();
        }
        if (status == ERROR_SUCCESS) *out = reinterpret_cast<HKEY>(g_nextKey += 4);
        if (key == nullptr) {
            Note("registry", call, "not in the profile", true, "access " + HexNumber(access));
            return status;
        }
    }
    if (status == ERROR_SUCCESS) g_keys[*out] = path;
    Note("registry", call, status == ERROR_SUCCESS ? "opened" : "missing (error " + std::to_string(status) + ")",
         status != ERROR_SUCCESS, "access " + HexNumber(access));
    return status;
}

LSTATUS WINAPI HookQuery(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
    Lock lock(Active().mutex);
    if (g_keys.count(key) == 0) return g_query(key, name, reserved, type, data, size);
    const std::string path = PathOf(key), valueName = Utf8(name);
    const std::string call = "HKLM\\" + path + " " + (valueName.empty() ? std::string("(default)") : valueName);
    Json value;
    if (Active().live()) {
        DWORD needed = 0, kind = 0;
        LSTATUS status = g_query(key, name, nullptr, &kind, nullptr, &needed);
        std::vector<uint8_t> bytes(needed);
        if (status == ERROR_SUCCESS) status = g_query(key, name, nullptr, &kind, bytes.data(), &needed);
        if (status != ERROR_SUCCESS) {
            Keep({"registry", path, valueName}, nullptr);
            Note("registry", call, "missing", true);
            return status;
        }
        bytes.resize(needed);
        value = Encode(kind, bytes);
    } else {
        const Json* found = Replayed({"registry", path, valueName});
        if (found == nullptr || found->is_null()) {
            if (found != nullptr) Keep({"registry", path, valueName}, nullptr);
            Note("registry", call, found == nullptr ? "not in the profile" : "missing", true);
            return ERROR_FILE_NOT_FOUND;
        }
        value = *found;
    }
    Keep({"registry", path, valueName}, value);
    DWORD kind = 0;
    std::vector<uint8_t> bytes;
    Decode(value, kind, bytes);
    if (type != nullptr) *type = kind;
    const DWORD room = size != nullptr ? *size : 0;
    if (size != nullptr) *size = static_cast<DWORD>(bytes.size());
    if (data != nullptr && room < bytes.size()) {
        Note("registry", call, "found, " + std::to_string(bytes.size()) + " bytes: more than the " +
                                   std::to_string(room) + " bytes of room", true);
        return ERROR_MORE_DATA;
    }
    if (data != nullptr && !bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
    Note("registry", call, "found (" + value.dump() + ")", false, "room " + std::to_string(room) + " bytes");
    return ERROR_SUCCESS;
}

LSTATUS WINAPI HookSet(HKEY key, LPCWSTR subKey, LPCWSTR name, DWORD type, LPCVOID data, DWORD size) {
    Lock lock(Active().mutex);
    if (g_keys.count(key) == 0) return g_set(key, subKey, name, type, data, size);
    const std::string path = PathOf(key) + (subKey != nullptr && *subKey != 0 ? "\\" + Utf8(subKey) : std::string());
    const std::string call = "set HKLM\\" + path + " " + Utf8(name);
    const auto* bytes = static_cast<const uint8_t*>(data);
    const Json value = Encode(type, std::vector<uint8_t>(bytes, bytes + (data != nullptr ? size : 0)));
    LSTATUS status = ERROR_SUCCESS;
    if (Unchangeable("registry", call)) return ERROR_ACCESS_DENIED;
    if (Active().live()) {
        status = g_set(key, subKey, name, type, data, size);
    } else if (Json* values = ReplayedForChange({"registry", path}); values != nullptr && values->is_object()) {
        Slot(*values, Utf8(name)) = value;
    } else {
        status = ERROR_FILE_NOT_FOUND;
    }
    Note("registry", call, status == ERROR_SUCCESS ? "written " + value.dump() : "error " + std::to_string(status),
         status != ERROR_SUCCESS, "type " + std::to_string(type) + ", " + std::to_string(size) + " bytes");
    return status;
}

LSTATUS WINAPI HookClose(HKEY key) {
    Lock lock(Active().mutex);
    auto it = g_keys.find(key);
    if (it == g_keys.end()) return g_close(key);
    g_keys.erase(it);
    return Active().live() ? g_close(key) : ERROR_SUCCESS;
}

void Install(Installer& installer) {
    installer.Hook("RegOpenKeyExW", &HookOpen, g_open);
    installer.Hook("RegQueryValueExW", &HookQuery, g_query);
    installer.Hook("RegSetKeyValueW", &HookSet, g_set);
    installer.Hook("RegCloseKey", &HookClose, g_close);
}

void Reset() { g_keys.clear(); }

}  // namespace

size_t HeldKeys() { return g_keys.size(); }

const SourceDef kRegistrySource = {"registry", Validate, Install, Reset};

}  // namespace torvex::sim::detail
