// Report section and command for the Wi-Fi radio (class 1).
#include "tool.h"

namespace tool {
namespace {

std::string RadioText(uint32_t state) {
    switch (state) {
    case 1: return "on";
    case 2: return "off";
    default: return "unknown (" + std::to_string(state) + ")";
    }
}

void Fill(Section& section) {
    const Api& api = Library();
    const auto wifi = Init<HalWifiRecord>(HAL_CLASS_WIFI);
    if (!wifi.ready) {
        section.note = Refused(HAL_CLASS_WIFI);
        return;
    }
    HalWifiRecord* record = wifi.get();
    section.Number("interfaces", record->count);
    for (uint32_t i = 0; i < record->count; ++i) {
        Section item;
        item.key = "interface";
        item.title = "interface " + std::to_string(i);
        item.Text("description", Utf8(record->interfaces[i].description, wcsnlen(record->interfaces[i].description, 256)));
        item.Number("state", record->interfaces[i].state);
        section.children.push_back(std::move(item));
    }
    if (record->count == 0) {
        section.Missing("radio", "no wireless interface");
    } else {
        HalWifiRadioState state{};
        uint32_t written = 0;
        if (api.HalQueryInformation(HAL_CLASS_WIFI, record, HAL_WIFI_RADIO_STATE, &state, sizeof(state), &written))
            section.Text("radio", RadioText(state.softwareRadioState));
        else
            section.Missing("radio", "the radio-state query was refused");
    }
    api.HalCloseDevice(HAL_CLASS_WIFI, record);
}

const SectionRegistration kSection(5, "wifi", "Wi-Fi radio", Fill);

int RunWifi(const std::vector<std::wstring>& args) {
    if (args.size() != 1 || (args[0] != L"on" && args[0] != L"off"))
        return UsageError("wifi", "expected 'on' or 'off'");
    const Api& api = Library();
    const auto wifi = Init<HalWifiRecord>(HAL_CLASS_WIFI);
    if (!wifi.ready) {
        PrintError("torvex wifi: HalInit(1) refused (no Native Wifi service)");
        return kExitRefused;
    }
    HalWifiRecord* record = wifi.get();
    int status = kExitOk;
    if (record->count == 0) {
        PrintError("torvex wifi: this machine has no wireless interface");
        status = kExitRefused;
    } else {
        uint32_t on = args[0] == L"on" ? 1 : 0;
        uint32_t written = 0;
        // The library reports a failed switch on the debug channel only, so
        // the state is read back to tell whether the radio really changed.
        HalWifiRadioState after{};
        const uint32_t wanted = on ? 1 : 2;
        if (api.HalSetInformation(HAL_CLASS_WIFI, record, HAL_WIFI_RADIO_STATE, &on, sizeof(on), &written, 0) &&
            api.HalQueryInformation(HAL_CLASS_WIFI, record, HAL_WIFI_RADIO_STATE, &after, sizeof(after), &written) &&
            after.softwareRadioState == wanted) {
            PrintLine("Wi-Fi radio of '" + Utf8(record->interfaces[0].description, wcsnlen(record->interfaces[0].description, 256)) + "' switched " +
                      Utf8(args[0]));
        } else {
            PrintError("torvex wifi: the library refused to switch the radio");
            status = kExitRefused;
        }
    }
    api.HalCloseDevice(HAL_CLASS_WIFI, record);
    return status;
}

const CommandRegistration kWifi("wifi", "wifi on|off", "switch the software radio of the first wireless interface",
                                "torvex wifi off", RunWifi);

}  // namespace
}  // namespace tool
