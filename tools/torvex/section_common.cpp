#include "tool.h"

namespace tool {

void InitOnlySection(Section& section, HalDeviceType type) {
    void* record = nullptr;
    if (Library().HalInit(type, &record) == 0) {
        section.note = "not available: HalInit(" + std::to_string(type) + ") answered 0";
        return;
    }
    section.Text("initialised", "yes");
    FreeRecord(record);
}

}  // namespace tool
