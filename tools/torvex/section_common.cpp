#include "tool.h"

namespace tool {

void InitOnlySection(Section& section, HalDeviceType type) {
    if (!Init(type).ready) {
        section.note = Refused(type);
        return;
    }
    section.Text("initialised", "yes");
}

std::string Refused(HalDeviceType type, const std::string& otherwise, const char* lead) {
    const std::string why = Why();
    return std::string(lead) + ": HalInit(" + std::to_string(type) + ") answered 0 (" + (why.empty() ? otherwise : why) + ")";
}

}  // namespace tool
