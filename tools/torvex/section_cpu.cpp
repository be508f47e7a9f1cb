// Report section: CPU (class 0).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_CPU); }

const SectionRegistration kSection(10, "cpu", "CPU", Fill);

}  // namespace
}  // namespace tool
