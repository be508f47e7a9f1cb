// Report section and command for the battery (class 8).
#include <cstdio>
#include <cstring>

#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) {
    const Api& api = Library();
    api.HalInit(HAL_CLASS_BATTERY, nullptr);
    uint32_t value = 0, written = 0;
    const bool present = api.HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_PRESENT, &value, 4, &written) != 0;
    section.Text("present", present ? "yes" : "no");
    for (auto [code, name] : {std::pair{HAL_BT_MANUFACTURER, "manufacturer"}, std::pair{HAL_BT_DEVICE_NAME, "name"}}) {
        char text[256] = {};
        if (api.HalQueryInformation(HAL_CLASS_BATTERY, nullptr, code, text, sizeof(text) - 1, &written))
            section.Text(name, FromAnsi(text, written));
        else
            section.Missing(name, "not reported");
    }
    struct NumberCode {
        uint32_t code;
        const char* name;
        const char* unit;
    };
    for (const NumberCode& n : {NumberCode{HAL_BT_REMAINING_MWH, "remaining capacity", "mWh"},
                                NumberCode{HAL_BT_FULL_CHARGED_MWH, "full-charged capacity", "mWh"},
                                NumberCode{HAL_BT_DESIGNED_MWH, "designed capacity", "mWh"},
                                NumberCode{HAL_BT_VOLTAGE_MV, "voltage", "mV"},
                                NumberCode{HAL_BT_DISCHARGE_RATE_MW, "discharge rate", "mW"},
                                NumberCode{HAL_BT_CHARGE_RATE_MW, "charge rate", "mW"}}) {
        if (api.HalQueryInformation(HAL_CLASS_BATTERY, nullptr, n.code, &value, 4, &written))
            section.Number(n.name, value, n.unit);
        else
            section.Missing(n.name, present ? "not reported in this state" : "no battery", n.unit);
    }
    if (api.HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_WEAR_CENTIPERCENT, &value, 4, &written))
        section.Number("wear", value / 100.0, "%");
    else
        section.Missing("wear", present ? "not reported" : "no battery", "%");
    if (api.HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_AC_LINE_STATUS, &value, 4, &written))
        section.Text("AC power", value == 1 ? "online" : value == 0 ? "offline" : "unknown");
    float reading = 0;
    if (api.HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_OEM_READING, &reading, 4, &written))
        section.Single("OEM reading", reading);
    else
        section.Missing("OEM reading", "no OEM firmware method");
    uint8_t pair[2] = {};
    if (api.HalQueryInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_CHARGE_CONTROL, pair, 2, &written))
        section.Text("charge control", std::to_string(pair[0]) + " / " + std::to_string(pair[1]));
    else
        section.Missing("charge control", "no OEM firmware method");
}

const SectionRegistration kSection(40, "battery", "Battery", Fill);

int RunBattery(const std::vector<std::wstring>& args) {
    if (args.size() != 3 || args[0] != L"charge-control")
        return UsageError("battery", "expected charge-control A B");
    uint8_t values[2];
    for (int i = 0; i < 2; ++i) {
        const auto value = ParseNumber(args[1 + i]);
        if (!value) return UsageError("battery", "malformed value " + Utf8(args[1 + i]));
        if (*value > 100) return UsageError("battery", "charge-control values go from 0 to 100, not " + Utf8(args[1 + i]));
        values[i] = static_cast<uint8_t>(*value);
    }
    uint32_t written = 0;
    if (!Library().HalSetInformation(HAL_CLASS_BATTERY, nullptr, HAL_BT_CHARGE_CONTROL, values, 2, &written, 0)) {
        PrintError("torvex battery: the firmware refused the charge-control values");
        return kExitRefused;
    }
    PrintLine("charge control set to " + std::to_string(values[0]) + " / " + std::to_string(values[1]));
    return kExitOk;
}

const CommandRegistration kBattery("battery", "battery charge-control A B",
                                   "write the OEM charge-control pair (each 0-100)",
                                   "torvex battery charge-control 60 80", RunBattery);

}  // namespace
}  // namespace tool
