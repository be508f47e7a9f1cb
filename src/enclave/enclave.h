// Enclave encryption service (class 17). The two forwards make every check of
// HalQueryInformation(17) and HalControl(17) themselves.
#pragma once

#include <cstdint>

uint32_t EnclaveLoad();
uint32_t EnclaveQueryLength(uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t EnclaveControl(uint32_t code, const void* input, uint32_t inputSize, void* output, uint32_t outputSize,
                        uint32_t* returned);
