// Report section: Display colour and brightness (class 19).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_DISPLAY); }

const SectionRegistration kSection(70, "display", "Display colour and brightness", Fill);

}  // namespace
}  // namespace tool
