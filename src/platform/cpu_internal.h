// CPU module internals shared with the enclave loader and the tests.
#pragma once

#include <cstdint>
#include <string>

namespace torvex {

// Text of a WMI cache Associativity value (trailing blanks included).
std::string AssociativityText(uint32_t associativity);

// Vendor classification of a processor name: 0 unknown, 1 Intel, 2 AMD, 3 Snapdragon.
uint32_t ClassifyCpuVendor(std::wstring name);

// Classifies the processor and stores the result in the module state.
uint32_t DetectCpuVendor();

}  // namespace torvex
