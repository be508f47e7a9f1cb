// Report section: Physical disks (class 7).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_DISK); }

const SectionRegistration kSection(50, "disks", "Physical disks", Fill);

}  // namespace
}  // namespace tool
