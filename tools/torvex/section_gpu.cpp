// Report section: GPU and screen (class 6).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_GPU); }

const SectionRegistration kSection(60, "gpu", "GPU and screen", Fill);

}  // namespace
}  // namespace tool
