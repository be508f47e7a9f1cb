// Report section: Mainboard and BIOS (class 4).
#include "tool.h"

namespace tool {
namespace {

struct Item {
    HalMainboardCode code;
    const char* name;
};
const Item kItems[] = {
    {HAL_MB_PRODUCT, "board product"},
    {HAL_MB_MANUFACTURER, "board manufacturer"},
    {HAL_MB_VERSION, "board version"},
    {HAL_MB_SERIAL_NUMBER, "board serial number"},
    {HAL_MB_BIOS_VERSION, "BIOS version"},
    {HAL_MB_BIOS_VENDOR, "BIOS vendor"},
    {HAL_MB_BIOS_RELEASE_DATE, "BIOS release date"},
};

// YYYYMMDD shown as YYYY-MM-DD; anything else as it came.
std::string DateText(const std::string& date) {
    if (date.size() != 8) return date;
    return date.substr(0, 4) + "-" + date.substr(4, 2) + "-" + date.substr(6, 2);
}

void Fill(Section& section) {
    const Api& api = Library();
    for (const Item& item : kItems) {
        char buffer[512];
        uint32_t written = 0;
        if (api.HalQueryInformation(HAL_CLASS_MAINBOARD, nullptr, item.code, buffer, sizeof(buffer), &written) == 0) {
            section.Missing(item.name, "not reported by the registry or WMI");
            continue;
        }
        const std::string text = FromAnsi(buffer, written);
        section.Text(item.name, item.code == HAL_MB_BIOS_RELEASE_DATE ? DateText(text) : text);
    }
}

const SectionRegistration kSection(20, "mainboard", "Mainboard and BIOS", Fill);

}  // namespace
}  // namespace tool
