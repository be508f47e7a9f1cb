// Wi-Fi radio (class 1): the HalWifiRecord of HalInit(1) and the radio state
// of its first interface.
#pragma once

#include <cstdint>

uint32_t WifiInit(void** out);
uint32_t WifiQueryInformation(void* record, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t WifiSetInformation(void* record, uint32_t code, const void* buffer, uint32_t size);
// Closes the client handle kept in the record (a null record is refused with 0).
uint32_t WifiClose(void* record);
