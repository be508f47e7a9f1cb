// Report section and command for the physical disks (class 7).
#include "tool.h"

namespace tool {
namespace {

std::string WideText(const Api& api, HalDiskRecord* disk, uint32_t code) {
    wchar_t text[256] = {};
    uint32_t written = 0;
    if (!api.HalQueryInformation(HAL_CLASS_DISK, disk, code, text, sizeof(text), &written)) return "";
    return Utf8(text, written / sizeof(wchar_t));
}

void DescribeDisk(const Api& api, HalDiskRecord* disk, Section& item) {
    struct TextCode {
        uint32_t code;
        const char* name;
    };
    for (const TextCode& t : {TextCode{HAL_DISK_CAPTION, "model"}, TextCode{HAL_DISK_SERIAL_NUMBER, "serial number"},
                              TextCode{HAL_DISK_FIRMWARE_REVISION, "firmware"}, TextCode{HAL_DISK_MEDIA_TYPE, "media type"}}) {
        const std::string text = WideText(api, disk, t.code);
        if (text.empty()) item.Missing(t.name, "not reported by WMI");
        else item.Text(t.name, text);
    }
    const bool open = api.HalOpenDevice(HAL_CLASS_DISK, disk) != 0;
    struct NumberCode {
        uint32_t code;
        const char* name;
        const char* unit;
    };
    for (const NumberCode& n : {NumberCode{HAL_DISK_CAPACITY_MIB, "capacity", "MiB"},
                                NumberCode{HAL_DISK_CAPACITY_GB, "capacity (decimal)", "GB"},
                                NumberCode{HAL_DISK_CAPACITY_MB, "capacity (decimal MB)", "MB"},
                                NumberCode{HAL_DISK_FREE_MIB, "free space", "MiB"}}) {
        uint64_t value = 0;
        uint32_t written = 0;
        if (api.HalQueryInformation(HAL_CLASS_DISK, disk, n.code, &value, sizeof(value), &written))
            item.Number(n.name, static_cast<double>(value), n.unit);
        else
            item.Missing(n.name, open ? "the drive did not answer" : "the drive could not be opened", n.unit);
    }
    uint32_t trim = 0, ssd = 0, written = 0;
    if (api.HalQueryInformation(HAL_CLASS_DISK, disk, HAL_DISK_TRIM_ENABLED, &trim, 4, &written))
        item.Text("TRIM enabled", trim ? "yes" : "no");
    else
        item.Missing("TRIM enabled", "the drive did not answer");
    if (api.HalQueryInformation(HAL_CLASS_DISK, disk, HAL_DISK_IS_SSD, &ssd, 4, &written))
        item.Text("solid-state (storage WMI)", ssd ? "yes" : "no");
    api.HalCloseDevice(HAL_CLASS_DISK, disk);
}

void Fill(Section& section) {
    const Api& api = Library();
    const auto disks = Init<HalDiskList>(HAL_CLASS_DISK);
    if (!disks.ready) {
        section.note = Refused(HAL_CLASS_DISK, "no drive listed");
        return;
    }
    HalDiskList* list = disks.get();
    section.Number("drives", list->count);
    for (uint32_t i = 0; i < list->count; ++i) {
        Section item;
        item.key = "disk";
        item.title = "disk " + std::to_string(list->records[i].driveNumber);
        DescribeDisk(api, &list->records[i], item);
        section.children.push_back(std::move(item));
    }
}

const SectionRegistration kSection(50, "disks", "Physical disks", Fill);

void PrintSection(const Section& section) {
    PrintLine(section.title);
    for (const Fact& fact : section.facts) {
        std::string value = fact.text ? *fact.text
                            : fact.number ? std::to_string(static_cast<unsigned long long>(*fact.number)) + " " + fact.unit
                                          : "not available (" + fact.reason + ")";
        PrintLine("  " + fact.name + ": " + value);
    }
}

int RunDisk(const std::vector<std::wstring>& args) {
    if (args.size() != 1) return UsageError("disk", "expected one drive number");
    const auto number = ParseNumber(args[0]);
    if (!number || *number > 0xFFFFFFFFull) return UsageError("disk", "malformed drive number " + Utf8(args[0]));
    HalDiskRecord disk{};
    disk.driveNumber = static_cast<uint32_t>(*number);
    Section item;
    item.title = "disk " + std::to_string(disk.driveNumber);
    DescribeDisk(Library(), &disk, item);
    PrintSection(item);
    return kExitOk;
}

const CommandRegistration kDisk("disk", "disk N", "show one physical drive (\\\\.\\PHYSICALDRIVEN)", "torvex disk 0",
                                RunDisk);

}  // namespace
}  // namespace tool
