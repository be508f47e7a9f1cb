// Report section: Memory modules (class 13).
#include "tool.h"

namespace tool {
namespace {

void AddText(const Api& api, Section& module, HalMemoryModuleEntry* entry, HalMemoryCode code, const char* name) {
    char buffer[512];
    uint32_t written = 0;
    if (api.HalQueryInformation(HAL_CLASS_MEMORY, entry, code, buffer, sizeof(buffer), &written))
        module.Text(name, FromAnsi(buffer, written));
    else
        module.Missing(name, "not reported by WMI");
}

void Fill(Section& section) {
    const Api& api = Library();
    const auto modules = Init<HalMemoryModuleList>(HAL_CLASS_MEMORY);
    if (!modules.ready) {
        section.note = Refused(HAL_CLASS_MEMORY, "no module listed");
        return;
    }
    HalMemoryModuleList* list = modules.get();
    section.Number("modules", list->count);
    uint64_t totalMib = 0;
    for (uint32_t i = 0; i < list->count; ++i) {
        HalMemoryModuleEntry* entry = &list->entries[i];
        Section module;
        module.key = "module";
        module.title = "module " + std::to_string(i);
        AddText(api, module, entry, HAL_MM_SLOT, "slot");
        AddText(api, module, entry, HAL_MM_MANUFACTURER, "maker");
        AddText(api, module, entry, HAL_MM_PART_NUMBER, "part number");
        AddText(api, module, entry, HAL_MM_SERIAL_NUMBER, "serial number");

        // Sizes and clocks are written in full whatever size is passed: give them room.
        uint64_t mib = 0;
        uint32_t written = 0;
        if (api.HalQueryInformation(HAL_CLASS_MEMORY, entry, HAL_MM_CAPACITY_MIB, &mib, sizeof(mib), &written)) {
            module.Number("size", static_cast<double>(mib), "MiB");
            totalMib += mib;
        } else {
            module.Missing("size", "no capacity reported", "MiB");
        }
        uint32_t mhz = 0;
        if (api.HalQueryInformation(HAL_CLASS_MEMORY, entry, HAL_MM_CLOCK_MHZ, &mhz, sizeof(mhz), &written))
            module.Number("clock", mhz, "MHz");
        else
            module.Missing("clock", "no configured clock speed reported", "MHz");
        section.children.push_back(std::move(module));
    }
    section.Number("total size", static_cast<double>(totalMib), "MiB");
}

const SectionRegistration kSection(30, "memory", "Memory modules", Fill);

}  // namespace
}  // namespace tool
