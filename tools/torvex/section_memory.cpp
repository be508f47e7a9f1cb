// Report section: Memory modules (class 13).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_MEMORY); }

const SectionRegistration kSection(30, "memory", "Memory modules", Fill);

}  // namespace
}  // namespace tool
