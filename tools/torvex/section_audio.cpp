// Report section: Audio codecs (class 5).
#include "tool.h"

namespace tool {
namespace {

void Fill(Section& section) { InitOnlySection(section, HAL_CLASS_AUDIO); }

const SectionRegistration kSection(80, "audio", "Audio codecs", Fill);

}  // namespace
}  // namespace tool
