// Placeholder until the module is built: the class answers 0, as the Hal API
// does for classes it does not serve.
#include "torvex.h"

uint32_t DeviceDriverInit(void**) { return 0; }
uint32_t DeviceDriverQueryInformation(void*, uint32_t, void*, uint32_t, uint32_t*) { return 0; }
