// Placeholder until the module is built: the class answers 0, as the Hal API
// does for classes it does not serve.
#include "api/modules.h"

uint32_t DisplayColorInit(void**) { return 0; }
uint32_t DisplayColorQuery(void*, uint32_t, void*, uint32_t, uint32_t*) { return 0; }
uint32_t DisplayColorSet(void*, uint32_t, void*, uint32_t, uint32_t*, uint32_t) { return 0; }
