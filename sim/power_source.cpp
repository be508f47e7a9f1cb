// Power: the power status, the battery state from the power information
// call, and the active power scheme with the values the library read or wrote.
//
//   "power": {"status": {"ac_line_status": 1, "battery_flag": 8, ...},
//             "battery_state": {"ac_on_line": true, "max_capacity_mwh": 52000, ...},
//             "scheme": {"active": "{381B4222-...}", "values": {"{7516B95F-...}/{ADED5E82-...}": {"ac": 70, "dc": 30}}}}
#include <windows.h>
#include <powrprof.h>

#include <cstring>
#include <set>

#include "source.h"

namespace torvex::sim::detail {
namespace {

using GetSystemPowerStatusFn = BOOL(WINAPI*)(LPSYSTEM_POWER_STATUS);
using CallNtPowerInformationFn = LONG(WINAPI*)(POWER_INFORMATION_LEVEL, PVOID, ULONG, PVOID, ULONG);
using GetActiveSchemeFn = DWORD(WINAPI*)(HKEY, GUID**);
using ReadValueFn = DWORD(WINAPI*)(HKEY, const GUID*, const GUID*, const GUID*, LPDWORD);
using WriteValueFn = DWORD(WINAPI*)(HKEY, const GUID*, const GUID*, const GUID*, DWORD);
using SetActiveSchemeFn = DWORD(WINAPI*)(HKEY, const GUID*);

GetSystemPowerStatusFn g_status = nullptr;
CallNtPowerInformationFn g_information = nullptr;
GetActiveSchemeFn g_getScheme = nullptr;
ReadValueFn g_readAc = nullptr, g_readDc = nullptr;
WriteValueFn g_writeAc = nullptr, g_writeDc = nullptr;
SetActiveSchemeFn g_setScheme = nullptr;
HLOCAL(WINAPI* g_localFree)(HLOCAL) = nullptr;
std::set<void*> g_schemes;  // scheme GUIDs handed to the library and not yet freed

constexpr LONG kNotImplemented = static_cast<LONG>(0xC0000002);

// Fields of the two records, in the order of the platform's structures.
const char* const kStatusFields[] = {"ac_line_status", "battery_flag", "battery_life_percent", "system_status_flag",
                                     "battery_life_time_s", "battery_full_life_time_s"};
const char* const kBatteryFlags[] = {"ac_on_line", "battery_present", "charging", "discharging"};
const char* const kBatteryNumbers[] = {"max_capacity_mwh", "remaining_capacity_mwh", "rate_mw", "estimated_time_s",
                                       "default_alert1_mwh", "default_alert2_mwh"};

Json EncodeStatus(const SYSTEM_POWER_STATUS& s) {
    return Json{{kStatusFields[0], s.ACLineStatus},   {kStatusFields[1], s.BatteryFlag},
                {kStatusFields[2], s.BatteryLifePercent}, {kStatusFields[3], s.Reserved1},
                {kStatusFields[4], s.BatteryLifeTime}, {kStatusFields[5], s.BatteryFullLifeTime}};
}

SYSTEM_POWER_STATUS DecodeStatus(const Json& j) {
    SYSTEM_POWER_STATUS s{};
    s.ACLineStatus = j.value(kStatusFields[0], 255);
    s.BatteryFlag = j.value(kStatusFields[1], 255);
    s.BatteryLifePercent = j.value(kStatusFields[2], 255);
    s.Reserved1 = j.value(kStatusFields[3], 0);
    s.BatteryLifeTime = j.value(kStatusFields[4], 0xFFFFFFFFu);
    s.BatteryFullLifeTime = j.value(kStatusFields[5], 0xFFFFFFFFu);
    return s;
}

Json EncodeBattery(const SYSTEM_BATTERY_STATE& b) {
    return Json{{kBatteryFlags[0], b.AcOnLine != 0},  {kBatteryFlags[1], b.BatteryPresent != 0},
                {kBatteryFlags[2], b.Charging != 0},  {kBatteryFlags[3], b.Discharging != 0},
                {kBatteryNumbers[0], b.MaxCapacity},  {kBatteryNumbers[1], b.RemainingCapacity},
                {kBatteryNumbers[2], static_cast<LONG>(b.Rate)}, {kBatteryNumbers[3], b.EstimatedTime},
                {kBatteryNumbers[4], b.DefaultAlert1}, {kBatteryNumbers[5], b.DefaultAlert2}};
}

SYSTEM_BATTERY_STATE DecodeBattery(const Json& j) {
    SYSTEM_BATTERY_STATE b{};
    b.AcOnLine = j.value(kBatteryFlags[0], false);
    b.BatteryPresent = j.value(kBatteryFlags[1], false);
    b.Charging = j.value(kBatteryFlags[2], false);
    b.Discharging = j.value(kBatteryFlags[3], false);
    b.MaxCapacity = j.value(kBatteryNumbers[0], 0u);
    b.RemainingCapacity = j.value(kBatteryNumbers[1], 0u);
    b.Rate = static_cast<ULONG>(j.value(kBatteryNumbers[2], 0));
    b.EstimatedTime = j.value(kBatteryNumbers[3], 0u);
    b.DefaultAlert1 = j.value(kBatteryNumbers[4], 0u);
    b.DefaultAlert2 = j.value(kBatteryNumbers[5], 0u);
    return b;
}

void Validate(const Json& power, const At& at) {
    ExpectObject(power, at);
    ExpectOnly(power, at, {"status", "battery_state", "scheme"});
    if (power.contains("status")) {
        const Json& s = power["status"];
        const At a = at / "status";
        ExpectObject(s, a);
        if (s.contains("error")) {
            ExpectOnly(s, a, {"error"});
            ExpectError(s["error"], a / "error");
        } else {
            ExpectOnly(s, a, {kStatusFields[0], kStatusFields[1], kStatusFields[2], kStatusFields[3], kStatusFields[4],
                              kStatusFields[5]});
            for (int i = 0; i < 4; ++i)
                if (s.contains(kStatusFields[i])) ExpectUnsigned(s[kStatusFields[i]], a / kStatusFields[i], 255);
            for (int i = 4; i < 6; ++i)
                if (s.contains(kStatusFields[i])) ExpectUnsigned(s[kStatusFields[i]], a / kStatusFields[i], 0xFFFFFFFFu);
        }
    }
    if (power.contains("battery_state")) {
        const Json& b = power["battery_state"];
        const At a = at / "battery_state";
        ExpectObject(b, a);
        if (b.contains("status")) {
            ExpectOnly(b, a, {"status"});
            ExpectError(b["status"], a / "status");
        } else {
            for (const auto& [key, value] : b.items()) {
                bool flag = false, number = false;
                for (const char* name : kBatteryFlags) flag = flag || key == name;
                for (const char* name : kBatteryNumbers) number = number || key == name;
                if (flag) ExpectBool(value, a / key);
                else if (key == "rate_mw") ExpectInteger(value, a / key, INT32_MIN, INT32_MAX);
                else if (number) ExpectUnsigned(value, a / key, 0xFFFFFFFFu);
                else Expected(a / key, "no such member of the battery state");
            }
        }
    }
    if (power.contains("scheme")) {
        const Json& s = power["scheme"];
        const At a = at / "scheme";
        ExpectObject(s, a);
        ExpectOnly(s, a, {"active", "error", "values"});
        if (s.contains("active")) ExpectGuid(s["active"], a / "active");
        if (s.contains("error")) ExpectError(s["error"], a / "error");
        if (s.contains("values")) {
            ExpectObject(s["values"], a / "values");
            for (const auto& [key, value] : s["values"].items()) {
                GUID guid;
                if (key.size() != 77 || key[38] != '/' || !ParseGuid(key.substr(0, 38), guid) || !ParseGuid(key.substr(39), guid))
                    Expected(a / "values" / key, "\"{SUBGROUP}/{SETTING}\"");
                ExpectObject(value, a / "values" / key);
                ExpectOnly(value, a / "values" / key, {"ac", "dc"});
                for (const char* side : {"ac", "dc"})
                    if (value.contains(side)) ExpectUnsigned(value[side], a / "values" / key / side, 0xFFFFFFFFu);
            }
        }
    }
}

BOOL WINAPI HookStatus(LPSYSTEM_POWER_STATUS out) {
    Lock lock(Active().mutex);
    Json answer;
    if (Active().live()) {
        SYSTEM_POWER_STATUS status{};
        answer = g_status(&status) ? EncodeStatus(status) : Json{{"error", HresultText(static_cast<long>(GetLastError()))}};
    } else if (const Json* found = Replayed({"power", "status"})) {
        answer = *found;
    } else {
        Note("power", "power status", "not in the profile", true);
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    Keep({"power", "status"}, answer);
    if (answer.contains("error")) {
        Note("power", "power status", "error " + std::to_string(ErrorCode(answer["error"])), true);
        SetLastError(static_cast<DWORD>(ErrorCode(answer["error"])));
        return FALSE;
    }
    if (out == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *out = DecodeStatus(answer);
    Note("power", "power status", answer.dump(), false);
    return TRUE;
}

LONG WINAPI HookInformation(POWER_INFORMATION_LEVEL level, PVOID in, ULONG inSize, PVOID out, ULONG outSize) {
    Lock lock(Active().mutex);
    const std::string call = "power information " + std::to_string(level);
    if (level != SystemBatteryState) {
        const LONG status = Active().live() ? g_information(level, in, inSize, out, outSize) : kNotImplemented;
        Note("power", call, status == 0 ? "answered" : "status " + HresultText(status), status != 0);
        return status;
    }
    Json answer;
    if (Active().live()) {
        SYSTEM_BATTERY_STATE state{};
        const LONG status = g_information(level, in, inSize, &state, sizeof(state));
        answer = status == 0 ? EncodeBattery(state) : Json{{"status", HresultText(status)}};
    } else if (const Json* found = Replayed({"power", "battery_state"})) {
        answer = *found;
    } else {
        Note("power", "battery state", "not in the profile", true);
        return kNotImplemented;
    }
    Keep({"power", "battery_state"}, answer);
    if (answer.contains("status")) {
        const auto status = static_cast<LONG>(ErrorCode(answer["status"]));
        Note("power", "battery state", "status " + HresultText(status), true);
        return status;
    }
    if (out == nullptr || outSize < sizeof(SYSTEM_BATTERY_STATE)) return static_cast<LONG>(0xC0000023);  // buffer too small
    const SYSTEM_BATTERY_STATE state = DecodeBattery(answer);
    std::memcpy(out, &state, sizeof(state));
    Note("power", "battery state", answer.dump(), false);
    return 0;
}

DWORD WINAPI HookGetScheme(HKEY root, GUID** scheme) {
    Lock lock(Active().mutex);
    if (Active().live()) {
        const DWORD result = g_getScheme(root, scheme);
        if (result == ERROR_SUCCESS && scheme != nullptr && *scheme != nullptr) {
            Keep({"power", "scheme", "active"}, GuidText(**scheme));
            g_schemes.insert(*scheme);
        } else {
            Keep({"power", "scheme", "error"}, HresultText(static_cast<long>(result)));
        }
        Note("power", "active scheme", result == 0 ? GuidText(**scheme) : "error " + std::to_string(result), result != 0);
        return result;
    }
    const Json* active = Replayed({"power", "scheme", "active"});
    if (active == nullptr || scheme == nullptr) {
        const Json* error = Replayed({"power", "scheme", "error"});
        const DWORD result = error != nullptr ? static_cast<DWORD>(ErrorCode(*error)) : ERROR_FILE_NOT_FOUND;
        if (error != nullptr) Keep({"power", "scheme", "error"}, HresultText(static_cast<long>(result)));
        Note("power", "active scheme", error != nullptr ? "error " + std::to_string(result) : "not in the profile", true);
        return result;
    }
    Keep({"power", "scheme", "active"}, *active);
    auto* guid = static_cast<GUID*>(LocalAlloc(LPTR, sizeof(GUID)));
    if (guid == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    ParseGuid(active->get<std::string>(), *guid);
    *scheme = guid;
    g_schemes.insert(guid);
    Note("power", "active scheme", active->get<std::string>(), false);
    return ERROR_SUCCESS;
}

std::string ValueKey(const GUID* subgroup, const GUID* setting) {
    return (subgroup != nullptr ? GuidText(*subgroup) : GuidText(GUID{})) + "/" +
           (setting != nullptr ? GuidText(*setting) : GuidText(GUID{}));
}

DWORD ReadValue(const char* side, ReadValueFn real, HKEY root, const GUID* scheme, const GUID* subgroup,
                const GUID* setting, LPDWORD value) {
    Lock lock(Active().mutex);
    const std::string key = ValueKey(subgroup, setting);
    const std::string call = std::string("read ") + side + " " + key;
    DWORD result = ERROR_SUCCESS, number = 0;
    if (Active().live()) {
        result = real(root, scheme, subgroup, setting, &number);
    } else if (const Json* found = Replayed({"power", "scheme", "values", key, side})) {
        number = found->get<DWORD>();
    } else {
        result = ERROR_FILE_NOT_FOUND;
    }
    if (result == ERROR_SUCCESS) {
        Keep({"power", "scheme", "values", key, side}, number);
        if (value != nullptr) *value = number;
    }
    Note("power", call, result == 0 ? std::to_string(number) : "error " + std::to_string(result), result != 0);
    return result;
}

DWORD WriteValue(const char* side, WriteValueFn real, HKEY root, const GUID* scheme, const GUID* subgroup,
                 const GUID* setting, DWORD value) {
    Lock lock(Active().mutex);
    const std::string key = ValueKey(subgroup, setting);
    if (Unchangeable("power", std::string("write ") + side + " " + key)) return ERROR_ACCESS_DENIED;
    DWORD result = ERROR_SUCCESS;
    if (Active().live()) {
        result = real(root, scheme, subgroup, setting, value);
    } else if (Json* values = ReplayedForChange({"power", "scheme"}); values != nullptr) {
        Slot(Slot(*values, "values"), key)[side] = value;
    } else {
        result = ERROR_FILE_NOT_FOUND;
    }
    Note("power", std::string("write ") + side + " " + key + " = " + std::to_string(value),
         result == 0 ? "written" : "error " + std::to_string(result), result != 0);
    return result;
}

DWORD WINAPI HookReadAc(HKEY r, const GUID* s, const GUID* g, const GUID* k, LPDWORD v) { return ReadValue("ac", g_readAc, r, s, g, k, v); }
DWORD WINAPI HookReadDc(HKEY r, const GUID* s, const GUID* g, const GUID* k, LPDWORD v) { return ReadValue("dc", g_readDc, r, s, g, k, v); }
DWORD WINAPI HookWriteAc(HKEY r, const GUID* s, const GUID* g, const GUID* k, DWORD v) { return WriteValue("ac", g_writeAc, r, s, g, k, v); }
DWORD WINAPI HookWriteDc(HKEY r, const GUID* s, const GUID* g, const GUID* k, DWORD v) { return WriteValue("dc", g_writeDc, r, s, g, k, v); }

DWORD WINAPI HookSetScheme(HKEY root, const GUID* scheme) {
    Lock lock(Active().mutex);
    if (Unchangeable("power", "apply scheme")) return ERROR_ACCESS_DENIED;
    const DWORD result = Active().live() ? g_setScheme(root, scheme)
                         : Replayed({"power", "scheme", "active"}) != nullptr ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
    Note("power", "apply scheme", result == 0 ? "applied" : "error " + std::to_string(result), result != 0);
    return result;
}

// The scheme GUID goes back with LocalFree; freeing it is traced, so that a
// test sees the library let it go. Other memory passes through untouched.
HLOCAL WINAPI HookLocalFree(HLOCAL memory) {
    {
        Lock lock(Active().mutex);
        if (g_schemes.erase(memory) != 0) Note("power", "free scheme", "freed", false);
    }
    return g_localFree(memory);
}

void Install(Installer& installer) {
    installer.Hook("LocalFree", &HookLocalFree, g_localFree);
    installer.Hook("GetSystemPowerStatus", &HookStatus, g_status);
    installer.Hook("CallNtPowerInformation", &HookInformation, g_information);
    installer.Hook("PowerGetActiveScheme", &HookGetScheme, g_getScheme);
    installer.Hook("PowerReadACValueIndex", &HookReadAc, g_readAc);
    installer.Hook("PowerReadDCValueIndex", &HookReadDc, g_readDc);
    installer.Hook("PowerWriteACValueIndex", &HookWriteAc, g_writeAc);
    installer.Hook("PowerWriteDCValueIndex", &HookWriteDc, g_writeDc);
    installer.Hook("PowerSetActiveScheme", &HookSetScheme, g_setScheme);
}

void Reset() { g_schemes.clear(); }

}  // namespace

const SourceDef kPowerSource = {"power", Validate, Install, Reset};

}  // namespace torvex::sim::detail
