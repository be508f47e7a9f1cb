// The allocation rules of the Microsoft C++ library's release build, for the
// host's stand-in <string> and <vector>: memory from ucrtbase.dll's malloc and
// free; a block of 4,096 bytes or more is over-allocated by 39 bytes, the
// pointer handed out is aligned to 32 and the real block's address sits in
// the 8 bytes before it. Written for these tests from those facts.
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {
__declspec(dllimport) void* __cdecl malloc(size_t bytes);
__declspec(dllimport) void __cdecl free(void* block);
void* __cdecl memcpy(void* to, const void* from, size_t bytes);
void* __cdecl memmove(void* to, const void* from, size_t bytes);
void* __cdecl memset(void* to, int value, size_t bytes);
int __cdecl memcmp(const void* a, const void* b, size_t bytes);
}

inline void* operator new(size_t, void* place) noexcept { return place; }

namespace host {

constexpr size_t kBigBlock = 4096;
constexpr size_t kBigAlignment = 32;
constexpr size_t kBigOverhead = 39;

// A freed block whose back pointer is off: the library would stop the
// process; the host counts it as a failed check and frees nothing.
void NoteBadBlock(const void* pointer);

inline bool BlockIntact(const void* pointer, size_t bytes) {
    if (bytes < kBigBlock) return true;
    const uintptr_t user = reinterpret_cast<uintptr_t>(pointer);
    if (user % kBigAlignment != 0) return false;
    const uintptr_t back = user - static_cast<const uintptr_t*>(pointer)[-1];
    return back >= sizeof(void*) && back <= kBigOverhead;
}

// The address malloc returned for a block handed out as `pointer`.
inline const void* RealBlock(const void* pointer, size_t bytes) {
    return bytes < kBigBlock ? pointer : reinterpret_cast<const void*>(static_cast<const uintptr_t*>(pointer)[-1]);
}

inline void* Allocate(size_t bytes) {
    if (bytes < kBigBlock) return malloc(bytes);
    const uintptr_t block = reinterpret_cast<uintptr_t>(malloc(bytes + kBigOverhead));
    if (block == 0) return nullptr;
    const uintptr_t user = (block + kBigOverhead) & ~uintptr_t(kBigAlignment - 1);
    reinterpret_cast<uintptr_t*>(user)[-1] = block;
    return reinterpret_cast<void*>(user);
}

inline void Deallocate(void* pointer, size_t bytes) {
    if (pointer == nullptr) return;
    if (!BlockIntact(pointer, bytes)) return NoteBadBlock(pointer);
    free(const_cast<void*>(RealBlock(pointer, bytes)));
}

// Capacity of a string of C that needs `needed` units and had `old`.
template <typename C>
constexpr size_t StringCapacity(size_t needed, size_t old) {
    const size_t rounded = needed | (sizeof(C) == 1 ? 15 : 7);
    return rounded > old + old / 2 ? rounded : old + old / 2;
}

// Capacity of a vector that needs `needed` elements and had `old`.
constexpr size_t VectorCapacity(size_t needed, size_t old) {
    return old + old / 2 < needed ? needed : old + old / 2;
}

}  // namespace host
