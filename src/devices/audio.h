// Audio endpoints (class 5): the codec list of HalInit(5), the codecs' facts,
// and volume and mute of the default speaker and microphone.
#pragma once

#include <cstdint>

uint32_t AudioInit(void** out);
uint32_t AudioQueryInformation(void* record, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t AudioSetInformation(void* record, uint32_t code, const void* buffer, uint32_t size);
uint32_t AudioSetCallback(uint32_t which, void* callback);
// Releases the stored callbacks and endpoint interfaces.
uint32_t AudioClose();
