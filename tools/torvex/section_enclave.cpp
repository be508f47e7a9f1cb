// Report section: enclave encryption service (class 17).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) {
    if (Library().HalInit(HAL_CLASS_ENCLAVE, nullptr) == 0) {
        section.note = Refused(HAL_CLASS_ENCLAVE, "the processor does not qualify");
        return;
    }
    section.Text("service", "loaded");
}

const SectionRegistration kSection(100, "enclave", "Enclave encryption service", Fill);

}  // namespace
}  // namespace tool
