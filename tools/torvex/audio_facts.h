// Codec facts of the audio class, shared by its report section and command.
#pragma once

#include <cstring>

#include "tool.h"

namespace tool {

// UTF-16 text answer of a query (no terminator) as UTF-8; *ok tells whether
// the library answered.
std::string WideAnswer(HalDeviceType type, void* record, uint32_t code, bool* ok);

// One subsection per codec (description, manufacturer, driver version,
// problem code); false with a note when the class answers 0.
bool CodecSections(std::vector<Section>& codecs, std::string& note);

}  // namespace tool
