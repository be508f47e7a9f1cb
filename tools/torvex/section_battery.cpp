// Report section: Battery (class 8).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_BATTERY); }

const SectionRegistration kSection(40, "battery", "Battery", Fill);

}  // namespace
}  // namespace tool
