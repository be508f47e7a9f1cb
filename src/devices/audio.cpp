// Placeholder until the module is built: the class answers 0, as the Hal API
// does for classes it does not serve.
#include "api/modules.h"

uint32_t AudioInit(void**) { return 0; }
uint32_t AudioQueryInformation(void*, uint32_t, void*, uint32_t, uint32_t*) { return 0; }
uint32_t AudioSetInformation(void*, uint32_t, const void*, uint32_t) { return 0; }
uint32_t AudioSetCallback(uint32_t, void*) { return 0; }
uint32_t AudioClose() { return 0; }
