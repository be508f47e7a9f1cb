// Report section: CPU (class 0).
#include "tool.h"

namespace tool {
namespace {

const char* VendorName(uint32_t vendor) {
    switch (vendor) {
    case HAL_CPU_VENDOR_INTEL: return "Intel";
    case HAL_CPU_VENDOR_AMD: return "AMD";
    case HAL_CPU_VENDOR_SNAPDRAGON: return "Snapdragon";
    default: return "unknown";
    }
}

void Fill(Section& section) {
    const Api& api = Library();
    if (api.HalInit(HAL_CLASS_CPU, nullptr) == 0) {
        section.note = Refused(HAL_CLASS_CPU);
        return;
    }
    // The library's "L3", "L4" and "L5" caches are WMI's cache levels 3, 4 and 5 (Win32_CacheMemory
    // Level: 3 primary, 4 secondary, 5 tertiary), that is the first-, second- and third-level caches;
    // the report keeps the library's names and says so beside each.
    struct TextCode {
        uint32_t code;
        const char* name;
        const char* source;
    };
    const TextCode texts[] = {
        {HAL_CPU_NAME, "name", nullptr},
        {HAL_CPU_VENDOR_ID, "vendor identifier", nullptr},
        {HAL_CPU_L3_ASSOCIATIVITY, "L3 associativity",
         "WMI cache level 3, the first-level cache: its first row's Associativity in the library's words"},
        {HAL_CPU_L4_ASSOCIATIVITY, "L4 associativity",
         "WMI cache level 4, the second-level cache: its first row's Associativity in the library's words"},
        {HAL_CPU_L5_ASSOCIATIVITY, "L5 associativity",
         "WMI cache level 5, the third-level cache: its first row's Associativity in the library's words"}};
    for (const TextCode& t : texts) {
        uint8_t buffer[256] = {};
        uint32_t written = 0;
        if (api.HalQueryInformation(HAL_CLASS_CPU, nullptr, t.code, buffer, sizeof(buffer) - 1, &written))
            section.Text(t.name, FromAnsi(buffer, written));
        else
            section.Missing(t.name, "no answer from the registry or WMI");
        if (t.source != nullptr) section.Source(t.source);
    }
    struct NumberCode {
        uint32_t code;
        const char* name;
        const char* unit;
        const char* source = nullptr;
    };
    const NumberCode numbers[] = {
        {HAL_CPU_CORES, "cores", ""},
        {HAL_CPU_LOGICAL_PROCESSORS, "logical processors", ""},
        {HAL_CPU_CURRENT_CLOCK_MHZ, "current clock", "MHz"},
        {HAL_CPU_MAX_CLOCK_MHZ, "maximum clock", "MHz"},
        {HAL_CPU_EXTERNAL_CLOCK_MHZ, "external clock", "MHz"},
        {HAL_CPU_L3_SIZE_KB, "L3 size", "KB", "WMI cache level 3, the first-level caches: InstalledSize summed over its rows"},
        {HAL_CPU_L4_SIZE_KB, "L4 size", "KB", "WMI cache level 4, the second-level caches: InstalledSize summed over its rows"},
        {HAL_CPU_L5_SIZE_KB, "L5 size", "KB", "WMI cache level 5, the third-level cache: its first row's InstalledSize"},
        {HAL_CPU_LOAD_PERCENT, "load", "%"},
        {HAL_CPU_OEM_VALUE, "OEM value", ""}};
    for (const NumberCode& n : numbers) {
        uint32_t value = 0;
        uint32_t written = 0;
        if (api.HalQueryInformation(HAL_CLASS_CPU, nullptr, n.code, &value, sizeof(value), &written))
            section.Number(n.name, value, n.unit);
        else
            section.Missing(n.name, n.code == HAL_CPU_OEM_VALUE ? "no OEM firmware method" : "not reported, or 0",
                            n.unit);
        if (n.source != nullptr) section.Source(n.source);
    }
    uint32_t vendor = 0;
    uint32_t written = 0;
    if (api.HalQueryInformation(HAL_CLASS_CPU, nullptr, HAL_CPU_VENDOR_CLASS, &vendor, sizeof(vendor), &written))
        section.Text("vendor class", VendorName(vendor));
    uint32_t probe = 0;
    section.Text("extended CPUID leaf 0x80000008",
                 api.HalQueryInformation(HAL_CLASS_CPU, nullptr, HAL_CPU_EXTENDED_CPUID, &probe, 4, &written)
                     ? "present"
                     : "not probed (vendor is neither Intel nor AMD) or absent");
}

const SectionRegistration kSection(10, "cpu", "CPU", Fill);

}  // namespace
}  // namespace tool
