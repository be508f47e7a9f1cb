// Report section: Devices with driver problems (class 20).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_DRIVER); }

const SectionRegistration kSection(90, "drivers", "Devices with driver problems", Fill);

}  // namespace
}  // namespace tool
