// Bounds-checked copy and fill with the semantics of the C runtime's memcpy_s
// and wcscpy_s: a copy that cannot be made leaves the destination zero-filled.
#pragma once

#include <cstddef>
#include <cstring>
#include <cwchar>

namespace torvex {

// Copies count bytes into a destination of destSize bytes. Returns false (and
// zero-fills the destination when there is one) if the source is missing or
// the destination is too small; copying nothing always succeeds.
inline bool BoundedCopy(void* dest, size_t destSize, const void* src, size_t count) {
    if (count == 0) return true;
    if (dest == nullptr) return false;
    if (src == nullptr || destSize < count) {
        std::memset(dest, 0, destSize);
        return false;
    }
    std::memcpy(dest, src, count);
    return true;
}

// Copies a zero-terminated wide string into a field of destChars characters.
// On failure the field's first character is zeroed, as wcscpy_s does.
inline bool BoundedWideCopy(wchar_t* dest, size_t destChars, const wchar_t* src) {
    if (dest == nullptr || destChars == 0) return false;
    if (src == nullptr) {
        dest[0] = L'\0';
        return false;
    }
    size_t length = std::wcslen(src);
    if (length >= destChars) {
        dest[0] = L'\0';
        return false;
    }
    std::wmemcpy(dest, src, length + 1);
    return true;
}

}  // namespace torvex
