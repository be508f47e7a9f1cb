// Report section: Enclave encryption service (class 17).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_ENCLAVE); }

const SectionRegistration kSection(100, "enclave", "Enclave encryption service", Fill);

}  // namespace
}  // namespace tool
