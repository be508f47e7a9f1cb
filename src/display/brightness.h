// Display brightness of the active power scheme (video subgroup), for the
// current power source. Arguments are passed by address.
#pragma once

#include <cstdint>

namespace torvex::display {

// Writes the 20-byte BrightnessRange (current, 0, 0, 100, 0) and sets the length.
uint32_t QueryLight(void** buffer, uint32_t* size, uint32_t** outLen);
// Writes the u32 percent at *input into the active scheme and applies it.
uint32_t SetLight(void** input, uint32_t* inputSize);

}  // namespace torvex::display
