// What the Microsoft-ABI host has instead of a C runtime: the few kernel32
// functions it calls (declared here, imported through kernel32.def), output
// to standard output, check counting, and the heap walks.
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {
struct HeapEntry {  // PROCESS_HEAP_ENTRY
    void* data;
    uint32_t size;
    uint8_t overhead;
    uint8_t region;
    uint16_t flags;
    uint8_t rest[24];
};
static_assert(sizeof(HeapEntry) == 40, "PROCESS_HEAP_ENTRY is 40 bytes");

__declspec(dllimport) void* __stdcall GetStdHandle(uint32_t which);
__declspec(dllimport) int __stdcall WriteFile(void* file, const void* data, uint32_t size, uint32_t* written,
                                              void* overlapped);
__declspec(dllimport) __declspec(noreturn) void __stdcall ExitProcess(uint32_t code);
__declspec(dllimport) uint32_t __stdcall GetProcessHeaps(uint32_t count, void** heaps);
__declspec(dllimport) int __stdcall HeapValidate(void* heap, uint32_t flags, const void* block);
__declspec(dllimport) int __stdcall HeapWalk(void* heap, HeapEntry* entry);
__declspec(dllimport) int __stdcall HeapLock(void* heap);
__declspec(dllimport) int __stdcall HeapUnlock(void* heap);
__declspec(dllimport) void* __stdcall GetModuleHandleW(const wchar_t* name);
__declspec(dllimport) void* __stdcall GetProcAddress(void* module, const char* name);
}

namespace host {

void Print(const char* text);
void Print(const wchar_t* text);  // printed as ASCII; other units as '?'
void PrintNumber(uint64_t value);

// Counts a check; prints "FAIL <what>" when it does not hold (the first
// hundred times).
bool Check(bool holds, const char* what);
bool Check(bool holds, const char* what, const char* detail);
uint32_t Failures();
uint32_t Checks();

// Bytes in busy blocks of every heap of the process.
uint64_t BusyHeapBytes();
// HeapValidate of every heap of the process.
bool HeapsValid();

size_t Length(const char* text);

}  // namespace host

// The host's checks; the entry point exits with 0 when it returns true.
bool RunHost();
