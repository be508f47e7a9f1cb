// Mainboard and BIOS (class 4).
#include "torvex.h"

// The mainboard, the battery and the GPU need no record and accept no set:
// BtInit is exported as this same function and GpSetInformation as
// MbSetInformation (see Torvex.def).
uint32_t MbInit() { return 1; }
uint32_t MbSetInformation(uint32_t, void*, uint32_t, uint32_t*) { return 0; }

// Placeholder until the module is built: answers 0.
uint32_t MbQueryInformation(uint32_t, void*, uint32_t, uint32_t*) { return 0; }
