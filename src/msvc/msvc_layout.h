// The Microsoft C++ boundary's types: std::string, std::wstring and
// std::vector<std::wstring> as a host built with Microsoft's toolchain (x64,
// release build) lays them out and allocates them. The members exported under
// Microsoft's decorated names read their arguments and write their results
// through this module, so that a host's library can grow, copy and destroy
// what the DLL hands out, and the DLL releases what a host hands in exactly as
// that library would.
//
// Layouts (all sizes in bytes):
//   basic_string<C>  32: { union { C buffer[16 / sizeof(C)]; C* pointer; }; size_t size; size_t capacity; }
//                    small (text in `buffer`) while capacity is 15 chars or 7 wchar_t, else large (text
//                    in a block of capacity + 1 units at `pointer`); a zero unit always follows the text.
//   vector<T>        24: { T* first; T* last; T* end; }: size last - first, capacity end - first elements;
//                    all three null before the first allocation.
// Memory comes from ucrtbase.dll's malloc and goes back to its free. A block
// of 4,096 bytes or more is over-allocated by 39 bytes: the pointer handed out
// is aligned to 32 and the real block's address sits in the 8 bytes before
// it, 8 to 39 bytes back; freeing reads it back and checks that distance.
// Growth: a string that needs n units gets the capacity max(n | 15 (char) or
// n | 7 (wchar_t), old + old / 2), a vector max(n, old + old / 2) elements,
// as that library's assign and push_back give them.
//
// Reading an object a host hands in checks every size against its capacity,
// the small/large mode, the terminator and a big block's back pointer before
// anything is read or freed through it. A refused object is left exactly as
// it was; the member returns its failure default and says so on the debugger
// channel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace torvex::msvc {

template <typename C>
struct String {
    static constexpr size_t kBufferUnits = 16 / sizeof(C);
    static constexpr size_t kSmallCapacity = kBufferUnits - 1;  // 15 chars, 7 wchar_t
    static constexpr size_t kRoundingMask = sizeof(C) == 1 ? 15 : 7;

    union {
        C buffer[kBufferUnits];
        C* pointer;
    };
    size_t size;
    size_t capacity;

    bool Large() const noexcept { return capacity > kSmallCapacity; }
    const C* Data() const noexcept { return Large() ? pointer : buffer; }
    C* Data() noexcept { return Large() ? pointer : buffer; }
};
using NarrowString = String<char>;
using WideString = String<wchar_t>;
static_assert(sizeof(NarrowString) == 32 && sizeof(WideString) == 32, "the library's string is 32 bytes");

struct WideVector {
    WideString* first;
    WideString* last;
    WideString* end;
};
static_assert(sizeof(WideVector) == 24, "the library's vector is three pointers");

// ---------------------------------------------------------------- memory
constexpr size_t kBigBlock = 4096;                                     // from here on a block carries a back pointer
constexpr size_t kBigAlignment = 32;                                   // of the pointer handed out
constexpr size_t kBigOverhead = sizeof(void*) + kBigAlignment - 1;     // 39 bytes over-allocated
constexpr size_t kMinBackShift = sizeof(void*);                        // the back pointer itself

// ucrtbase.dll's malloc under the big-block rule; null when it fails.
void* Allocate(size_t bytes) noexcept;
// Gives a block of `bytes` back to ucrtbase.dll's free, through the back
// pointer for a big block. The block must have passed BlockIntact.
void Deallocate(void* pointer, size_t bytes) noexcept;
// True when a block of `bytes` at `pointer` is laid out as the library lays
// it out: for a big block, aligned to 32 with its back pointer 8 to 39 bytes
// before it.
bool BlockIntact(const void* pointer, size_t bytes) noexcept;

// ---------------------------------------------------------------- sizes
template <typename C>
constexpr size_t MaxStringSize() {
    const size_t storage = SIZE_MAX / sizeof(C) - 1;
    return storage < static_cast<size_t>(PTRDIFF_MAX) ? storage : static_cast<size_t>(PTRDIFF_MAX);
}
constexpr size_t MaxVectorSize() { return SIZE_MAX / sizeof(WideString); }

// Capacity of a string that needs `requested` units and had `old`.
template <typename C>
constexpr size_t StringCapacityFor(size_t requested, size_t old) {
    const size_t max = MaxStringSize<C>();
    const size_t masked = requested | String<C>::kRoundingMask;
    if (masked > max || old > max - old / 2) return max;
    return masked > old + old / 2 ? masked : old + old / 2;
}

// Capacity of a vector that needs `needed` elements and had `old`.
constexpr size_t VectorCapacityFor(size_t needed, size_t old) {
    const size_t max = MaxVectorSize();
    if (old > max - old / 2) return max;
    return old + old / 2 < needed ? needed : old + old / 2;
}

// --------------------------------------------------------------- strings
// Whether a host's string is one its library could have made (see the top).
// Most strings are small and are decided inline; the rest out of line.
template <typename C>
bool ValidLarge(const String<C>* text) noexcept;
template <typename C>
inline bool Valid(const String<C>* text) noexcept {
    if (text == nullptr) return false;
    if (text->capacity != String<C>::kSmallCapacity) return ValidLarge(text);
    return text->size <= String<C>::kSmallCapacity && text->buffer[text->size] == C{};
}
// Builds a string in raw storage the way the library's constructor does.
// False when memory ran out; `out` is then a valid empty string. A text that
// fits the small buffer is copied inline.
template <typename C>
bool ConstructLarge(String<C>* out, std::basic_string_view<C> text) noexcept;
template <typename C>
inline bool Construct(String<C>* out, std::basic_string_view<C> text) noexcept {
    if (text.size() > String<C>::kSmallCapacity) return ConstructLarge(out, text);
    if (!text.empty()) std::memcpy(out->buffer, text.data(), text.size() * sizeof(C));
    out->buffer[text.size()] = C{};
    out->size = text.size();
    out->capacity = String<C>::kSmallCapacity;
    return true;
}
// Builds a string of `size` units in raw storage as the library's
// constructor builds one of that length, the zero after the text written and
// the text itself left for the caller to write; returns where it goes. Null
// when memory ran out; `out` is then a valid empty string.
template <typename C>
C* ConstructForOverwrite(String<C>* out, size_t size) noexcept;
// Shortens a valid string to `size` units (no more than it holds), keeping
// its block, as the library's resize does.
template <typename C>
void Truncate(String<C>* text, size_t size) noexcept;
// Replaces a valid string's text in place, growing it as the library's
// assign does. False when memory ran out; `target` is then unchanged.
template <typename C>
bool Assign(String<C>* target, std::basic_string_view<C> text) noexcept;
// Releases a valid string's block and leaves it empty and small.
template <typename C>
void Destroy(String<C>* text) noexcept;
// A class argument taken by value is the callee's to destroy: reads it into
// `out` and destroys it. False (nothing read, nothing freed) for an invalid one.
template <typename C>
bool TakeByValue(String<C>* argument, std::basic_string<C>& out);

template <typename C>
std::basic_string_view<C> View(const String<C>* text) noexcept {
    return {text->Data(), text->size};
}

// --------------------------------------------------------------- vectors
// The vector's pointers and block, and every element in it.
bool Valid(const WideVector* list) noexcept;
// Builds a vector in raw storage holding exactly `items`. False when memory
// ran out; `out` is then a valid empty vector.
bool Construct(WideVector* out, const std::vector<std::wstring>& items) noexcept;
// Destroys every element of a valid vector and keeps its block.
void Clear(WideVector* list) noexcept;
// push_back of one string onto a valid vector; false when memory ran out
// (the vector is then unchanged).
bool Append(WideVector* list, std::wstring_view item) noexcept;

}  // namespace torvex::msvc
