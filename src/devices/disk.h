// Physical disks (class 7): the list of HalInit(7), the raw handle of one
// HalDiskRecord, and the class's queries.
#pragma once

#include <cstdint>

uint32_t GetPhysicalDiskCount();
uint32_t DiskInit(void** out);
// Opens \\.\PHYSICALDRIVEn as a query handle kept in the record; DiskClose closes and clears it.
uint32_t DiskOpen(void* record);
uint32_t DiskClose(void* record);
// HalRead and HalWrite: seek to the HalDiskOffset at `offset`, then read or write.
uint32_t DiskRead(void* record, uint32_t* offset, void* buffer, uint32_t size, uint32_t* bytesRead);
uint32_t DiskWrite(void* record, uint32_t* offset, const void* buffer, uint32_t size, uint32_t* bytesWritten);
uint32_t DiskQueryInformation(void* record, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
