// Placeholder until the module is built: the class answers 0, as the Hal API
// does for classes it does not serve.
#include "api/modules.h"

uint32_t EnclaveLoad() { return 0; }
uint32_t EnclaveQueryLength(uint32_t, void*, uint32_t, uint32_t*) { return 0; }
uint32_t EnclaveControl(uint32_t, const void*, uint32_t, void*, uint32_t, uint32_t*) { return 0; }
