// Placeholder until the module is built: the class answers 0, as the Hal API
// does for classes it does not serve.
#include "torvex.h"

uint32_t GpInit(void**) { return 0; }
uint32_t GpQueryInforamtion(void*, int32_t, void*, uint32_t, uint32_t*) { return 0; }
