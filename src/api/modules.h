// Module functions that the Hal API frame forwards to. The exported module
// entry points (CpuQueryInformation, GpInit, ...) are declared in torvex.h;
// the ones below are reached only through the frame.
#pragma once

#include <cstdint>

// Wi-Fi radio (class 1).
uint32_t WifiInit(void** out);
uint32_t WifiQueryInformation(void* record, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t WifiSetInformation(void* record, uint32_t code, const void* buffer, uint32_t size);
// Closes the client handle kept in the record (a null record is refused with 0).
uint32_t WifiClose(void* record);

// Audio endpoints (class 5). AudioClose releases the stored callbacks and
// endpoint interfaces.
uint32_t AudioInit(void** out);
uint32_t AudioQueryInformation(void* record, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t AudioSetInformation(void* record, uint32_t code, const void* buffer, uint32_t size);
uint32_t AudioSetCallback(uint32_t which, void* callback);
uint32_t AudioClose();

// Physical disks (class 7). The list itself is built by the frame.
uint32_t GetPhysicalDiskCount();
uint32_t DiskOpen(void* record);
uint32_t DiskQueryInformation(void* record, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);

// Enclave encryption service (class 17). The two forwards make every check
// of HalQueryInformation(17) and HalControl(17) themselves.
uint32_t EnclaveLoad();
uint32_t EnclaveQueryLength(uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t EnclaveControl(uint32_t code, const void* input, uint32_t inputSize, void* output, uint32_t outputSize,
                        uint32_t* returned);

// Display colour and brightness (class 19).
uint32_t DisplayColorInit(void** out);
uint32_t DisplayColorQuery(void* context, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t DisplayColorSet(void* context, uint32_t code, void* input, uint32_t inputSize, uint32_t* arg5,
                         uint32_t arg6);
