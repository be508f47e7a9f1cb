// The screen as user32 reports it: system metrics, the current display mode
// per device name ("" for the default display) and the display devices.
//
//   "display": {"metrics": {"SM_CXSCREEN": 1920, "SM_CYSCREEN": 1080},
//               "modes": {"": {"width": 1920, "height": 1080, "bits_per_pixel": 32, "frequency_hz": 60}},
//               "devices": [{"name": "\\\\.\\DISPLAY1", "string": "Intel(R) Iris(R) Xe Graphics", "flags": 5}]}
#include <cstring>

#include "source.h"

namespace torvex::sim::detail {
namespace {

using GetSystemMetricsFn = int(WINAPI*)(int);
using EnumSettingsWFn = BOOL(WINAPI*)(LPCWSTR, DWORD, DEVMODEW*);
using EnumSettingsAFn = BOOL(WINAPI*)(LPCSTR, DWORD, DEVMODEA*);
using EnumDevicesAFn = BOOL(WINAPI*)(LPCSTR, DWORD, PDISPLAY_DEVICEA, DWORD);

GetSystemMetricsFn g_metrics = nullptr;
EnumSettingsWFn g_settingsW = nullptr;
EnumSettingsAFn g_settingsA = nullptr;
EnumDevicesAFn g_devices = nullptr;

const char* const kModeFields[] = {"width", "height", "bits_per_pixel", "frequency_hz"};
const char* const kDeviceFields[] = {"name", "string", "flags", "id", "key"};

std::string MetricName(int index) {
    if (index == SM_CXSCREEN) return "SM_CXSCREEN";
    if (index == SM_CYSCREEN) return "SM_CYSCREEN";
    return "SM_" + std::to_string(index);
}

std::string ModeKey(const std::string& device, DWORD mode) {
    return mode == ENUM_CURRENT_SETTINGS ? device : device + " #" + std::to_string(mode);
}

void Validate(const Json& display, const At& at) {
    ExpectObject(display, at);
    ExpectOnly(display, at, {"metrics", "modes", "devices"});
    if (display.contains("metrics")) {
        ExpectObject(display["metrics"], at / "metrics");
        for (const auto& [name, value] : display["metrics"].items()) {
            if (name.rfind("SM_", 0) != 0) Expected(at / "metrics" / name, "a metric named SM_CXSCREEN, SM_CYSCREEN or SM_<index>");
            ExpectInteger(value, at / "metrics" / name, INT32_MIN, INT32_MAX);
        }
    }
    if (display.contains("modes")) {
        ExpectObject(display["modes"], at / "modes");
        for (const auto& [device, mode] : display["modes"].items()) {
            if (mode.is_null()) continue;
            ExpectObject(mode, at / "modes" / device);
            ExpectOnly(mode, at / "modes" / device, {kModeFields[0], kModeFields[1], kModeFields[2], kModeFields[3]});
            for (const auto& [field, value] : mode.items()) ExpectUnsigned(value, at / "modes" / device / field, 0xFFFFFFFFu);
        }
    }
    if (display.contains("devices")) {
        ExpectArray(display["devices"], at / "devices");
        for (size_t i = 0; i < display["devices"].size(); ++i) {
            const Json& device = display["devices"][i];
            const At d = at / "devices" / i;
            ExpectObject(device, d);
            ExpectOnly(device, d, {kDeviceFields[0], kDeviceFields[1], kDeviceFields[2], kDeviceFields[3], kDeviceFields[4]});
            for (const char* field : {"name", "string", "id", "key"})
                if (device.contains(field)) ExpectString(device[field], d / field);
            if (device.contains("flags")) ExpectUnsigned(device["flags"], d / "flags", 0xFFFFFFFFu);
            // The texts live in fixed fields of the platform's record.
            for (const auto& [field, room] : {std::pair{"name", 32u}, {"string", 128u}, {"id", 128u}, {"key", 128u}})
                if (device.contains(field) && device[field].get<std::string>().size() >= room)
                    Expected(d / field, "a text shorter than the " + std::to_string(room) + " bytes of its field");
        }
    }
}

int WINAPI HookMetrics(int index) {
    Lock lock(Active().mutex);
    const std::string name = MetricName(index);
    int value = 0;
    if (Active().live()) {
        value = g_metrics(index);
    } else if (const Json* found = Replayed({"display", "metrics", name})) {
        value = found->get<int>();
    } else {
        Note("display", "metric " + name, "not in the profile", true);
        return 0;
    }
    Keep({"display", "metrics", name}, value);
    Note("display", "metric " + name, std::to_string(value), value == 0);
    return value;
}

// The mode of a device, live or replayed; null when there is none.
Json Mode(const std::string& device, DWORD mode, const std::function<bool(DWORD fields[4])>& live) {
    Lock lock(Active().mutex);
    const std::string key = ModeKey(device, mode);
    Json answer;
    if (Active().live()) {
        DWORD fields[4] = {};
        if (live(fields))
            answer = Json{{kModeFields[0], fields[0]}, {kModeFields[1], fields[1]}, {kModeFields[2], fields[2]}, {kModeFields[3], fields[3]}};
    } else if (const Json* found = Replayed({"display", "modes", key})) {
        answer = *found;
    } else {
        Note("display", "mode of \"" + device + "\"", "not in the profile", true);
        return nullptr;
    }
    Keep({"display", "modes", key}, answer);
    Note("display", "mode of \"" + device + "\"", answer.is_null() ? "none" : answer.dump(), answer.is_null());
    return answer;
}

template <typename DevMode>
BOOL FillMode(const Json& answer, DevMode* out) {
    if (answer.is_null() || out == nullptr) return FALSE;
    out->dmPelsWidth = answer.value(kModeFields[0], 0u);
    out->dmPelsHeight = answer.value(kModeFields[1], 0u);
    out->dmBitsPerPel = answer.value(kModeFields[2], 0u);
    out->dmDisplayFrequency = answer.value(kModeFields[3], 0u);
    out->dmFields |= DM_PELSWIDTH | DM_PELSHEIGHT | DM_BITSPERPEL | DM_DISPLAYFREQUENCY;
    return TRUE;
}

template <typename DevMode>
bool ReadFields(const DevMode& mode, DWORD fields[4]) {
    fields[0] = mode.dmPelsWidth;
    fields[1] = mode.dmPelsHeight;
    fields[2] = mode.dmBitsPerPel;
    fields[3] = mode.dmDisplayFrequency;
    return true;
}

BOOL WINAPI HookSettingsW(LPCWSTR device, DWORD mode, DEVMODEW* out) {
    return FillMode(Mode(Utf8(device), mode, [&](DWORD fields[4]) {
                        return g_settingsW(device, mode, out) && ReadFields(*out, fields);
                    }),
                    out);
}

BOOL WINAPI HookSettingsA(LPCSTR device, DWORD mode, DEVMODEA* out) {
    return FillMode(Mode(device != nullptr ? device : "", mode, [&](DWORD fields[4]) {
                        return g_settingsA(device, mode, out) && ReadFields(*out, fields);
                    }),
                    out);
}

void CopyText(const Json& device, const char* field, char* out, size_t room) {
    const std::string text = device.value(field, "");
    std::memset(out, 0, room);
    std::memcpy(out, text.data(), std::min(text.size(), room - 1));
}

BOOL WINAPI HookDevicesA(LPCSTR parent, DWORD index, PDISPLAY_DEVICEA out, DWORD flags) {
    if (parent != nullptr) return Active().live() ? g_devices(parent, index, out, flags) : FALSE;
    Lock lock(Active().mutex);
    const std::string call = "display device " + std::to_string(index);
    Json answer;
    if (Active().live()) {
        DISPLAY_DEVICEA device{};
        device.cb = sizeof(device);
        if (g_devices(nullptr, index, &device, flags))
            answer = Json{{"name", device.DeviceName}, {"string", device.DeviceString}, {"flags", device.StateFlags},
                          {"id", device.DeviceID}, {"key", device.DeviceKey}};
        if (Json* devices = KeepNode({"display", "devices"})) {
            if (!devices->is_array()) *devices = Json::array();
            if (!answer.is_null()) {
                while (devices->size() <= index) devices->push_back(Json::object());
                (*devices)[index] = answer;
            } else if (devices->size() > index) {
                devices->erase(devices->begin() + index, devices->end());
            }
        }
    } else {
        const Json* devices = Replayed({"display", "devices"});
        if (devices == nullptr) {
            Note("display", call, "not in the profile", true);
            return FALSE;
        }
        if (index < devices->size()) answer = (*devices)[index];
        Keep({"display", "devices"}, *devices);
    }
    if (answer.is_null() || out == nullptr || out->cb < sizeof(DISPLAY_DEVICEA)) {
        Note("display", call, "none", true);
        return FALSE;
    }
    CopyText(answer, "name", out->DeviceName, sizeof(out->DeviceName));
    CopyText(answer, "string", out->DeviceString, sizeof(out->DeviceString));
    CopyText(answer, "id", out->DeviceID, sizeof(out->DeviceID));
    CopyText(answer, "key", out->DeviceKey, sizeof(out->DeviceKey));
    out->StateFlags = answer.value("flags", 0u);
    Note("display", call, answer.value("name", ""), false);
    return TRUE;
}

void Install(Installer& installer) {
    installer.Hook("GetSystemMetrics", &HookMetrics, g_metrics);
    installer.Hook("EnumDisplaySettingsW", &HookSettingsW, g_settingsW);
    installer.Hook("EnumDisplaySettingsA", &HookSettingsA, g_settingsA);
    installer.Hook("EnumDisplayDevicesA", &HookDevicesA, g_devices);
}

}  // namespace

const SourceDef kDisplaySource = {"display", Validate, Install, nullptr};

}  // namespace torvex::sim::detail
