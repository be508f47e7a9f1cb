// Report section: Mainboard and BIOS (class 4).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_MAINBOARD); }

const SectionRegistration kSection(20, "mainboard", "Mainboard and BIOS", Fill);

}  // namespace
}  // namespace tool
