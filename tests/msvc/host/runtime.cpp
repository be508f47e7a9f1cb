// The Microsoft-ABI host's stand-in for C runtime start-up: entry point,
// memory functions, output, checks and heap walks (runtime.h).
#include "runtime.h"

#include "host_library.h"

extern "C" {

int _fltused = 0;

void* __cdecl memcpy(void* to, const void* from, size_t bytes) {
    auto* out = static_cast<unsigned char*>(to);
    const auto* in = static_cast<const unsigned char*>(from);
    while (bytes-- != 0) *out++ = *in++;
    return to;
}

void* __cdecl memmove(void* to, const void* from, size_t bytes) {
    auto* out = static_cast<unsigned char*>(to);
    const auto* in = static_cast<const unsigned char*>(from);
    if (out < in) return memcpy(to, from, bytes);
    while (bytes-- != 0) out[bytes] = in[bytes];
    return to;
}

void* __cdecl memset(void* to, int value, size_t bytes) {
    auto* out = static_cast<unsigned char*>(to);
    while (bytes-- != 0) *out++ = static_cast<unsigned char>(value);
    return to;
}

int __cdecl memcmp(const void* a, const void* b, size_t bytes) {
    const auto* x = static_cast<const unsigned char*>(a);
    const auto* y = static_cast<const unsigned char*>(b);
    for (; bytes != 0; --bytes, ++x, ++y)
        if (*x != *y) return *x < *y ? -1 : 1;
    return 0;
}

void __cdecl HostMain() { ExitProcess(RunHost() && host::Failures() == 0 ? 0 : 1); }

}  // extern "C"

namespace host {
namespace {

constexpr uint32_t kStandardOutput = static_cast<uint32_t>(-11);
constexpr uint16_t kBusyEntry = 0x0004;  // PROCESS_HEAP_ENTRY_BUSY
constexpr uint32_t kPrintedFailures = 100;
uint32_t g_checks = 0;
uint32_t g_failures = 0;

void Write(const char* text, size_t length) {
    uint32_t written = 0;
    WriteFile(GetStdHandle(kStandardOutput), text, static_cast<uint32_t>(length), &written, nullptr);
}

// Every heap of the process, a few more than there are today.
uint32_t Heaps(void** heaps, uint32_t room) {
    const uint32_t count = GetProcessHeaps(room, heaps);
    return count < room ? count : room;
}

}  // namespace

size_t Length(const char* text) {
    size_t length = 0;
    while (text[length] != '\0') ++length;
    return length;
}

void Print(const char* text) { Write(text, Length(text)); }

void Print(const wchar_t* text) {
    char line[256];
    size_t used = 0;
    for (; *text != L'\0' && used < sizeof(line); ++text)
        line[used++] = *text >= 0x20 && *text < 0x7F ? static_cast<char>(*text) : '?';
    Write(line, used);
}

void PrintNumber(uint64_t value) {
    char digits[24];
    size_t at = sizeof(digits);
    do {
        digits[--at] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    Write(digits + at, sizeof(digits) - at);
}

bool Check(bool holds, const char* what) { return Check(holds, what, nullptr); }

bool Check(bool holds, const char* what, const char* detail) {
    ++g_checks;
    if (holds) return true;
    if (++g_failures > kPrintedFailures) return false;
    Print("FAIL ");
    Print(what);
    if (detail != nullptr) {
        Print(": ");
        Print(detail);
    }
    Print("\n");
    return false;
}

uint32_t Failures() { return g_failures; }

uint32_t Checks() { return g_checks; }

uint64_t BusyHeapBytes() {
    void* heaps[64];
    uint64_t busy = 0;
    const uint32_t count = Heaps(heaps, 64);
    for (uint32_t i = 0; i < count; ++i) {
        if (!HeapLock(heaps[i])) continue;
        HeapEntry entry;
        memset(&entry, 0, sizeof(entry));
        while (HeapWalk(heaps[i], &entry))
            if ((entry.flags & kBusyEntry) != 0) busy += entry.size;
        HeapUnlock(heaps[i]);
    }
    return busy;
}

bool HeapsValid() {
    void* heaps[64];
    const uint32_t count = Heaps(heaps, 64);
    bool valid = count != 0;
    for (uint32_t i = 0; i < count; ++i) valid = HeapValidate(heaps[i], 0, nullptr) != 0 && valid;
    return valid;
}

void NoteBadBlock(const void*) { Check(false, "a block of the Microsoft library's layout", "back pointer out of range"); }

}  // namespace host
